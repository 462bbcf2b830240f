#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {
std::string Today() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char buffer[16];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d", &parts);
  return buffer;
}

void WriteBytes(const std::string& path, std::size_t size) {
  std::ofstream out(path, std::ios::binary);
  std::string block(size, 'x');
  out.write(block.data(), static_cast<std::streamsize>(block.size()));
}
}  // namespace

TEST(CVEventLogger, RootPathsFollowTheHomeFolder) {
  TempHome home;
  EXPECT_EQ(CVStaticHelpers::GenerateRootPath(), home.path() + "/Corvalink");
  EXPECT_EQ(CVStaticHelpers::GenerateRootPathForStorages(), home.path() + "/Corvalink");
  EXPECT_EQ(CVStaticHelpers::GenerateSettingsPath(), home.path() + "/Corvalink/.Settings");
}

TEST(CVEventLogger, WritesDatedLinesIntoTheDayFolderOfItsKind) {
  TempHome home;
  CVEventLogger::WriteMainLogMessage("first");
  CVEventLogger::WriteSyncMessage("to sync");
  CVEventLogger::WriteUnitTestMessage("to unit");
  std::string day = Today();
  std::string file = home.settings() + "/CVLogger/CVMainLogs/" + day + "/LOG " + day + "_1.txt";
  ASSERT_TRUE(fs::exists(file)) << file;
  std::ifstream in(file);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_TRUE(std::regex_match(
      text, std::regex("\n\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\+0000\\]: first")))
      << text;
  EXPECT_NE(home.ReadLog("CVSyncLogs").find("to sync"), std::string::npos);
  EXPECT_NE(home.ReadLog("CVUnitTest").find("to unit"), std::string::npos);

  // The settings hold the account: nobody else may read them.
  struct stat info {};
  ASSERT_EQ(stat(home.settings().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(CVEventLogger, RotatesAtExactlyFiveMebibytes) {
  TempHome home;
  std::string day = Today();
  std::string folder = home.settings() + "/CVLogger/CVMainLogs/" + day;
  fs::create_directories(folder);
  std::string first = folder + "/LOG " + day + "_1.txt";

  WriteBytes(first, CVEventLogger::kMaxLogFileSize - 1);
  EXPECT_EQ(CVEventLogger::GetCorrectFileName("/CVMainLogs"), first);

  WriteBytes(first, CVEventLogger::kMaxLogFileSize);
  EXPECT_EQ(CVEventLogger::GetCorrectFileName("/CVMainLogs"), folder + "/LOG " + day + "_2.txt");
}

TEST(CVEventLogger, LinesOfTwoThreadsDoNotMix) {
  TempHome home;
  const int kLines = 200;
  auto writer = [&](char tag) {
    for (int i = 0; i < kLines; ++i) CVEventLogger::WriteMainLogMessage(std::string(300, tag));
  };
  std::thread a(writer, 'a'), b(writer, 'b');
  a.join();
  b.join();
  std::string text = home.ReadLog("CVMainLogs");
  std::regex line("\n\\[[^\\]]+\\]: (a{300}|b{300})");
  auto count = std::distance(std::sregex_iterator(text.begin(), text.end(), line), std::sregex_iterator());
  EXPECT_EQ(count, 2 * kLines);
}

TEST(CVEventLogger, OldDayFoldersAreRemovedAndOthersKept) {
  TempHome home;
  CVEventLogger::WriteMainLogMessage("today");
  std::string kind = home.settings() + "/CVLogger/CVMainLogs";
  fs::create_directories(kind + "/2001-01-01");
  fs::create_directories(kind + "/notes");
  CVEventLogger::DeleteOldLogFolders(30);
  EXPECT_FALSE(fs::exists(kind + "/2001-01-01"));
  EXPECT_TRUE(fs::exists(kind + "/notes"));
  EXPECT_TRUE(fs::exists(kind + "/" + Today()));
}

TEST(CVEventLogger, HeldLinesReachTheMainLogOnlyWhenKeptAndInOrder) {
  TempHome home;
  {
    CVEventLogger::HeldLines dropped;
    CVEventLogger::WriteMainLogMessage("routine");
  }
  {
    CVEventLogger::HeldLines kept;
    CVEventLogger::WriteMainLogMessage("held");
    // Only this thread's lines wait: another thread's line is written at once.
    std::thread([] { CVEventLogger::WriteMainLogMessage("other thread"); }).join();
    {
      CVEventLogger::HeldLines inner;  // the outer one holds already
      CVEventLogger::WriteMainLogMessage("inner");
    }
    kept.Keep();
    CVEventLogger::WriteMainLogMessage("after");
  }
  {
    CVEventLogger::HeldLines pass;
    CVEventLogger::WriteMainLogMessage("news");
    CVEventLogger::KeepHeldLines();  // from deeper down, without the job's object
  }
  const std::string log = home.ReadLog("CVMainLogs");
  EXPECT_EQ(log.find("routine"), std::string::npos);
  EXPECT_TRUE(std::regex_search(log, std::regex("other thread(.|\n)*held(.|\n)*inner(.|\n)*after(.|\n)*news")))
      << log;
}
