#pragma once

#include <QWidget>

namespace quellix::ui {

// The faint rounded card behind the about window's statistics.
class StatisticsCard : public QWidget {
 public:
  static constexpr qreal kCornerRadius = 10;
  static constexpr double kFillOpacity = 0.04;

  explicit StatisticsCard(QWidget* parent = nullptr) : QWidget(parent) {}

 protected:
  void paintEvent(QPaintEvent* event) override;
};

}  // namespace quellix::ui
