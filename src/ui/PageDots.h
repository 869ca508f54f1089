#pragma once

#include <QWidget>

namespace quellix::ui {

// A row of dots, one per page, the current one solid.
class PageDots : public QWidget {
 public:
  static constexpr int kDiameter = 6;
  static constexpr int kSpacing = 7;
  static constexpr double kOtherOpacity = 0.18;

  PageDots(int count, QWidget* parent = nullptr);

  int count() const { return count_; }
  int current() const { return current_; }
  void setCurrent(int index);
  // The opacity of the text colour the dot at `index` is filled with.
  double dotOpacity(int index) const { return index == current_ ? 1.0 : kOtherOpacity; }

  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  int count_;
  int current_ = 0;
};

}  // namespace quellix::ui
