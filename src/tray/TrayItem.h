#pragma once

#include <QDBusConnection>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPoint>
#include <QString>
#include <QTimer>
#include <functional>
#include <memory>

#include "support/Logger.h"
#include "tray/DBusMenuAdaptor.h"
#include "tray/ScrollReading.h"
#include "tray/TrayMenuEntry.h"

class QDBusPendingCallWatcher;
class QDBusServiceWatcher;
class QMenu;
class QSystemTrayIcon;

namespace quellix {

class StatusNotifierItemAdaptor;

// The program's icon in the desktop's tray, with a menu. Speaks the StatusNotifierItem
// protocol itself, so that it shows whenever a tray host exists, also one that starts later
// or restarts, and learns where the user clicked. Where no host speaks that protocol but an
// X11 tray exists, it uses Qt's own tray icon instead. Main thread only; needs a
// QGuiApplication (a QApplication for the X11 tray).
class TrayItem final : public QObject {
  Q_OBJECT

 public:
  explicit TrayItem(std::shared_ptr<LogSink> logs, QObject* parent = nullptr);
  ~TrayItem() override;
  TrayItem(const TrayItem&) = delete;
  TrayItem& operator=(const TrayItem&) = delete;

  // Shows the named symbol ("speaker.wave.2.fill", "speaker.slash.fill"). Hosts draw our
  // icon of that name, recoloured for their panel, where they find it, else `picture`
  // outlined.
  void setSymbol(const QString& symbolName, const QIcon& picture);
  // As above, with the picture read from "<symbolDirectory>/<symbolName>.svg".
  void setSymbol(const QString& symbolName);
  void setSymbolDirectory(const QString& directory) { symbolDirectory_ = directory; }
  QString symbol() const { return symbolName_; }

  void setToolTip(const QString& title, const QString& text);
  void setMenuEntries(const QList<TrayMenuEntry>& entries);

  // Whether some tray shows the item now. When false, the program must offer its panel in
  // another way.
  bool isHostAvailable() const { return hostAvailable_; }

  // The name the item holds on the session bus, empty without one.
  QString serviceName() const { return serviceName_; }

  // The icon name the tray's symbol is installed under, empty for other symbols.
  static QString themeIconName(const QString& symbolName);
  // The folder holding the hicolor theme with those icons, beside the program; empty when the
  // program runs from elsewhere and the hosts must find them in the system's themes.
  static QString iconThemePath();

 signals:
  // The user clicked the icon; `where` is the click in global coordinates, or the null point
  // when the host did not say.
  void activated(QPoint where);
  // Whole wheel notches, whatever units the host counts in; positive is up.
  void scrolled(int notches, Qt::Orientation orientation);
  void menuEntryTriggered(const QString& entryID);
  void hostAvailabilityChanged(bool available);

 private slots:
  void watcherOwnerChanged(const QString& service, const QString& oldOwner,
                           const QString& newOwner);
  void hostRegistered();
  void hostUnregistered();

 private:
  void exportOnBus();
  void watcherAppeared();
  void watcherVanished();
  void registerWithWatcher();
  void queryHostRegistered();
  // Runs `done` with the reply unless the watcher went away or was replaced meanwhile.
  void whenAnswered(QDBusPendingCallWatcher* call,
                    std::function<void(QDBusPendingCallWatcher*)> done);
  void updateAvailability();
  void forgetScrollUnits();
  void updateXEmbedTray();
  void rebuildXEmbedMenu();
  QIcon currentIcon() const;
  QString xembedToolTip() const;

  Logger logger_;
  QDBusConnection bus_;
  QString serviceName_;
  QString symbolDirectory_ = QStringLiteral(":/symbols");
  QString symbolName_;
  QIcon picture_;
  QString toolTipTitle_;
  QString toolTipText_;
  QList<TrayMenuEntry> menuEntries_;
  // What the current host's scrolls have shown of its units, per orientation.
  ScrollReading verticalScroll_;
  ScrollReading horizontalScroll_;

  QObject itemObject_;
  DBusMenuObject menuObject_;
  StatusNotifierItemAdaptor* itemAdaptor_ = nullptr;  // owned by itemObject_
  DBusMenuAdaptor* menuAdaptor_ = nullptr;            // owned by menuObject_
  QDBusServiceWatcher* watcherWatcher_ = nullptr;     // child of this

  // Counts watcher appearances; replies from an earlier watcher are ignored.
  quint64 watcherGeneration_ = 0;
  bool watcherPresent_ = false;
  bool registered_ = false;
  bool hostRegistered_ = false;
  bool hostStateKnown_ = false;
  bool hostAvailable_ = false;

  std::unique_ptr<QMenu> xembedMenu_;  // outlives the icon that shows it
  std::unique_ptr<QSystemTrayIcon> xembedIcon_;
  QTimer xembedPoll_;
};

}  // namespace quellix
