#include "ui/AppRowView.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>
#include <vector>

#include "ui/AppIconView.h"
#include "ui/PlainButton.h"
#include "ui/Style.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"
#include "ui/ViewRules.h"
#include "ui/VolumeSlider.h"

namespace quellix::ui {
namespace {

// The width a row gets inside the panel.
constexpr int kRowWidth = 292;

AudioApp app(const std::string& name, bool isPlaying = true) {
  return {.id = 4242,
          .name = name,
          .bundleID = "org.example." + name,
          .icon = {.symbol = "app.generic"},
          .processObjectIDs = {71},
          .isPlaying = isPlaying};
}

class AppRowViewTest : public ::testing::Test {
 protected:
  AppRowViewTest()
      : row([this] { ++toggles; }, [this](float volume) { volumes.push_back(volume); }) {
    row.setFixedWidth(kRowWidth);
    row.show();
    testing::processEvents();
  }

  int toggles = 0;
  std::vector<float> volumes;
  AppRowView row;
};

// Every look follows the view rules; a muted row is dimmed, orange and cannot be turned down.
TEST_F(AppRowViewTest, ShowsEachStateAsTheViewRulesSay) {
  struct Case {
    bool playing;
    bool muted;
    float volume;
  };
  const Case cases[] = {{true, true, 1.0f},    {true, false, 1.0f},  {true, false, 0.5f},
                        {true, false, 0.996f}, {false, false, 1.0f}, {false, true, 0.3f}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.playing << c.muted << " " << c.volume);
    row.update(app("Safari", c.playing), c.muted, c.volume);
    testing::processEvents();
    const bool indicator = ViewRules::showsPlayingIndicator(c.playing, c.muted);
    EXPECT_EQ(row.playingIndicator().isVisible(), indicator);
    EXPECT_EQ(row.playingIndicator().isAnimatingVariableColor(), indicator);
    EXPECT_EQ(row.stateSymbol().symbolName(), ViewRules::stateSymbol(c.muted));
    EXPECT_EQ(row.stateSymbol().color() == QColor::fromRgba(Style::kOrange), c.muted);
    EXPECT_EQ(row.nameLabel().level(), c.muted ? LabelLevel::secondary : LabelLevel::primary);
    EXPECT_DOUBLE_EQ(row.iconView().opacity(), ViewRules::iconOpacity(c.muted));
    EXPECT_EQ(row.slider().isEnabled(), !c.muted);
    EXPECT_DOUBLE_EQ(row.slider().opacity(), ViewRules::sliderOpacity(c.muted, c.volume));
    EXPECT_NEAR(row.slider().position(), c.volume, 0.0005);
    EXPECT_EQ(row.rowButton().toolTip(), ViewRules::rowTooltip(QStringLiteral("Safari"), c.muted));
    EXPECT_EQ(row.rowButton().accessibleDescription(), row.rowButton().toolTip());
    EXPECT_EQ(row.rowButton().accessibleName(), QStringLiteral("Safari"));
    EXPECT_FALSE(row.slider().accessibleName().isEmpty());
    if (c.muted) {
      QTest::mouseClick(&row.slider(), Qt::LeftButton, {}, QPoint(10, row.slider().height() / 2));
      QTest::keyClick(&row.slider(), Qt::Key_Right);
    }
  }
  EXPECT_EQ(toggles, 0);
  EXPECT_TRUE(volumes.empty()) << "neither setting the state nor a muted slider calls the action";
}

TEST_F(AppRowViewTest, TheSliderTrackStartsUnderTheNameAndStillShowsItsFillWhenMuted) {
  row.update(app("Safari"), true, 1.0f);
  testing::processEvents();
  const VolumeSlider& slider = row.slider();
  EXPECT_EQ(slider.mapTo(&row, QPoint(0, 0)).x(), row.nameLabel().mapTo(&row, QPoint(0, 0)).x());

  // Dimmed by its opacity only: the fill is the accent, faded into the background.
  const QImage picture = testing::render(row, 1.0);
  const QColor accent = Style::accentColor(row.palette());
  const QColor background = row.palette().color(QPalette::Window);
  const auto blended = [&](int accentPart, int backgroundPart) {
    return slider.opacity() * accentPart + (1 - slider.opacity()) * backgroundPart;
  };
  // At full volume the fill runs from the track's very start, under the name, to the knob.
  for (const int x : {1, slider.width() / 2}) {
    const QColor shown = picture.pixelColor(slider.mapTo(&row, QPoint(x, slider.height() / 2)));
    EXPECT_NEAR(shown.red(), blended(accent.red(), background.red()), 4) << x;
    EXPECT_NEAR(shown.green(), blended(accent.green(), background.green()), 4) << x;
    EXPECT_NEAR(shown.blue(), blended(accent.blue(), background.blue()), 4) << x;
  }
}

TEST_F(AppRowViewTest, LongNameIsCutToOneLineAndTheStateSymbolStaysInside) {
  row.update(app("Eine Anwendung mit einem außerordentlich langen Namen, der nie passt"), false,
             1.0f);
  testing::processEvents();
  EXPECT_TRUE(row.nameLabel().isElided());
  EXPECT_EQ(row.nameLabel().height(), row.nameLabel().fontMetrics().height());
  const QRect state(row.stateSymbol().mapTo(&row, QPoint(0, 0)), row.stateSymbol().size());
  EXPECT_TRUE(row.rect().contains(state));
  // The name stops at least the minimum gap before the playing indicator.
  const int nameEnd = row.nameLabel().mapTo(&row, QPoint(row.nameLabel().width(), 0)).x();
  const int indicatorStart = row.playingIndicator().mapTo(&row, QPoint(0, 0)).x();
  EXPECT_GE(indicatorStart - nameEnd, AppRowView::kMinimumGap + 2 * AppRowView::kLabelSpacing);
}

TEST_F(AppRowViewTest, ClickAnywhereOnTheUpperLineToggles) {
  row.update(app("Safari"), false, 1.0f);
  testing::processEvents();
  PlainButton& button = row.rowButton();
  // The icon, the empty middle and the state symbol all react.
  QTest::mouseClick(&button, Qt::LeftButton, {}, QPoint(5, button.height() / 2));
  QTest::mouseClick(&button, Qt::LeftButton, {},
                    row.playingIndicator().mapTo(&button, QPoint(-12, 4)));
  QTest::mouseClick(&button, Qt::LeftButton, {}, QPoint(button.width() - 4, button.height() / 2));
  EXPECT_EQ(toggles, 3);
  EXPECT_TRUE(volumes.empty());
}

TEST_F(AppRowViewTest, HoverShowsTheBackgroundAndLeavingRemovesIt) {
  row.update(app("Safari"), false, 1.0f);
  // Earlier tests may have left the synthetic pointer where this row now is.
  QEvent leave(QEvent::Leave);
  QApplication::sendEvent(&row, &leave);
  EXPECT_FALSE(row.isHovering());
  QEnterEvent enter(QPointF(10, 10), QPointF(10, 10), QPointF(10, 10));
  QApplication::sendEvent(&row, &enter);
  EXPECT_TRUE(row.isHovering());
  const QImage hovered = row.grab().toImage();
  QApplication::sendEvent(&row, &leave);
  EXPECT_FALSE(row.isHovering());
  const QImage plain = row.grab().toImage();
  // A corner pixel inside the rounded background, away from every control.
  const QPoint probe(row.width() - 4, row.height() - 4);
  EXPECT_NE(hovered.pixel(probe), plain.pixel(probe));
  EXPECT_EQ(plain.pixel(probe), row.palette().color(QPalette::Window).rgb());
  // Hovering survives an update from state.
  QApplication::sendEvent(&row, &enter);
  row.update(app("Safari"), true, 1.0f);
  EXPECT_TRUE(row.isHovering());
}

}  // namespace
}  // namespace quellix::ui
