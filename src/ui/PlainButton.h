#pragma once

#include <QAbstractButton>
#include <QBoxLayout>
#include <functional>

namespace quellix::ui {

// A borderless button that shows only its label: the child widgets laid out in `contents()`.
// The whole rectangle reacts to clicks, the children never take the mouse.
class PlainButton : public QAbstractButton {
 public:
  explicit PlainButton(QWidget* parent = nullptr);

  QHBoxLayout& contents() { return *layout_; }
  // Adds a child to the label; it is made transparent for the mouse.
  void addToLabel(QWidget* child, int stretch = 0, Qt::Alignment alignment = {});
  void setTooltipText(const QString& text);
  // What a click does; also an assistive technology's press.
  void onClick(std::function<void()> action);
  // Makes the button a switch: a click or an assistive technology's toggle flips it and calls
  // `action` with the new state.
  void onToggle(std::function<void(bool)> action);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void focusInEvent(QFocusEvent* event) override;
  void focusOutEvent(QFocusEvent* event) override;

 private:
  QHBoxLayout* layout_;
  // The ring shows only where the keyboard brought the focus, not where a window put it.
  bool showsFocusRing_ = false;
};

}  // namespace quellix::ui
