#include "app/QuellixApp.h"

#include <QApplication>
#include <algorithm>

#include "app/AppRemoteControl.h"
#include "app/PanelHost.h"
#include "audio/BackendSelection.h"
#include "desktop/mpris/MprisPlayers.h"
#include "desktop/runtime/GlobalShortcuts.h"
#include "desktop/runtime/HttpClient.h"
#include "desktop/runtime/QtMainQueue.h"
#include "desktop/runtime/SingleInstance.h"
#include "desktop/runtime/TerminationSignals.h"
#include "desktop/runtime/Translations.h"
#include "state/SelfMover.h"
#include "support/BuildInfo.h"
#include "support/Observable.h"
#include "tray/TrayItem.h"
#include "ui/MessageBoxMoveAlerts.h"
#include "ui/Views.h"

namespace quellix {
namespace {

const QString kOpenPanel = QStringLiteral("open");
const QString kAbout = QStringLiteral("about");
const QString kQuit = QStringLiteral("quit");
const QString kToggleCurrentPlayerShortcut = QStringLiteral("toggle-current-player");
const QString kUnmuteAllShortcut = QStringLiteral("unmute-all");

}  // namespace

const char* QuellixApp::traySymbol(int activeMuteCount) {
  return activeMuteCount < 1 ? "speaker.wave.2.fill" : "speaker.slash.fill";
}

QuellixApp::QuellixApp(AppEnvironment environment) {
  environment.makeOnboarding = [](AppState& state, std::function<void()> close) {
    return ui::makeOnboardingWindow(state, std::move(close));
  };
  environment.makeAbout = [](AppState& state) { return ui::makeAboutWindow(state); };
  auto logs = environment.logs;
  state_ = AppState::create(std::move(environment));

  panel_ = std::make_unique<PanelHost>(ui::makeMenuBarView(*state_));
  tray_ = std::make_unique<TrayItem>(std::move(logs));
  tray_->setToolTip(QStringLiteral("Quellix"), QString());
  tray_->setMenuEntries({
      {.id = kOpenPanel, .label = QCoreApplication::translate("QuellixApp", "Quellix öffnen")},
      TrayMenuEntry::separator(),
      {.id = kAbout, .label = QCoreApplication::translate("QuellixApp", "Über Quellix")},
      {.id = kQuit, .label = QCoreApplication::translate("QuellixApp", "Beenden")},
  });
  connect(tray_.get(), &TrayItem::activated, this, [this](QPoint where) {
    panel_->setMode(PanelHost::Mode::popup);
    panel_->toggle(where);
  });
  connect(tray_.get(), &TrayItem::scrolled, this, &QuellixApp::scroll);
  connect(tray_.get(), &TrayItem::menuEntryTriggered, this, [this](const QString& entry) {
    if (entry == kOpenPanel) {
      showPanel();
    } else if (entry == kAbout) {
      state_->showAbout();
    } else if (entry == kQuit) {
      QCoreApplication::quit();
    }
  });
  connect(tray_.get(), &TrayItem::hostAvailabilityChanged, this, &QuellixApp::followHost);
  followMuteCount();
  // A tray host answers asynchronously; only its silence means there is none.
  trayGrace_ = state_->queue().after(kTrayGracePeriod, [this] {
    if (!tray_->isHostAvailable()) {
      followHost(false);
    }
  });
}

QuellixApp::~QuellixApp() {
  trayGrace_.cancel();
}

void QuellixApp::followMuteCount() {
  const char* symbol = nullptr;
  withObservationTracking([&] { symbol = traySymbol(state_->muter().activeMuteCount()); },
                          [this] {
                            // Re-read once the change is complete, not in the middle of it.
                            state_->queue().post([this] { followMuteCount(); });
                          });
  tray_->setSymbol(QString::fromLatin1(symbol));
}

void QuellixApp::followHost(bool available) {
  if (available) {
    if (panel_->mode() == PanelHost::Mode::window) {
      panel_->hide();
      panel_->setMode(PanelHost::Mode::popup);
    }
    return;
  }
  // No tray to live in: the panel becomes an ordinary window the user can find.
  panel_->setMode(PanelHost::Mode::window);
  panel_->present();
}

void QuellixApp::showPanel() {
  if (panel_->mode() == PanelHost::Mode::popup && !tray_->isHostAvailable()) {
    panel_->setMode(PanelHost::Mode::window);
  }
  panel_->present();
}

void QuellixApp::scroll(int notches, Qt::Orientation orientation) {
  if (orientation != Qt::Vertical || !state_->systemVolume().isAdjustable().get()) {
    return;
  }
  const double volume = state_->systemVolume().volume().get();
  state_->systemVolume().setVolume(std::clamp(volume + kScrollStep * notches, 0.0, 1.0));
}

int QuellixApp::run(int argc, char** argv, std::shared_ptr<LogSink> logs) {
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Quellix"));
  QApplication::setApplicationVersion(QString::fromLatin1(build::kVersion));
  QApplication::setDesktopFileName(QString::fromLatin1(build::kBundleIdentifier));
  // Closing the about window or the panel's window must not end the tray application.
  QApplication::setQuitOnLastWindowClosed(false);
  installTranslations(application);
  Logger logger(logs, "AppState");

  SingleInstance instance;
  switch (instance.claim()) {
    case SingleInstance::Outcome::handedOver:
      if (!instance.failure().isEmpty()) {
        logger.error("Quellix läuft schon, antwortet aber nicht: " +
                     instance.failure().toStdString());
      }
      return 0;
    case SingleInstance::Outcome::noSessionBus:
      logger.error("Keine Session-Bus-Verbindung, eine zweite Instanz wird nicht erkannt: " +
                   instance.failure().toStdString());
      break;
    case SingleInstance::Outcome::primary:
      break;
  }

  quitOnTerminationSignals();
  QtMainQueue queue;
  // The backend's thread posts to the queue: it must be gone before the queue is.
  AudioHardware hardware(backendFromEnvironment(logs));

  DefaultsStore defaults(DefaultsStore::standardPath(), queue, logs);
  SystemWallClock clock;
  MprisPlayers mediaPlayers(logs);
  QuellixApp scene({
      .queue = queue,
      .audio = hardware,
      .defaults = defaults,
      .clock = clock,
      .logs = logs,
      .mediaPlayers = mediaPlayers,
      .workspace = std::make_shared<Workspace>(Workspace::systemRoots()),
      .loginItem = makeLoginItem(),
      .http = makeQtHttpClient(),
      .offerMoveIfNeeded =
          [&queue, &instance, logs] {
            MessageBoxMoveAlerts alerts;
            return SelfMover::offerMoveIfNeeded(queue, alerts, logs,
                                                [&instance] { instance.release(); });
          },
  });
  QObject::connect(&instance, &SingleInstance::activationRequested, &scene, &QuellixApp::showPanel);
  AppRemoteControl remoteControl(scene.state().control(), instance.control());
  GlobalShortcuts shortcuts(QDBusConnection::sessionBus(), logs);
  QObject::connect(&shortcuts, &GlobalShortcuts::activated, &scene, [&](const QString& id) {
    AppState& state = scene.state();
    if (id == kUnmuteAllShortcut) {
      state.muter().unmuteAll();
    } else if (id == kToggleCurrentPlayerShortcut) {
      const auto pid = mediaPlayers.currentPlayerProcess();
      if (!pid || !state.control().toggleProcess(*pid)) {
        logger.info("Tastenkürzel: kein Mediaplayer mit einer Zeile in der Liste");
      }
    }
  });
  shortcuts.registerShortcuts({
      {kToggleCurrentPlayerShortcut,
       QCoreApplication::translate(
           "QuellixApp", "Aktuellen Mediaplayer stummschalten oder wieder hörbar machen")},
      {kUnmuteAllShortcut, QCoreApplication::translate("QuellixApp", "Alle wieder hörbar machen")},
  });
  const int status = QApplication::exec();
  defaults.flush();
  return status;
}

}  // namespace quellix
