#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>
#include <QSvgRenderer>

#include "ui/Hairline.h"
#include "ui/Style.h"
#include "ui/SymbolImages.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"

namespace quellix::ui {
namespace {

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
  for (const char* name : testing::kSymbolNames) {
    const QString symbol = QString::fromLatin1(name);
    ASSERT_TRUE(SymbolImages::exists(symbol)) << name;
    const Ink ink = inkOf(SymbolImages::image(symbol, 48, tint), tint);
    // A symbol covers a fair part of its square, but not all of it.
    EXPECT_GT(ink.pixels, 48 * 48 / 12) << name;
    EXPECT_LT(ink.pixels, 48 * 48 * 9 / 10) << name;
    EXPECT_TRUE(ink.onlyTint) << name;
  }
  EXPECT_FALSE(SymbolImages::exists(QStringLiteral("no.such.symbol")));
  EXPECT_TRUE(QSvgRenderer(QStringLiteral(":/icons/com.norvalin.quellix.svg")).isValid());
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

// The rows of ink in one column of a symbol drawn at 48 pixels, as first and last row.
std::pair<int, int> inkRows(const QImage& image, int column, int fromRow) {
  int first = -1;
  int last = -1;
  for (int y = fromRow; y < image.height(); ++y) {
    if (qAlpha(image.pixel(column, y)) > 128) {
      first = first < 0 ? y : first;
      last = y;
    }
  }
  return {first, last};
}

TEST(SymbolImagesTest, AWidgetRenderedAtTwiceTheDensityShowsTheSymbolRasterisedForIt) {
  const QColor tint(Qt::black);
  const QImage direct =
      SymbolImages::image(QStringLiteral("speaker.wave.2.fill"), 34, tint, 0, 2.0);

  // A view of 17 logical pixels, painted into a picture of twice its density: every device
  // pixel must be the symbol's own, not a 17-pixel picture enlarged.
  QWidget frame;
  frame.setAttribute(Qt::WA_NoSystemBackground);
  auto* view = new SymbolView(QStringLiteral("speaker.wave.2.fill"), 13, &frame);
  view->setLevel(LabelLevel::primary);
  ASSERT_EQ(view->symbolSide(), 17);
  view->setGeometry(0, 0, 17, 17);
  frame.resize(17, 17);
  frame.show();
  testing::processEvents();
  QImage canvas(34, 34, QImage::Format_ARGB32_Premultiplied);
  canvas.setDevicePixelRatio(2.0);
  canvas.fill(Qt::transparent);
  view->render(&canvas, {}, {}, QWidget::DrawChildren);
  int differing = 0;
  for (int y = 0; y < 34; ++y) {
    for (int x = 0; x < 34; ++x) {
      if (std::abs(qAlpha(canvas.pixel(x, y)) - qAlpha(direct.pixel(x, y))) > 8) {
        ++differing;
      }
    }
  }
  EXPECT_EQ(differing, 0);
}

TEST(HairlineTest, IsOneDevicePixelAtEveryDensity) {
  for (const qreal ratio : {1.0, 2.0}) {
    for (const Qt::Orientation orientation : {Qt::Horizontal, Qt::Vertical}) {
      QWidget frame;
      auto* line = new Hairline(orientation, &frame);
      line->setGeometry(0, 0, orientation == Qt::Horizontal ? 20 : 1,
                        orientation == Qt::Horizontal ? 1 : 20);
      frame.resize(20, 20);
      frame.show();
      const QImage picture = testing::render(frame, ratio);
      const QRgb background = picture.pixel(picture.width() - 1, picture.height() - 1);
      int inked = 0;
      for (int across = 0; across < picture.height(); ++across) {
        const QPoint at = orientation == Qt::Horizontal ? QPoint(picture.width() / 2, across)
                                                        : QPoint(across, picture.height() / 2);
        if (picture.pixel(at) != background) {
          ++inked;
        }
      }
      EXPECT_EQ(inked, 1) << ratio << " " << orientation;
    }
  }
}

TEST(SymbolViewTest, AWideSymbolsFrameHasNoEmptyBandsAboveAndBelow) {
  SymbolView wide(QStringLiteral("playpause.fill"), 40);
  EXPECT_EQ(wide.sizeHint().width(), wide.symbolSide());
  EXPECT_LT(wide.sizeHint().height(), wide.symbolSide() * 2 / 3);
  const QImage image = SymbolImages::image(QStringLiteral("playpause.fill"), 52, Qt::black);
  ASSERT_EQ(image.size(), wide.sizeHint());
  const auto [first, last] = inkRows(image, image.width() / 2 + 6, 0);
  EXPECT_LE(first, 1);
  EXPECT_GE(last, image.height() - 2);
}

// Nothing animates out of sight: a hidden view changes at once and runs no variable colour.
TEST(SymbolViewTest, AnimatesOnlyWhileVisible) {
  QWidget window;
  auto* view = new SymbolView(QStringLiteral("speaker.wave.2"), 13, &window);
  view->setSymbol(QStringLiteral("waveform"));
  EXPECT_EQ(view->symbolName(), QStringLiteral("waveform"));
  EXPECT_FALSE(view->isReplacing());
  view->setVariableColor(true);
  EXPECT_FALSE(view->isAnimatingVariableColor());

  window.show();
  EXPECT_TRUE(view->isAnimatingVariableColor());
  window.hide();
  EXPECT_FALSE(view->isAnimatingVariableColor());
  window.show();
  view->setVariableColor(false);
  EXPECT_FALSE(view->isAnimatingVariableColor());
  view->setSymbol(QStringLiteral("speaker.slash.fill"));
  EXPECT_TRUE(view->isReplacing());
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

}  // namespace
}  // namespace quellix::ui
