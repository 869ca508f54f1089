#pragma once

#include <QWidget>
#include <functional>

#include "engine/monitor/AudioProcessMonitor.h"

namespace quellix::ui {

class AppIconView;
class PlainButton;
class SymbolView;
class TextLabel;
class VolumeSlider;

// One application in the panel's list: icon, name, whether it plays, whether it is muted, and
// its own volume slider. It knows nothing of the mute controller: the panel keeps one row per
// application and hands it the values to show and the two actions to call.
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

 private:
  void setHovering(bool hovering);

  std::function<void()> toggle_;
  std::function<void(float)> setVolume_;
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
