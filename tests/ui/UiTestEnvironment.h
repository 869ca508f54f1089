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

// Every symbol the program ships.
inline const char* const kSymbolNames[] = {
    "speaker.wave.2.fill",
    "speaker.slash.fill",
    "speaker.fill",
    "speaker.wave.1.fill",
    "speaker.wave.3.fill",
    "speaker.wave.2",
    "waveform",
    "backward.fill",
    "playpause.fill",
    "forward.fill",
    "arrow.down.circle.fill",
    "power",
    "menubar.arrow.up.rectangle",
    "slider.horizontal.3",
    "checkmark.circle.fill",
    "app.generic",
};

// Saves the widget at scale 1 and 2 as NAME@1x.png and NAME@2x.png in the build tree's render
// folder; returns the folder.
QString saveRenders(QWidget& widget, const QString& name);

// Steps every running animation below `root` on by `milliseconds` of its own clock, as the
// event loop's animation timer would, without waiting for it.
void advanceAnimations(QObject& root, int milliseconds);

}  // namespace quellix::ui::testing
