#pragma once

#include <QObject>
#include <memory>

#include "state/AppState.h"

namespace quellix {

class PanelHost;
class TrayItem;

// The application scene: one AppState, its tray item, and the panel the item opens.
class QuellixApp final : public QObject {
 public:
  static constexpr double kScrollStep = 0.05;  // of the master volume per wheel notch
  // How long the tray's host may take to answer before the panel becomes a window instead.
  static constexpr Duration kTrayGracePeriod = std::chrono::seconds(2);

  // Everything but the views' factories comes from `environment`; the scene adds those.
  explicit QuellixApp(AppEnvironment environment);
  ~QuellixApp() override;

  AppState& state() const { return *state_; }
  PanelHost& panel() const { return *panel_; }
  TrayItem& tray() const { return *tray_; }

  // The tray item's symbol for the current number of silenced applications.
  static const char* traySymbol(int activeMuteCount);

  // What a second start asks for.
  void showPanel();

  // Runs the application mode; returns the process's exit status.
  static int run(int argc, char** argv);

 private:
  void followMuteCount();
  void followHost(bool available);
  void scroll(int notches, Qt::Orientation orientation);

  std::shared_ptr<AppState> state_;
  std::unique_ptr<PanelHost> panel_;
  std::unique_ptr<TrayItem> tray_;
  TaskHandle trayGrace_;
};

}  // namespace quellix
