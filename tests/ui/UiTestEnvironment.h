#pragma once

#include <QImage>
#include <QString>

class QWidget;

namespace quellix::ui::testing {

// Every UI test runs in one offscreen application with a fixed font, style and palette, so
// that sizes and pictures do not depend on the machine.
inline constexpr const char* kFontFamily = "DejaVu Sans";

// Lets posted events, layouts and paints happen.
void processEvents();

// Paints `widget` at its current size into an image of `ratio` device pixels per pixel.
QImage render(QWidget& widget, qreal ratio);

// Saves the widget at scale 1 and 2 as NAME@1x.png and NAME@2x.png in the build tree's render
// folder; returns the folder.
QString saveRenders(QWidget& widget, const QString& name);

}  // namespace quellix::ui::testing
