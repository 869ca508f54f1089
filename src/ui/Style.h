#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>

namespace quellix::ui {

// The hierarchy of label colours: each level is the text colour, progressively fainter.
enum class LabelLevel { primary, secondary, tertiary, quaternary };

namespace Style {

inline constexpr double kPrimaryOpacity = 1.0;
inline constexpr double kSecondaryOpacity = 0.5;
inline constexpr double kTertiaryOpacity = 0.26;
inline constexpr double kQuaternaryOpacity = 0.10;
inline constexpr double kHairlineOpacity = 0.10;

// Fixed colours that read on light and dark backgrounds alike.
inline constexpr QRgb kOrange = 0xFFFF9500;
inline constexpr QRgb kGreen = 0xFF28A745;

// A symbol is drawn this much larger than the text size it is given, so that it sits beside
// text of that size with the same visual weight.
inline constexpr double kSymbolScale = 1.3;

double opacity(LabelLevel level);
// The palette's text colour at `opacity`.
QColor textColor(const QPalette& palette, double opacity);
QColor labelColor(const QPalette& palette, LabelLevel level);
// "The platform's blue": links.
QColor linkColor(const QPalette& palette);
QColor accentColor(const QPalette& palette);

// The desktop's general font at a size in device-independent pixels.
QFont font(int pixelSize, QFont::Weight weight = QFont::Normal);

}  // namespace Style
}  // namespace quellix::ui
