#include <gtest/gtest.h>

#include "CVHandler.h"
#include "CorvalinkWS.h"

TEST(CVHandlerRules, VersionLevelsCompareMajorAndMinorAsNumbers) {
  const std::pair<const char*, int> rows[] = {
      {"6.1.0.0", 4}, {"6.0.70", 4}, {"7.0", 4}, {"5.2.1", 3}, {"5.10", 3},
      {"5.1.20", 2}, {"5.1", 2}, {"5.0.9", 1}, {"4.9", 0}, {"10.0", 4},
  };
  for (auto [version, level] : rows) EXPECT_EQ(CVHandler::VersionLevel(version), level) << version;
  EXPECT_THROW(CVHandler::VersionLevel("5"), std::exception);
  EXPECT_THROW(CVHandler::VersionLevel(""), std::exception);
}

TEST(CVHandlerRules, NewerLoginFromVersion601Or6071) {
  const std::pair<const char*, bool> rows[] = {
      {"6.0.70", false}, {"6.0.71", true}, {"6.1", true}, {"7", true}, {"6.0", false},
      {"5.9.99", false}, {"", false}, {"6.0.71.5", true}, {"garbage", false},
  };
  for (auto [version, newer] : rows) EXPECT_EQ(CorvalinkWS::VersionTakesOptions(version), newer) << version;
}

TEST(CVHandlerRules, FileInfoFieldsAndLoginOptions) {
  EXPECT_FALSE(CVHandler::ParseGetFileInfo(""));
  auto fields = CVHandler::ParseGetFileInfo("0;F;12;1600000000");
  ASSERT_TRUE(fields);
  EXPECT_EQ(*fields, (std::vector<std::string>{"0", "F", "12", "1600000000"}));

  std::string options = CorvalinkWS::OptionsFragment("ABC&1");
  EXPECT_EQ(options.rfind("<DeviceID>ABC&amp;1</DeviceID><DeviceType>macOSdesktop</DeviceType><AppVersion>", 0), 0u);
  EXPECT_NE(options.find("</AppVersion><DeviceName>"), std::string::npos);
  EXPECT_NE(options.find("<DeviceSystem>OS X "), std::string::npos);
}
