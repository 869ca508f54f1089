#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QObject>
#include <QStringList>

namespace quellix::testing {

// The watcher's face on the bus, reduced to what an item talks to.
class FakeWatcherAdaptor final : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
  Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
  Q_PROPERTY(int ProtocolVersion READ protocolVersion)

 public:
  FakeWatcherAdaptor(QObject* object, bool hostRegistered);

  QStringList registeredItems() const { return registeredItems_; }
  bool isHostRegistered() const { return hostRegistered_; }
  int protocolVersion() const { return 0; }
  void setHostRegistered(bool registered);

 public slots:
  void RegisterStatusNotifierItem(const QString& service);
  void RegisterStatusNotifierHost(const QString& service);

 signals:
  void StatusNotifierItemRegistered(const QString& service);
  void StatusNotifierItemUnregistered(const QString& service);
  void StatusNotifierHostRegistered();
  void StatusNotifierHostUnregistered();

 private:
  QStringList registeredItems_;
  bool hostRegistered_;
};

// The watcher a tray host runs, on its own connection, so that it comes and goes on the bus
// like a separate program.
class FakeStatusNotifierWatcher {
 public:
  FakeStatusNotifierWatcher(const QString& connectionName, bool hostRegistered);
  ~FakeStatusNotifierWatcher();
  FakeStatusNotifierWatcher(const FakeStatusNotifierWatcher&) = delete;
  FakeStatusNotifierWatcher& operator=(const FakeStatusNotifierWatcher&) = delete;

  FakeWatcherAdaptor* adaptor() const { return adaptor_; }
  void setHostRegistered(bool registered) { adaptor_->setHostRegistered(registered); }

 private:
  QObject object_;
  FakeWatcherAdaptor* adaptor_;  // owned by object_
  QDBusConnection bus_;
  QString connectionName_;
};

// Counts a D-Bus signal and re-emits it as a Qt signal to wait on.
class DBusSignalRecorder final : public QObject {
  Q_OBJECT

 public:
  DBusSignalRecorder(QDBusConnection bus, const QString& service, const QString& path,
                     const QString& interface, const QString& name);

  int count() const { return count_; }

 signals:
  void received();

 private slots:
  void record();

 private:
  int count_ = 0;
};

}  // namespace quellix::testing
