#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>
#include <QPainter>

#include "ui/Hairline.h"
#include "ui/Style.h"
#include "ui/SymbolImages.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"

namespace quellix::ui {
namespace {

const char* const kSymbolNames[] = {
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

// Counts pixels that are drawn at all, and checks that every drawn pixel has the tint's hue.
struct Ink {
  int pixels = 0;
  bool onlyTint = true;
};

Ink inkOf(const QImage& image, QColor tint) {
  Ink ink;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const QColor pixel = image.pixelColor(x, y);
      if (pixel.alpha() == 0) {
        continue;
      }
      ++ink.pixels;
      if (pixel.alpha() > 128 &&
          (std::abs(pixel.red() - tint.red()) > 2 || std::abs(pixel.green() - tint.green()) > 2 ||
           std::abs(pixel.blue() - tint.blue()) > 2)) {
        ink.onlyTint = false;
      }
    }
  }
  return ink;
}

TEST(SymbolImagesTest, EverySymbolTheViewsNameIsDrawnInItsTint) {
  const QColor tint(0x20, 0x80, 0xE0);
  for (const char* name : kSymbolNames) {
    const QString symbol = QString::fromLatin1(name);
    ASSERT_TRUE(SymbolImages::exists(symbol)) << name;
    const Ink ink = inkOf(SymbolImages::image(symbol, 48, tint), tint);
    // A symbol covers a fair part of its square, but not all of it.
    EXPECT_GT(ink.pixels, 48 * 48 / 12) << name;
    EXPECT_LT(ink.pixels, 48 * 48 * 9 / 10) << name;
    EXPECT_TRUE(ink.onlyTint) << name;
  }
  EXPECT_FALSE(SymbolImages::exists(QStringLiteral("no.such.symbol")));
}

TEST(SymbolImagesTest, WaveformPartsCanBeLitOneByOne) {
  const QString waveform = QStringLiteral("waveform");
  ASSERT_EQ(SymbolImages::layerCount(waveform), 5);
  int sum = 0;
  for (int layer = 1; layer <= 5; ++layer) {
    const int pixels = inkOf(SymbolImages::image(waveform, 48, Qt::black, layer), Qt::black).pixels;
    EXPECT_GT(pixels, 0) << layer;
    sum += pixels;
  }
  const int whole = inkOf(SymbolImages::image(waveform, 48, Qt::black), Qt::black).pixels;
  EXPECT_NEAR(sum, whole, whole / 10);
}

TEST(SymbolImagesTest, PaintingAtTwiceTheDensityUsesTwiceThePixels) {
  const auto inkAt = [](qreal ratio) {
    QImage canvas(QSize(24, 24) * ratio, QImage::Format_ARGB32_Premultiplied);
    canvas.setDevicePixelRatio(ratio);
    canvas.fill(Qt::transparent);
    QPainter painter(&canvas);
    SymbolImages::paint(painter, QStringLiteral("speaker.fill"), QRectF(0, 0, 24, 24), Qt::black);
    painter.end();
    return inkOf(canvas, Qt::black).pixels;
  };
  // The same shape covers four times the device pixels at twice the density.
  const int atOne = inkAt(1.0);
  EXPECT_NEAR(inkAt(2.0), 4 * atOne, atOne / 2);
}

TEST(SymbolViewTest, ReplacesWithACrossFadeOnlyWhileVisible) {
  SymbolView hidden(QStringLiteral("speaker.wave.2"), 13);
  hidden.setSymbol(QStringLiteral("speaker.slash.fill"));
  EXPECT_EQ(hidden.symbolName(), QStringLiteral("speaker.slash.fill"));
  EXPECT_FALSE(hidden.isReplacing());

  SymbolView shown(QStringLiteral("speaker.wave.2"), 13);
  shown.show();
  shown.setSymbol(QStringLiteral("speaker.slash.fill"));
  EXPECT_TRUE(shown.isReplacing());
  shown.setSymbol(QStringLiteral("speaker.slash.fill"));
  EXPECT_EQ(shown.symbolName(), QStringLiteral("speaker.slash.fill"));
}

TEST(SymbolViewTest, VariableColorRunsOnlyWhileVisible) {
  QWidget window;
  auto* view = new SymbolView(QStringLiteral("waveform"), 10, &window);
  view->setVariableColor(true);
  EXPECT_FALSE(view->isAnimatingVariableColor());
  window.show();
  EXPECT_TRUE(view->isAnimatingVariableColor());
  window.hide();
  EXPECT_FALSE(view->isAnimatingVariableColor());
  window.show();
  view->setVariableColor(false);
  EXPECT_FALSE(view->isAnimatingVariableColor());
}

TEST(StyleTest, LabelLevelsAreTheTextColourAtFixedOpacities) {
  QPalette palette;
  palette.setColor(QPalette::WindowText, QColor(10, 20, 30));
  EXPECT_NEAR(Style::labelColor(palette, LabelLevel::primary).alphaF(), 1.0, 0.01);
  EXPECT_NEAR(Style::labelColor(palette, LabelLevel::secondary).alphaF(), 0.5, 0.01);
  EXPECT_NEAR(Style::labelColor(palette, LabelLevel::tertiary).alphaF(), 0.26, 0.01);
  EXPECT_NEAR(Style::labelColor(palette, LabelLevel::quaternary).alphaF(), 0.10, 0.01);
  EXPECT_EQ(Style::labelColor(palette, LabelLevel::tertiary).rgb(), QColor(10, 20, 30).rgb());
  const QFont font = Style::font(13, QFont::DemiBold);
  EXPECT_EQ(font.pixelSize(), 13);
  EXPECT_EQ(font.weight(), QFont::DemiBold);
}

TEST(TextLabelTest, ParagraphKeepsBreaksAndAddsLineSpacing) {
  TextLabel plain(QStringLiteral("eins\nzwei"), Style::font(13), LabelLevel::secondary);
  plain.setParagraph(false, 0);
  TextLabel spaced(QStringLiteral("eins\nzwei"), Style::font(13), LabelLevel::secondary);
  spaced.setParagraph(false, 3);
  const int line = QFontMetrics(Style::font(13)).lineSpacing();
  EXPECT_GE(plain.sizeHint().height(), 2 * line - 1);
  EXPECT_NEAR(spaced.sizeHint().height() - plain.sizeHint().height(), 6, 1.5);

  TextLabel wrapping(QStringLiteral("ein ziemlich langer Satz, der umbrechen muss"),
                     Style::font(12), LabelLevel::secondary);
  wrapping.setParagraph(true, 2);
  EXPECT_TRUE(wrapping.hasHeightForWidth());
  EXPECT_GT(wrapping.heightForWidth(80), wrapping.heightForWidth(1000));
}

TEST(TextLabelTest, OneLineIsElidedWhenTooNarrow) {
  TextLabel label(QStringLiteral("Ein sehr langer Name einer Anwendung"), Style::font(13),
                  LabelLevel::primary);
  label.resize(label.sizeHint());
  EXPECT_FALSE(label.isElided());
  label.resize(60, label.height());
  EXPECT_TRUE(label.isElided());
}

}  // namespace
}  // namespace quellix::ui
