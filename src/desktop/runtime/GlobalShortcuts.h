#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <vector>

#include "support/Logger.h"

namespace quellix {

// Shortcuts the user binds in the desktop's own settings, through the desktop portal's global
// shortcuts interface. Where the desktop offers none, it says so once in the log and stays
// quiet. Main thread only.
class GlobalShortcuts final : public QObject {
  Q_OBJECT

 public:
  struct Shortcut {
    QString id;
    QString description;  // what the desktop's settings show the user
  };

  static constexpr const char* kPortalService = "org.freedesktop.portal.Desktop";
  static constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
  static constexpr const char* kInterface = "org.freedesktop.portal.GlobalShortcuts";
  static constexpr const char* kRequestInterface = "org.freedesktop.portal.Request";

  GlobalShortcuts(QDBusConnection bus, std::shared_ptr<LogSink> logs);

  // Opens a session and offers `shortcuts` for binding; answers arrive later.
  void registerShortcuts(std::vector<Shortcut> shortcuts);
  bool isBound() const { return bound_; }

 signals:
  void activated(const QString& id);

 private slots:
  void sessionCreated(uint response, const QVariantMap& results);
  void shortcutsBound(uint response, const QVariantMap& results);
  void shortcutActivated(const QDBusMessage& message);

 private:
  // Calls `method` and routes the request's Response signal to `slot`.
  void request(const QString& method, QVariantList arguments, const char* slot);
  void absent(const QString& why);

  QDBusConnection bus_;
  std::vector<Shortcut> shortcuts_;
  QString sessionHandle_;
  int requests_ = 0;
  bool bound_ = false;
  Logger logger_;
};

}  // namespace quellix
