#pragma once

#include <QSlider>
#include <functional>

namespace quellix::ui {

// A continuous slider over 0...1, painted small and flat. Setting its position from the
// program's state never calls the action back and never moves it while the user drags it;
// every change the user makes calls the action at once.
class VolumeSlider : public QSlider {
 public:
  // Fine enough that a drag across the panel moves in steps below one screen pixel.
  static constexpr int kSteps = 1000;

  enum class ControlSize { small, mini };
  static constexpr int kSmallHeight = 16;
  static constexpr int kMiniHeight = 12;

  explicit VolumeSlider(ControlSize size, QWidget* parent = nullptr);

  void setPosition(double position);
  double position() const { return static_cast<double>(value()) / kSteps; }
  void onUserChange(std::function<void(double)> action);

  void setOpacity(double opacity);
  double opacity() const { return opacity_; }

  int knobDiameter() const;
  ControlSize controlSize() const { return size_; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  ControlSize size_;
  double opacity_ = 1.0;
  std::function<void(double)> action_;
};

}  // namespace quellix::ui
