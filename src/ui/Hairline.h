#pragma once

#include <QWidget>

namespace quellix::ui {

// A separator one device pixel thick in the faint text colour.
class Hairline : public QWidget {
 public:
  explicit Hairline(Qt::Orientation orientation, QWidget* parent = nullptr);
  Qt::Orientation orientation() const { return orientation_; }
  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  Qt::Orientation orientation_;
};

}  // namespace quellix::ui
