#pragma once

#include <sys/types.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVariant>

namespace quellix::testing {

// A connection of its own to the bus at `address` (this process's session bus when empty), so
// that what it serves comes and goes like a separate program. Disconnect it by its name().
// Not connected when the bus does not answer.
QDBusConnection connectPrivately(const QString& address = {});

// Calls a method and waits for the answer while serving this thread's events: the callee may
// live in this same thread.
QDBusMessage callAndWait(const QDBusConnection& bus, const QString& service, const QString& path,
                         const QString& interface, const QString& method,
                         const QVariantList& arguments = {});

// A property's value, unwrapped; invalid when the call fails.
QVariant propertyOf(const QDBusConnection& bus, const QString& service, const QString& path,
                    const QString& interface, const QString& name);

// The first name beginning with `prefix` that the process `pid` owns on the bus, or empty.
QString nameOwnedBy(const QDBusConnection& bus, pid_t pid, const QString& prefix);

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
