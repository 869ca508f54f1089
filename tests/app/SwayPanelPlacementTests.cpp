#include "app/SwayPanelPlacement.h"

#include <gtest/gtest.h>

#include "app/PanelHost.h"

namespace quellix {
namespace {

// A panel opened from a bar on each edge of a 1000 x 800 output lies against that bar, inside
// the area the bar leaves free, next to the pointer along the bar where there is room.
TEST(SwayPanelPlacementTest, ThePanelLiesAgainstTheBarOnEachEdge) {
  const QRect output(0, 0, 1000, 800);
  const QSize panel(300, 200);
  const struct {
    QRect usable;
    QPoint pointer;
    QRect expected;
  } cases[] = {
      {{0, 30, 1000, 770}, {500, 15}, {{350, 30}, panel}},   // top bar
      {{0, 0, 1000, 770}, {990, 785}, {{700, 570}, panel}},  // bottom bar, icon at the corner
      {{40, 0, 960, 800}, {20, 100}, {{40, 106}, panel}},    // left bar, upper half
      {{0, 0, 960, 800}, {980, 700}, {{660, 494}, panel}},   // right bar, lower half
      {{0, 0, 1000, 800}, {500, 300}, {{350, 306}, panel}},  // no bar: at the pointer
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const QPoint anchor = SwayPanelPlacement::barAnchor(output, c.usable, c.pointer);
    const QRect placed(PanelHost::topLeftNextTo(anchor, c.usable, panel), panel);
    EXPECT_EQ(placed, c.expected);
  }
}

}  // namespace
}  // namespace quellix
