#pragma once

#include <QPointer>
#include <QUrl>
#include <QVariantAnimation>
#include <QWidget>
#include <functional>
#include <map>
#include <vector>

#include "state/AppState.h"

class QCheckBox;
class QMenu;
class QVBoxLayout;

namespace quellix::ui {

class AppRowView;
class PlainButton;
class SymbolView;
class TextLabel;
class VolumeSlider;

// The panel under the tray icon: how many applications play and how many are muted, the
// master volume, the media keys, one row per application, an update notice, and the footer.
// It shows the services' state and calls their operations; it keeps nothing of its own but
// the widgets, which it updates at the first change of anything it showed.
class MenuBarView : public QWidget {
 public:
  static constexpr int kWidth = 300;
  static constexpr int kListAnimationMilliseconds = 180;

  explicit MenuBarView(AppState& state, QWidget* parent = nullptr);
  ~MenuBarView() override;

  // Where the platform is reached; tests replace them.
  std::function<void(const QUrl&)> openUrl;
  std::function<void()> quit;

  TextLabel& titleLabel() const { return *title_; }
  TextLabel& subtitleLabel() const { return *subtitle_; }
  QWidget& volumeSection() const { return *volumeSection_; }
  PlainButton& masterMuteButton() const { return *masterMute_; }
  SymbolView& masterMuteSymbol() const { return *masterMuteSymbol_; }
  VolumeSlider& masterSlider() const { return *masterSlider_; }
  QWidget& mediaControls() const { return *mediaControls_; }
  PlainButton& mediaButton(std::size_t index) const { return *mediaButtons_.at(index); }
  TextLabel& emptyText() const { return *emptyText_; }
  // The rows in the order shown.
  std::vector<AppRowView*> rows() const;
  QWidget& updateSection() const { return *updateSection_; }
  PlainButton& updateNotice() const { return *updateNotice_; }
  TextLabel& updateNoticeText() const { return *updateText_; }
  QCheckBox& launchCheckbox() const { return *launch_; }
  PlainButton& massActionButton() const { return *massAction_; }
  TextLabel& massActionText() const { return *massActionText_; }
  PlainButton& aboutButton() const { return *about_; }
  PlainButton& quitButton() const { return *quit_; }

  int renderCount() const { return renderCount_; }
  // How many times the list changed in a way that animates.
  int listChangeCount() const { return listChangeCount_; }

 protected:
  bool event(QEvent* event) override;

 private:
  void build();
  void scheduleRender();
  void render();
  void renderRows(const std::vector<AudioApp>& apps);
  void animateListChange(int previousHeight);
  void activateLayouts();
  void fitHeight();
  const AppRowView* rowFor(pid_t id) const;
  // The row's context menu: where the application plays, and hearing it alone.
  void fillRowMenu(QMenu& menu, pid_t id);

  AppState& state_;
  bool renderPending_ = false;
  int renderCount_ = 0;
  int listChangeCount_ = 0;
  std::vector<AudioApp> shownApps_;
  std::map<pid_t, AppRowView*> rowsByID_;

  TextLabel* title_ = nullptr;
  TextLabel* subtitle_ = nullptr;
  QWidget* volumeSection_ = nullptr;
  PlainButton* masterMute_ = nullptr;
  SymbolView* masterMuteSymbol_ = nullptr;
  VolumeSlider* masterSlider_ = nullptr;
  QWidget* mediaControls_ = nullptr;
  std::vector<PlainButton*> mediaButtons_;
  QWidget* content_ = nullptr;
  QWidget* emptyState_ = nullptr;
  TextLabel* emptyText_ = nullptr;
  QWidget* rowList_ = nullptr;
  QVBoxLayout* rowLayout_ = nullptr;
  QWidget* updateSection_ = nullptr;
  PlainButton* updateNotice_ = nullptr;
  TextLabel* updateText_ = nullptr;
  QCheckBox* launch_ = nullptr;
  PlainButton* massAction_ = nullptr;
  TextLabel* massActionText_ = nullptr;
  PlainButton* about_ = nullptr;
  PlainButton* quit_ = nullptr;
  // A child, so that tests can step it on.
  QVariantAnimation listAnimation_{this};
};

}  // namespace quellix::ui
