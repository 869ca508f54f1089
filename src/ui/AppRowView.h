#pragma once

#include <QPointer>
#include <QWidget>
#include <functional>

#include "engine/monitor/AudioProcessMonitor.h"

class QMenu;

namespace quellix::ui {

class AppIconView;
class PlainButton;
class SymbolView;
class TextLabel;
class VolumeSlider;

// One application in the panel's list: icon, name, whether it plays, whether it is muted, and
// its own volume slider, with a context menu (right click, the menu key or Shift+F10). It knows
// nothing of the mute controller: the panel keeps one row per application and hands it the
// values to show, the two actions to call and what goes into the menu.
class AppRowView : public QWidget {
 public:
  static constexpr int kIconSide = 22;
  static constexpr int kLabelSpacing = 10;
  static constexpr int kMinimumGap = 8;
  static constexpr int kStateFrameWidth = 20;
  static constexpr int kSliderIndent = kIconSide + kLabelSpacing;
  static constexpr int kStackSpacing = 4;
  static constexpr int kHorizontalMargin = 10;
  static constexpr int kVerticalMargin = 6;
  static constexpr qreal kCornerRadius = 8;
  static constexpr double kHoverOpacity = 0.06;

  AppRowView(std::function<void()> toggle, std::function<void(float)> setVolume,
             QWidget* parent = nullptr);

  using QWidget::update;
  // Shows `app` with its mute state and volume; never calls an action.
  void update(const AudioApp& app, bool isMuted, float volume);

  // Fills the context menu each time it opens; the row has a menu once this is set.
  void setContextMenu(std::function<void(QMenu&)> fill);
  bool hasContextMenu() const { return static_cast<bool>(fillMenu_); }
  // Opens the menu at `globalPosition`, unless it is open already.
  void showContextMenu(const QPoint& globalPosition);
  // Where the keyboard opens the menu: under the application's name.
  QPoint keyboardMenuPosition() const;
  // The menu while it is open.
  QMenu* openMenu() const;

  const AudioApp& app() const { return app_; }
  bool isMuted() const { return isMuted_; }
  bool isHovering() const { return hovering_; }

  PlainButton& rowButton() const { return *button_; }
  AppIconView& iconView() const { return *icon_; }
  TextLabel& nameLabel() const { return *name_; }
  SymbolView& playingIndicator() const { return *playing_; }
  SymbolView& stateSymbol() const { return *state_; }
  VolumeSlider& slider() const { return *slider_; }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void enterEvent(QEnterEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void setHovering(bool hovering);

  std::function<void()> toggle_;
  std::function<void(float)> setVolume_;
  std::function<void(QMenu&)> fillMenu_;
  QPointer<QMenu> menu_;
  AudioApp app_;
  bool isMuted_ = false;
  bool hovering_ = false;
  PlainButton* button_;
  AppIconView* icon_;
  TextLabel* name_;
  SymbolView* playing_;
  SymbolView* state_;
  VolumeSlider* slider_;
};

}  // namespace quellix::ui
