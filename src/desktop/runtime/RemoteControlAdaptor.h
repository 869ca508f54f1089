#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusMessage>
#include <functional>

#include "desktop/runtime/RemoteControl.h"

namespace quellix {

// The control interface on the one instance's object: the panel's actions for scripts and
// shortcuts, and a signal whenever the state they act on changes, whoever changed it.
class RemoteControlAdaptor final : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.norvalin.Quellix.Control")
  Q_CLASSINFO("D-Bus Introspection",
              "  <interface name=\"com.norvalin.Quellix.Control\">\n"
              "    <!-- An application is named as its row shows it: display name, desktop id (or "
              "\"pid:\"\n"
              "         and its PID) or executable, in any case. An unknown or ambiguous name, or "
              "a volume\n"
              "         outside 0 to 100, is answered with an error and changes nothing. -->\n"
              "    <method name=\"ListApps\">\n"
              "      <arg name=\"apps\" type=\"a(ssbu)\" direction=\"out\"/>\n"
              "      <annotation name=\"org.qtproject.QtDBus.QtTypeName.Out0\" "
              "value=\"quellix::RemoteAppList\"/>\n"
              "    </method>\n"
              "    <method name=\"Mute\">\n"
              "      <arg name=\"app\" type=\"s\" direction=\"in\"/>\n"
              "    </method>\n"
              "    <method name=\"Unmute\">\n"
              "      <arg name=\"app\" type=\"s\" direction=\"in\"/>\n"
              "    </method>\n"
              "    <method name=\"Toggle\">\n"
              "      <arg name=\"app\" type=\"s\" direction=\"in\"/>\n"
              "      <arg name=\"muted\" type=\"b\" direction=\"out\"/>\n"
              "    </method>\n"
              "    <method name=\"HearOnly\">\n"
              "      <arg name=\"app\" type=\"s\" direction=\"in\"/>\n"
              "    </method>\n"
              "    <method name=\"SetVolume\">\n"
              "      <arg name=\"app\" type=\"s\" direction=\"in\"/>\n"
              "      <arg name=\"volume\" type=\"d\" direction=\"in\"/>\n"
              "    </method>\n"
              "    <method name=\"GetMaster\">\n"
              "      <arg name=\"volume\" type=\"u\" direction=\"out\"/>\n"
              "      <arg name=\"muted\" type=\"b\" direction=\"out\"/>\n"
              "    </method>\n"
              "    <method name=\"SetMasterVolume\">\n"
              "      <arg name=\"volume\" type=\"d\" direction=\"in\"/>\n"
              "    </method>\n"
              "    <method name=\"SetMasterMuted\">\n"
              "      <arg name=\"muted\" type=\"b\" direction=\"in\"/>\n"
              "    </method>\n"
              "    <signal name=\"AppChanged\">\n"
              "      <arg name=\"name\" type=\"s\"/>\n"
              "      <arg name=\"id\" type=\"s\"/>\n"
              "      <arg name=\"muted\" type=\"b\"/>\n"
              "      <arg name=\"volume\" type=\"u\"/>\n"
              "    </signal>\n"
              "    <signal name=\"MasterChanged\">\n"
              "      <arg name=\"volume\" type=\"u\"/>\n"
              "      <arg name=\"muted\" type=\"b\"/>\n"
              "    </signal>\n"
              "  </interface>\n")

 public:
  explicit RemoteControlAdaptor(QObject* parent);

  // Requests are turned down until the application is there to answer them.
  void setControl(RemoteControl* control) { control_ = control; }

 public slots:
  RemoteAppList ListApps(const QDBusMessage& message);
  void Mute(const QString& app, const QDBusMessage& message);
  void Unmute(const QString& app, const QDBusMessage& message);
  bool Toggle(const QString& app, const QDBusMessage& message);
  void HearOnly(const QString& app, const QDBusMessage& message);
  void SetVolume(const QString& app, double volume, const QDBusMessage& message);
  uint GetMaster(bool& muted);
  void SetMasterVolume(double volume, const QDBusMessage& message);
  void SetMasterMuted(bool muted, const QDBusMessage& message);

 signals:
  void AppChanged(const QString& name, const QString& id, bool muted, uint volume);
  void MasterChanged(uint volume, bool muted);

 private:
  // Runs `request`, or answers `message` with the error it was turned down with.
  template <typename Result>
  Result answer(const QDBusMessage& message, const std::function<Result(RemoteControl&)>& request);

  RemoteControl* control_ = nullptr;
};

}  // namespace quellix
