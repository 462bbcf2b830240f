// The suite's own main: Qt's application object first, for the session bus and the display.
#include <QGuiApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  QGuiApplication application(argc, argv);  // the screenshots need the display
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
