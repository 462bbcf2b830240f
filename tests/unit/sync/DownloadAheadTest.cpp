#include "DownloadAhead.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

#include "AsyncFileDownloader.h"
#include "DownloadLanding.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

std::string Read(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class DownloadAheadTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder); }

  CVFileWithAction Item(const std::string& name, std::int64_t size = 10) {
    CVFileWithAction item;
    item.nFilePath = (folder / name).string();
    item.fileAction = FWA_DownloadFromServer;
    item.fileSize = size;
    item.dateModified = 1700000000;
    return item;
  }

  // Downloads that end only when the test lets them, and say which ran.
  DownloadAhead Ahead() {
    return DownloadAhead([] { return std::make_shared<AsyncFileDownloader>(); },
                         [this](const CVFileWithAction& item, AsyncFileDownloader&) {
                           std::unique_lock<std::mutex> lock(mutex);
                           started.insert(fs::path(item.nFilePath).filename().string());
                           released.wait(lock, [&] { return open; });
                           return fs::path(item.nFilePath).filename() != "fails";
                         });
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    released.notify_all();
  }

  TempHome home;
  fs::path folder = fs::path(home.root()) / "Storage";
  std::mutex mutex;
  std::condition_variable released;
  bool open = false;
  std::set<std::string> started;
};

TEST_F(DownloadAheadTest, OnlyAFileWithNothingInItsWayIsFetchedAhead) {
  std::ofstream(folder / "there") << "local";
  struct Case {
    const char* what;
    std::function<void(CVFileWithAction&)> change;
    bool qualifies;
  };
  const Case cases[] = {
      {"a plain download into a folder that exists", [](CVFileWithAction&) {}, true},
      {"a folder", [](CVFileWithAction& item) { item.isFolder = true; }, false},
      {"a local change", [](CVFileWithAction& item) { item.isFSWAction = true; }, false},
      {"another action", [](CVFileWithAction& item) { item.fileAction = FWA_UploadToServer; }, false},
      {"an empty file", [](CVFileWithAction& item) { item.fileSize = 0; }, false},
      {"a large file", [](CVFileWithAction& item) { item.fileSize = DownloadAhead::kLargestFile + 1; }, false},
      {"a file of an upload request", [](CVFileWithAction& item) { item.urServerPath = "/request/a"; }, false},
      {"something at the path", [&](CVFileWithAction& item) { item.nFilePath = (folder / "there").string(); }, false},
      {"a folder still to come",
       [&](CVFileWithAction& item) { item.nFilePath = (folder / "new" / "a").string(); }, false},
  };
  for (const auto& c : cases) {
    CVFileWithAction item = Item("a");
    c.change(item);
    EXPECT_EQ(DownloadAhead::Qualifies(item), c.qualifies) << c.what;
  }
}

TEST_F(DownloadAheadTest, StartsAFewOnceEachAndTheLoopTakesTheirEnds) {
  DownloadAhead ahead = Ahead();
  ahead.Start({Item("1"), Item("1"), Item("dir", 0), Item("2"), Item("fails"), Item("4"), Item("5")});
  EXPECT_EQ(ahead.Running(), DownloadAhead::kMostAhead);
  ahead.Start({Item("4")});  // full: nothing more runs
  EXPECT_EQ(ahead.Running(), DownloadAhead::kMostAhead);

  EXPECT_FALSE(ahead.Take(Item("4")).has_value()) << "never started";
  Release();
  auto first = ahead.Take(Item("1"));
  ASSERT_TRUE(first.has_value());
  EXPECT_TRUE(first->arrived);
  auto failed = ahead.Take(Item("fails"));
  ASSERT_TRUE(failed.has_value());
  EXPECT_FALSE(failed->arrived) << "the loop then downloads it itself";
  // The list was built again with another version of "2": that one is not it.
  EXPECT_FALSE(ahead.Take(Item("2", 11)).has_value());
  EXPECT_EQ(ahead.Running(), 0u);
  EXPECT_EQ(started, (std::set<std::string>{"1", "2", "fails"}));
}

TEST_F(DownloadAheadTest, WhatTheLoopNeverReachesEndsWithTheOperations) {
  {
    DownloadAhead ahead = Ahead();
    ahead.Start({Item("1"), Item("2")});
    Release();
  }  // gone without a wait on the test's side: Finish waited for both
  EXPECT_EQ(started.size(), 2u);
}

TEST_F(DownloadAheadTest, AFileFetchedWhereNothingStoodNeverReplacesWhatCameMeanwhile) {
  for (bool userFileCame : {false, true}) {
    const fs::path target = folder / (userFileCame ? "taken" : "free");
    const fs::path temporary = AsyncFileDownloader::GetFileCVTempForFileLocalPath(target.string());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "server", 6), 6);
    CVFileWithAction item = Item(target.filename().string(), 6);
    DownloadLanding landing;
    landing.Add(fd, temporary.string(), item, /*onlyWherePathFree=*/true);
    if (userFileCame) std::ofstream(target) << "the user's";
    std::vector<std::string> owned;
    landing.Land([&](const std::string& path) { owned.push_back(path); });

    EXPECT_EQ(owned, (std::vector<std::string>{temporary.string(), target.string()}));
    EXPECT_EQ(Read(target), userFileCame ? "the user's" : "server") << target;
    EXPECT_EQ(fs::exists(temporary), userFileCame) << "what came stays to be compared next pass";
  }
}

}  // namespace
