#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QTimer>
#include <QVariantAnimation>
#include <QWidget>
#include <optional>

#include "ui/Style.h"

namespace quellix::ui {

// One symbol in a frame, tinted with a label level or a fixed colour. A new symbol replaces the
// old one with a short cross-fade; the variable-colour effect lights the symbol's parts one
// after another. Both animate only while the view is visible.
class SymbolView : public QWidget {
 public:
  static constexpr int kReplaceMilliseconds = 200;
  static constexpr int kVariableColorStepMilliseconds = 180;
  static constexpr int kVariableColorFrameMilliseconds = 33;
  static constexpr double kVariableColorDimOpacity = 0.35;

  // `textSize` is the size of the text the symbol stands for; the frame defaults to the
  // symbol's own square.
  SymbolView(const QString& name, int textSize, QWidget* parent = nullptr);

  const QString& symbolName() const { return name_; }
  void setSymbol(const QString& name);
  bool isReplacing() const;

  void setLevel(LabelLevel level);
  void setColor(std::optional<QColor> color);
  QColor color() const;

  void setVariableColor(bool on);
  bool hasVariableColor() const { return variableColor_; }
  bool isAnimatingVariableColor() const { return frameTimer_.isActive(); }

  int symbolSide() const;
  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;

 private:
  void updateAnimation();
  void paintSymbol(QPainter& painter, const QString& name, qreal scale) const;

  QString name_;
  QString previousName_;
  int textSize_;
  LabelLevel level_ = LabelLevel::secondary;
  std::optional<QColor> color_;
  bool variableColor_ = false;
  QVariantAnimation replace_;
  QTimer frameTimer_;
  QElapsedTimer variableClock_;
};

}  // namespace quellix::ui
