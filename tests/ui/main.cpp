// Widgets need an application object before the first test; offscreen, no display.
#include <QApplication>
#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
