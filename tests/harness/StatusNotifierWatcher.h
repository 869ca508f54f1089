#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>

namespace quellix::testing {

// What a tray host's watcher says on the bus: whether a host is there, and which items
// registered.
class StatusNotifierWatcherAdaptor final : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
  Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
  Q_PROPERTY(int ProtocolVersion READ protocolVersion)

 public:
  StatusNotifierWatcherAdaptor(QObject* object, bool hostRegistered);

  // Each as "<bus name><object path>", the way hosts list them and the signals name them.
  QStringList registeredItems() const { return registeredItems_; }
  bool isHostRegistered() const { return hostRegistered_; }
  int protocolVersion() const { return 0; }
  void setHostRegistered(bool registered);

 public slots:
  void RegisterStatusNotifierItem(const QString& serviceOrPath, const QDBusMessage& message);
  void RegisterStatusNotifierHost(const QString& service);

 signals:
  void StatusNotifierItemRegistered(const QString& item);
  void StatusNotifierItemUnregistered(const QString& item);
  void StatusNotifierHostRegistered();
  void StatusNotifierHostUnregistered();

 private:
  QStringList registeredItems_;
  bool hostRegistered_;
};

// The watcher a tray host runs, on a connection of its own to this process's session bus, so
// that it comes and goes on the bus like a separate program.
class StatusNotifierWatcher {
 public:
  explicit StatusNotifierWatcher(bool hostRegistered = true);
  ~StatusNotifierWatcher();
  StatusNotifierWatcher(const StatusNotifierWatcher&) = delete;
  StatusNotifierWatcher& operator=(const StatusNotifierWatcher&) = delete;

  StatusNotifierWatcherAdaptor* adaptor() const { return adaptor_; }
  QStringList registeredItems() const { return adaptor_->registeredItems(); }
  void setHostRegistered(bool registered) { adaptor_->setHostRegistered(registered); }

 private:
  QObject object_;
  StatusNotifierWatcherAdaptor* adaptor_;  // owned by object_
  QDBusConnection bus_;
};

}  // namespace quellix::testing
