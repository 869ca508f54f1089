#include "ui/Style.h"

#include <QApplication>

namespace quellix::ui::Style {

double opacity(LabelLevel level) {
  switch (level) {
    case LabelLevel::primary:
      return kPrimaryOpacity;
    case LabelLevel::secondary:
      return kSecondaryOpacity;
    case LabelLevel::tertiary:
      return kTertiaryOpacity;
    case LabelLevel::quaternary:
      return kQuaternaryOpacity;
  }
  return kPrimaryOpacity;
}

QColor textColor(const QPalette& palette, double opacity) {
  QColor color = palette.color(QPalette::WindowText);
  color.setAlphaF(static_cast<float>(color.alphaF() * opacity));
  return color;
}

QColor labelColor(const QPalette& palette, LabelLevel level) {
  return textColor(palette, opacity(level));
}

QColor linkColor(const QPalette& palette) {
  return palette.color(QPalette::Link);
}

QColor accentColor(const QPalette& palette) {
  return palette.color(QPalette::Highlight);
}

QFont font(int pixelSize, QFont::Weight weight) {
  QFont result = QApplication::font();
  result.setPixelSize(pixelSize);
  result.setWeight(weight);
  return result;
}

}  // namespace quellix::ui::Style
