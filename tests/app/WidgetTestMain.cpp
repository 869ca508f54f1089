#include <gtest/gtest.h>

#include <QApplication>

// Widgets need an application object for the whole run; offscreen, so no display is needed.
int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
