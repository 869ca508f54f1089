#include "tray/TrayItem.h"

#include <unistd.h>

#include <QApplication>
#include <QCoreApplication>
#include <QCursor>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <atomic>
#include <chrono>

#include "support/Logger.h"
#include "tray/DBusMenuAdaptor.h"
#include "tray/StatusNotifierItemAdaptor.h"

namespace quellix {

namespace {

const QString kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");
const QString kWatcherInterface = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kItemPath = QStringLiteral("/StatusNotifierItem");
const QString kMenuPath = QStringLiteral("/MenuBar");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

// An X11 tray announces itself by a selection Qt offers no signal for; while there is none,
// look again this often.
constexpr std::chrono::seconds kXEmbedTrayPollInterval{3};

QString nextServiceName() {
  static std::atomic<int> lastInstance = 0;
  return QStringLiteral("org.kde.StatusNotifierItem-%1-%2").arg(::getpid()).arg(++lastInstance);
}

}  // namespace

TrayItem::TrayItem(std::shared_ptr<LogSink> logs, QObject* parent)
    : QObject(parent), logger_(std::move(logs), "TrayItem"), bus_(QDBusConnection::sessionBus()) {
  xembedPoll_.setInterval(kXEmbedTrayPollInterval);
  connect(&xembedPoll_, &QTimer::timeout, this, [this] { updateAvailability(); });
  if (!bus_.isConnected()) {
    logger_.error("No session bus (" + bus_.lastError().message().toStdString() +
                  "): the tray item can only use an X11 tray");
    hostStateKnown_ = true;
    updateAvailability();
    return;
  }
  exportOnBus();
}

TrayItem::~TrayItem() {
  if (!serviceName_.isEmpty()) {
    bus_.unregisterService(serviceName_);
    bus_.unregisterObject(kMenuPath);
    bus_.unregisterObject(kItemPath);
  }
}

void TrayItem::exportOnBus() {
  itemAdaptor_ = new StatusNotifierItemAdaptor(
      &itemObject_, QDBusObjectPath(kMenuPath),
      {.activated = [this](QPoint where) { emit activated(where); },
       .scrolled =
           [this](int delta, Qt::Orientation orientation) {
             ScrollReading& reading =
                 orientation == Qt::Vertical ? verticalScroll_ : horizontalScroll_;
             if (const int notches = reading.notches(delta); notches != 0) {
               emit scrolled(notches, orientation);
             }
           }});
  itemAdaptor_->setTitle(QStringLiteral("Quellix"));
  itemAdaptor_->setIconThemePath(iconThemePath());
  menuAdaptor_ = new DBusMenuAdaptor(
      &menuObject_, [this](const QString& entryID) { emit menuEntryTriggered(entryID); });

  const auto exported = QDBusConnection::ExportAdaptors;
  if (!bus_.registerObject(kItemPath, &itemObject_, exported) ||
      !bus_.registerObject(kMenuPath, &menuObject_, exported)) {
    logger_.error("Could not export the tray item: " + bus_.lastError().message().toStdString());
    hostStateKnown_ = true;
    updateAvailability();
    return;
  }
  const QString name = nextServiceName();
  if (!bus_.registerService(name)) {
    logger_.error("Could not take the bus name " + name.toStdString() + ": " +
                  bus_.lastError().message().toStdString());
    hostStateKnown_ = true;
    updateAvailability();
    return;
  }
  serviceName_ = name;

  // A tray host may come later or restart: follow the watcher's name for the whole run.
  watcherWatcher_ = new QDBusServiceWatcher(kWatcherService, bus_,
                                            QDBusServiceWatcher::WatchForOwnerChange, this);
  connect(watcherWatcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
          &TrayItem::watcherOwnerChanged);
  bus_.connect(kWatcherService, kWatcherPath, kWatcherInterface,
               QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(hostRegistered()));
  bus_.connect(kWatcherService, kWatcherPath, kWatcherInterface,
               QStringLiteral("StatusNotifierHostUnregistered"), this, SLOT(hostUnregistered()));

  if (bus_.interface()->isServiceRegistered(kWatcherService)) {
    watcherAppeared();
  } else {
    hostStateKnown_ = true;
    updateAvailability();
  }
}

void TrayItem::watcherOwnerChanged(const QString& /*service*/, const QString& oldOwner,
                                   const QString& newOwner) {
  if (!oldOwner.isEmpty()) {
    watcherVanished();
  }
  if (!newOwner.isEmpty()) {
    watcherAppeared();
  }
}

void TrayItem::watcherAppeared() {
  ++watcherGeneration_;
  forgetScrollUnits();
  watcherPresent_ = true;
  registered_ = false;
  hostRegistered_ = false;
  hostStateKnown_ = false;
  registerWithWatcher();
  queryHostRegistered();
}

void TrayItem::watcherVanished() {
  ++watcherGeneration_;
  watcherPresent_ = false;
  registered_ = false;
  hostRegistered_ = false;
  hostStateKnown_ = true;
  updateAvailability();
}

void TrayItem::whenAnswered(QDBusPendingCallWatcher* call,
                            std::function<void(QDBusPendingCallWatcher*)> done) {
  const quint64 generation = watcherGeneration_;
  connect(call, &QDBusPendingCallWatcher::finished, this,
          [this, generation, done = std::move(done)](QDBusPendingCallWatcher* finished) {
            finished->deleteLater();
            if (generation == watcherGeneration_) {
              done(finished);
            }
          });
}

void TrayItem::registerWithWatcher() {
  auto message = QDBusMessage::createMethodCall(kWatcherService, kWatcherPath, kWatcherInterface,
                                                QStringLiteral("RegisterStatusNotifierItem"));
  message << serviceName_;
  // Never block here: the watcher may be busy, and the program's own clicks wait on this
  // thread.
  whenAnswered(new QDBusPendingCallWatcher(bus_.asyncCall(message), this),
               [this](QDBusPendingCallWatcher* call) {
                 if (call->isError()) {
                   logger_.error("The tray watcher refused the item: " +
                                 call->error().message().toStdString());
                   return;
                 }
                 registered_ = true;
                 logger_.info("Tray item registered as " + serviceName_.toStdString());
                 updateAvailability();
               });
}

void TrayItem::queryHostRegistered() {
  auto message = QDBusMessage::createMethodCall(kWatcherService, kWatcherPath, kPropertiesInterface,
                                                QStringLiteral("Get"));
  message << kWatcherInterface << QStringLiteral("IsStatusNotifierHostRegistered");
  whenAnswered(new QDBusPendingCallWatcher(bus_.asyncCall(message), this),
               [this](QDBusPendingCallWatcher* call) {
                 const QDBusPendingReply<QDBusVariant> reply = *call;
                 // A watcher that cannot say is taken at its word that a host may come.
                 hostRegistered_ = !reply.isError() && reply.value().variant().toBool();
                 hostStateKnown_ = true;
                 updateAvailability();
               });
}

void TrayItem::hostRegistered() {
  if (!watcherPresent_) {
    return;
  }
  hostRegistered_ = true;
  forgetScrollUnits();
  updateAvailability();
}

void TrayItem::forgetScrollUnits() {
  // Another host may count in other units.
  verticalScroll_ = {};
  horizontalScroll_ = {};
}

void TrayItem::hostUnregistered() {
  // One host leaving does not mean none is left: ask.
  if (watcherPresent_) {
    queryHostRegistered();
  }
}

void TrayItem::updateAvailability() {
  if (!hostStateKnown_) {
    return;
  }
  updateXEmbedTray();
  const bool available = (registered_ && hostRegistered_) || xembedIcon_ != nullptr;
  if (available == hostAvailable_) {
    return;
  }
  hostAvailable_ = available;
  emit hostAvailabilityChanged(available);
}

void TrayItem::updateXEmbedTray() {
  const bool statusNotifierHost = registered_ && hostRegistered_;
  // Qt decides once per process which tray it speaks, and asking while a StatusNotifierItem
  // host exists would make it choose that one for good: ask only while none exists.
  const bool canUseX11Tray = !statusNotifierHost &&
                             qobject_cast<QApplication*>(QCoreApplication::instance()) &&
                             QGuiApplication::platformName() == QLatin1String("xcb");
  const bool useX11Tray = canUseX11Tray && QSystemTrayIcon::isSystemTrayAvailable();
  if (useX11Tray && !xembedIcon_) {
    xembedIcon_ = std::make_unique<QSystemTrayIcon>(currentIcon());
    xembedIcon_->setToolTip(xembedToolTip());
    connect(xembedIcon_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
              if (reason == QSystemTrayIcon::Trigger) {
                emit activated(QCursor::pos());
              }
            });
    rebuildXEmbedMenu();
    xembedIcon_->show();
  } else if (!useX11Tray && xembedIcon_) {
    xembedIcon_.reset();
    xembedMenu_.reset();
  }
  const bool waitForX11Tray = canUseX11Tray && !useX11Tray;
  if (waitForX11Tray && !xembedPoll_.isActive()) {
    xembedPoll_.start();
  } else if (!waitForX11Tray) {
    xembedPoll_.stop();
  }
}

void TrayItem::rebuildXEmbedMenu() {
  if (!xembedIcon_) {
    return;
  }
  auto menu = std::make_unique<QMenu>();
  for (const auto& entry : menuEntries_) {
    if (entry.isSeparator) {
      menu->addSeparator();
      continue;
    }
    QAction* action = menu->addAction(entry.label);
    action->setEnabled(entry.enabled);
    connect(action, &QAction::triggered, this,
            [this, entryID = entry.id] { emit menuEntryTriggered(entryID); });
  }
  xembedIcon_->setContextMenu(menu.get());
  xembedMenu_ = std::move(menu);
}

QString TrayItem::xembedToolTip() const {
  return toolTipText_.isEmpty() ? toolTipTitle_ : toolTipTitle_ + QLatin1Char('\n') + toolTipText_;
}

QString TrayItem::themeIconName(const QString& symbolName) {
  // Names of our own: a theme's speaker of the same name would not be the one the panel and
  // the about window show.
  if (symbolName == QLatin1String("speaker.wave.2.fill")) {
    return QStringLiteral("com.norvalin.quellix-speaker-symbolic");
  }
  if (symbolName == QLatin1String("speaker.slash.fill")) {
    return QStringLiteral("com.norvalin.quellix-speaker-muted-symbolic");
  }
  return {};
}

QString TrayItem::iconThemePath() {
  // Installed, and in the portable folder, the icons are in share/ beside bin/; a build tree
  // keeps a copy in the same place relative to the program.
  const QString path =
      QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/icons"));
  const QString probe = path + QStringLiteral("/hicolor/scalable/status/") +
                        themeIconName(QStringLiteral("speaker.wave.2.fill")) +
                        QStringLiteral(".svg");
  return QFile::exists(probe) ? path : QString();
}

QIcon TrayItem::currentIcon() const {
  // The X11 tray takes a picture, never a name: the outlined one reads on any panel.
  QIcon icon;
  for (const int size : {16, 22, 24, 32, 48}) {
    icon.addPixmap(QPixmap::fromImage(outlinedTrayImage(picture_, size)));
  }
  return icon;
}

void TrayItem::setSymbol(const QString& symbolName, const QIcon& picture) {
  symbolName_ = symbolName;
  picture_ = picture;
  if (itemAdaptor_) {
    itemAdaptor_->setIcon(themeIconName(symbolName), trayIconPixmaps(picture));
  }
  if (xembedIcon_) {
    xembedIcon_->setIcon(currentIcon());
  }
}

void TrayItem::setSymbol(const QString& symbolName) {
  // The tray's own drawing of a symbol where it has one, so that the picture matches the icon
  // the hosts find by name.
  const QString themeName = themeIconName(symbolName);
  const QString trayPath = QStringLiteral(":/tray/") + themeName + QStringLiteral(".svg");
  const QString path =
      !themeName.isEmpty() && QFile::exists(trayPath)
          ? trayPath
          : symbolDirectory_ + QLatin1Char('/') + symbolName + QStringLiteral(".svg");
  if (!QFile::exists(path)) {
    logger_.error("No picture for the symbol " + symbolName.toStdString() + " at " +
                  path.toStdString());
  }
  setSymbol(symbolName, QFile::exists(path) ? QIcon(path) : QIcon());
}

void TrayItem::setToolTip(const QString& title, const QString& text) {
  toolTipTitle_ = title;
  toolTipText_ = text;
  if (itemAdaptor_) {
    itemAdaptor_->setToolTip(title, text);
  }
  if (xembedIcon_) {
    xembedIcon_->setToolTip(xembedToolTip());
  }
}

void TrayItem::setMenuEntries(const QList<TrayMenuEntry>& entries) {
  if (entries == menuEntries_) {
    return;
  }
  menuEntries_ = entries;
  if (menuAdaptor_) {
    menuAdaptor_->setEntries(entries);
  }
  rebuildXEmbedMenu();
}

}  // namespace quellix
