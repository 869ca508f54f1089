#pragma once

#include <QByteArray>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QPoint>
#include <QString>
#include <QVariant>
#include <memory>
#include <vector>

#include "harness/DBusClient.h"

namespace quellix::testing {

// What a panel does with a tray item, on a connection of its own: reads its properties,
// follows its signals, clicks it. Every call serves this thread's events while it waits, so
// the item may live in this same process.
class TrayHost {
 public:
  struct Pixmap {
    int width = 0;
    int height = 0;
    QByteArray argb;  // in network byte order
  };

  static inline const QString kItemInterface = QStringLiteral("org.kde.StatusNotifierItem");

  // `item` as the watcher names it: "<bus name><object path>".
  explicit TrayHost(const QString& item);
  ~TrayHost();
  TrayHost(const TrayHost&) = delete;
  TrayHost& operator=(const TrayHost&) = delete;

  QDBusMessage call(const QString& path, const QString& interface, const QString& method,
                    const QVariantList& arguments = {});
  QVariant property(const QString& path, const QString& interface, const QString& name);
  QVariant itemProperty(const QString& name);
  // The pictures of the icon, each decoded from the wire format (a(iiay)) as a host does.
  std::vector<Pixmap> iconPixmaps();
  bool activate(QPoint where);
  std::unique_ptr<DBusSignalRecorder> follow(const QString& path, const QString& interface,
                                             const QString& name);

  const QString& itemPath() const { return itemPath_; }

 private:
  QDBusConnection bus_;
  QString service_;
  QString itemPath_;
};

}  // namespace quellix::testing
