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

TEST_F(AppRowViewTest, ShowsEachStateAsItsTableSays) {
  struct Case {
    const char* label;
    bool playing;
    bool muted;
    float volume;
    bool indicator;
    const char* symbol;
    bool orange;
    LabelLevel nameLevel;
    double iconOpacity;
    bool sliderEnabled;
    double sliderOpacity;
    const char* tooltip;
  };
  const Case cases[] = {
      {"muted and playing", true, true, 1.0f, false, "speaker.slash.fill", true,
       LabelLevel::secondary, 0.55, false, 0.4, "Safari wieder hörbar machen"},
      {"unmuted at 1", true, false, 1.0f, true, "speaker.wave.2", false, LabelLevel::primary, 1.0,
       true, 0.65, "Safari stummschalten"},
      {"unmuted at 0.5", true, false, 0.5f, true, "speaker.wave.2", false, LabelLevel::primary, 1.0,
       true, 1.0, "Safari stummschalten"},
      {"unmuted at 0.996", true, false, 0.996f, true, "speaker.wave.2", false, LabelLevel::primary,
       1.0, true, 0.65, "Safari stummschalten"},
      {"not playing", false, false, 1.0f, false, "speaker.wave.2", false, LabelLevel::primary, 1.0,
       true, 0.65, "Safari stummschalten"},
      {"muted, not playing, turned down", false, true, 0.3f, false, "speaker.slash.fill", true,
       LabelLevel::secondary, 0.55, false, 0.4, "Safari wieder hörbar machen"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    row.update(app("Safari", c.playing), c.muted, c.volume);
    testing::processEvents();
    EXPECT_EQ(row.playingIndicator().isVisible(), c.indicator);
    EXPECT_EQ(row.playingIndicator().symbolName(), QStringLiteral("waveform"));
    EXPECT_EQ(row.playingIndicator().isAnimatingVariableColor(), c.indicator);
    EXPECT_EQ(row.stateSymbol().symbolName(), QString::fromLatin1(c.symbol));
    EXPECT_EQ(row.stateSymbol().color() == QColor::fromRgba(Style::kOrange), c.orange);
    EXPECT_EQ(row.nameLabel().text(), QStringLiteral("Safari"));
    EXPECT_EQ(row.nameLabel().level(), c.nameLevel);
    EXPECT_DOUBLE_EQ(row.iconView().opacity(), c.iconOpacity);
    EXPECT_EQ(row.slider().isEnabled(), c.sliderEnabled);
    EXPECT_DOUBLE_EQ(row.slider().opacity(), c.sliderOpacity);
    EXPECT_NEAR(row.slider().position(), c.volume, 0.0005);
    EXPECT_EQ(row.rowButton().toolTip(), QString::fromUtf8(c.tooltip));
    EXPECT_EQ(row.rowButton().accessibleDescription(), QString::fromUtf8(c.tooltip));
    EXPECT_EQ(row.rowButton().accessibleName(), QStringLiteral("Safari"));
    EXPECT_FALSE(row.slider().accessibleName().isEmpty());
  }
  EXPECT_EQ(toggles, 0);
  EXPECT_TRUE(volumes.empty()) << "setting the state must not call the action";
}

TEST_F(AppRowViewTest, LongNameIsCutToOneLineAndTheStateSymbolStaysInside) {
  row.update(app("Eine Anwendung mit einem außerordentlich langen Namen, der nie passt"), false,
             1.0f);
  testing::processEvents();
  EXPECT_TRUE(row.nameLabel().isElided());
  EXPECT_EQ(row.nameLabel().height(), row.nameLabel().fontMetrics().height());
  const QRect state(row.stateSymbol().mapTo(&row, QPoint(0, 0)), row.stateSymbol().size());
  EXPECT_TRUE(row.rect().contains(state));
  EXPECT_EQ(state.width(), AppRowView::kStateFrameWidth);
  EXPECT_LE(state.right(), kRowWidth - AppRowView::kHorizontalMargin);
  // The name stops at least the minimum gap before the playing indicator.
  const int nameEnd = row.nameLabel().mapTo(&row, QPoint(row.nameLabel().width(), 0)).x();
  const int indicatorStart = row.playingIndicator().mapTo(&row, QPoint(0, 0)).x();
  EXPECT_GE(indicatorStart - nameEnd, AppRowView::kMinimumGap + 2 * AppRowView::kLabelSpacing);
}

TEST_F(AppRowViewTest, GeometryFollowsTheRowLayout) {
  row.update(app("Safari"), false, 1.0f);
  testing::processEvents();
  EXPECT_EQ(row.iconView().size(), QSize(22, 22));
  EXPECT_EQ(row.iconView().mapTo(&row, QPoint(0, 0)).x(), AppRowView::kHorizontalMargin);
  // The slider starts under the name.
  EXPECT_EQ(row.slider().mapTo(&row, QPoint(0, 0)).x(),
            AppRowView::kHorizontalMargin + AppRowView::kSliderIndent);
  EXPECT_EQ(row.nameLabel().mapTo(&row, QPoint(0, 0)).x(),
            AppRowView::kHorizontalMargin + AppRowView::kSliderIndent);
  EXPECT_EQ(row.slider().height(), VolumeSlider::kMiniHeight);
  EXPECT_EQ(row.height(), 6 + 22 + 4 + VolumeSlider::kMiniHeight + 6);
  EXPECT_EQ(row.nameLabel().font().pixelSize(), 13);
  EXPECT_EQ(row.nameLabel().font().weight(), QFont::Medium);
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

TEST_F(AppRowViewTest, DraggingTheSliderCallsSetVolumeOnEveryStepAndStateDoesNotFightIt) {
  row.update(app("Safari"), false, 1.0f);
  testing::processEvents();
  VolumeSlider& slider = row.slider();
  const int y = slider.height() / 2;
  const int knob = slider.width() - slider.knobDiameter() / 2 - 1;
  QTest::mousePress(&slider, Qt::LeftButton, {}, QPoint(knob, y));
  ASSERT_TRUE(slider.isSliderDown());
  for (int step = 1; step <= 5; ++step) {
    QTest::mouseMove(&slider, QPoint(knob - step * 30, y));
    // A re-render with the old value arrives in the middle of the drag.
    row.update(app("Safari"), false, 1.0f);
  }
  QTest::mouseRelease(&slider, Qt::LeftButton, {}, QPoint(knob - 150, y));
  ASSERT_EQ(volumes.size(), 5u);
  for (std::size_t step = 1; step < volumes.size(); ++step) {
    EXPECT_LT(volumes[step], volumes[step - 1]);
  }
  EXPECT_NEAR(slider.position(), volumes.back(), 0.001);
  EXPECT_LT(volumes.back(), 0.5f);
  // Once released, the state decides again.
  row.update(app("Safari"), false, 0.25f);
  EXPECT_NEAR(slider.position(), 0.25, 0.001);
  EXPECT_EQ(volumes.size(), 5u);
}

TEST_F(AppRowViewTest, MutedSliderCannotBeMoved) {
  row.update(app("Safari"), true, 0.5f);
  testing::processEvents();
  QTest::mouseClick(&row.slider(), Qt::LeftButton, {}, QPoint(10, row.slider().height() / 2));
  QTest::keyClick(&row.slider(), Qt::Key_Right);
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
