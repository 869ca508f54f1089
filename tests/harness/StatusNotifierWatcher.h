#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>

namespace quellix::testing {

// What a tray host's watcher says on the bus: a host is there, and which items registered.
class StatusNotifierWatcherAdaptor final : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
  Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
  Q_PROPERTY(int ProtocolVersion READ protocolVersion)

 public:
  explicit StatusNotifierWatcherAdaptor(QObject* object);

  // Each as "<bus name><object path>", the way hosts list them.
  QStringList registeredItems() const { return registeredItems_; }
  bool isHostRegistered() const { return true; }
  int protocolVersion() const { return 0; }

 public slots:
  void RegisterStatusNotifierItem(const QString& serviceOrPath, const QDBusMessage& message);
  void RegisterStatusNotifierHost(const QString& service);

 signals:
  void StatusNotifierItemRegistered(const QString& service);
  void StatusNotifierItemUnregistered(const QString& service);
  void StatusNotifierHostRegistered();
  void StatusNotifierHostUnregistered();

 private:
  QStringList registeredItems_;
};

// The watcher as a separate program would run it, on a connection of its own.
class StatusNotifierWatcher {
 public:
  explicit StatusNotifierWatcher(const QString& busAddress);
  ~StatusNotifierWatcher();
  StatusNotifierWatcher(const StatusNotifierWatcher&) = delete;
  StatusNotifierWatcher& operator=(const StatusNotifierWatcher&) = delete;

  QStringList registeredItems() const { return adaptor_->registeredItems(); }

 private:
  QObject object_;
  StatusNotifierWatcherAdaptor* adaptor_;  // owned by object_
  QDBusConnection bus_;
};

}  // namespace quellix::testing
