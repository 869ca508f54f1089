#pragma once

#include <QDBusArgument>
#include <QList>
#include <QMetaType>
#include <QString>

namespace quellix {

// One application as the panel's row shows it, as it travels over the bus: (ssbu).
struct RemoteApp {
  QString name;
  QString id;
  bool muted = false;
  uint volume = 100;
};
using RemoteAppList = QList<RemoteApp>;

QDBusArgument& operator<<(QDBusArgument& argument, const RemoteApp& app);
const QDBusArgument& operator>>(const QDBusArgument& argument, RemoteApp& app);

// What the running instance lets scripts do. The application behind it sits above this
// layer; it throws Failure for a request it turns down, and nothing has changed then.
class RemoteControl {
 public:
  struct Failure {
    QString errorName;  // one of the k...Error names
    QString message;    // one line for a person
  };
  static constexpr const char* kUnknownAppError = "com.norvalin.Quellix.Error.UnknownApp";
  static constexpr const char* kAmbiguousAppError = "com.norvalin.Quellix.Error.AmbiguousApp";
  static constexpr const char* kBadVolumeError = "com.norvalin.Quellix.Error.VolumeOutOfRange";

  virtual ~RemoteControl() = default;
  virtual RemoteAppList apps() = 0;
  virtual RemoteApp mute(const QString& app) = 0;
  virtual RemoteApp unmute(const QString& app) = 0;
  virtual RemoteApp toggle(const QString& app) = 0;
  virtual RemoteApp hearOnly(const QString& app) = 0;
  virtual RemoteApp setVolume(const QString& app, double volume) = 0;
  virtual void setMasterVolume(double volume) = 0;
  virtual void setMasterMuted(bool muted) = 0;
  virtual uint masterVolume() = 0;
  virtual bool masterMuted() = 0;
};

}  // namespace quellix

Q_DECLARE_METATYPE(quellix::RemoteApp)
