#include "WorkAhead.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>

namespace {

// A transfer that runs until the test lets it end, or its halt comes.
struct Worker {
  bool halted = false;
};

CVFileWithAction Item(const std::string& name) {
  CVFileWithAction item;
  item.nFilePath = "/storage/" + name;
  return item;
}

TEST(WorkAheadTest, InOrderNothingOvertakesAnItemThatMustComeFirstAndAListBuiltAgainDropsWhatRuns) {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = false;
  WorkAhead<Worker, std::string> ahead(
      3, [] { return std::make_shared<Worker>(); },
      [&](const CVFileWithAction& item, Worker& worker) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return open || worker.halted; });
        return worker.halted ? std::string("halted") : item.nFilePath;
      },
      [&](Worker& worker) {
        std::lock_guard<std::mutex> lock(mutex);
        worker.halted = true;
        changed.notify_all();
      });
  const auto small = [](const CVFileWithAction& item) { return item.nFilePath.find("folder") == std::string::npos; };

  // "b" waits behind the folder, which the loop does itself.
  ahead.Start({Item("a"), Item("folder"), Item("b")}, small, /*leadingOnly=*/true);
  EXPECT_EQ(ahead.Running(), 1u);
  // A list built again without "a": what ran for it is stopped and dropped.
  ahead.Start({Item("c"), Item("d")}, small, true);
  EXPECT_EQ(ahead.Running(), 2u);
  EXPECT_FALSE(ahead.Take(Item("a"), false).has_value());

  {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    changed.notify_all();
  }
  auto taken = ahead.Take(Item("c"), /*sameVersionOnly=*/false);
  ASSERT_TRUE(taken.has_value());
  EXPECT_EQ(taken->second, "/storage/c");
  CVFileWithAction other = Item("d");
  other.fileSize = 7;
  EXPECT_FALSE(ahead.Take(other, /*sameVersionOnly=*/true).has_value()) << "another version of the file";
  EXPECT_EQ(ahead.Running(), 0u);
}

}  // namespace
