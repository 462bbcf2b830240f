#include <gtest/gtest.h>

#include "CommandLine.h"

TEST(CommandLine, ParsesTheOptionsAndRefusesBadOnes) {
  std::string error;
  auto line = CommandLine::Parse({"--headless", "--once", "--time-scale", "0.01"}, error);
  ASSERT_TRUE(line);
  EXPECT_TRUE(line->headless);
  EXPECT_TRUE(line->once);
  EXPECT_DOUBLE_EQ(line->timeScale, 0.01);

  EXPECT_FALSE(CommandLine::Parse({"--headless", "--time-scale", "-1"}, error));
  EXPECT_NE(error.find("positive"), std::string::npos);
  EXPECT_FALSE(CommandLine::Parse({"--headless", "--time-scale"}, error));
  EXPECT_FALSE(CommandLine::Parse({"--once"}, error));
  EXPECT_FALSE(CommandLine::Parse({"--frobnicate"}, error));
  EXPECT_NE(error.find("--frobnicate"), std::string::npos);
}
