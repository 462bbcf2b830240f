// The activity window's model without a server: paging of the usage history,
// which records make local rows, and a double click that marks a row seen.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "MainQueue.h"
#include "NotificationWindowController.h"

namespace {

// Page p holds sizes[p] records, none past the end; a missing page is no answer.
class FakeActivity : public ActivityService {
 public:
  std::map<long, std::size_t> sizes{{0, 2}, {1, 1}, {2, 0}};
  std::vector<long> asked;
  std::vector<CVFileForCompare> records;
  std::optional<std::vector<WSUsageHistory>> GetUsageHistory(long page) override {
    asked.push_back(page);
    if (!sizes.count(page)) return std::nullopt;
    return std::vector<WSUsageHistory>(sizes[page]);
  }
  std::optional<std::vector<CVFileForCompare>> readDownloadedFiles() override { return records; }
  bool SetNothingStatusForFile(const std::string& url) override {
    for (auto& r : records) {
      if (r.localPath == url) r.fileStatus = -1;
    }
    return true;
  }
};

CVFileForCompare Record(std::string path, int status, bool broken = false, std::int64_t changed = 1'600'000'000) {
  CVFileForCompare r;
  r.localPath = std::move(path);
  r.fileStatus = status;
  r.brokeDownload = broken;
  r.statusChangeTime = changed;
  return r;
}

TEST(NotificationWindowTest, PagesOfTheUsageHistory) {
  FakeActivity server;
  MainQueue main;
  NotificationWindowController window(server, main.Post());
  auto settled = [&] { return main.RunUntil([&] { return !window.inProgressNow; }); };
  window.windowDidLoad();
  ASSERT_TRUE(settled());
  struct Step {
    void (NotificationWindowController::*press)();
    long page;
    std::size_t rows;
    bool prev, next;
  } steps[] = {
      {&NotificationWindowController::PrevPage, 0, 2, false, true},   // nothing at page 0
      {&NotificationWindowController::NextPage, 1, 1, true, true},
      {&NotificationWindowController::NextPage, 2, 0, true, false},   // the end: an empty page
      {&NotificationWindowController::NextPage, 3, 0, true, false},   // no answer
      {&NotificationWindowController::PrevPage, 2, 0, true, false},
  };
  for (const auto& s : steps) {
    (window.*s.press)();
    ASSERT_TRUE(settled());
    EXPECT_EQ(window.uHistPageNumber(), s.page);
    EXPECT_EQ(window.PageText(), std::to_string(s.page));
    EXPECT_EQ(window.UsageRows().size(), s.rows);
    EXPECT_EQ(window.prevEnabled(), s.prev);
    EXPECT_EQ(window.nextEnabled(), s.next);
    EXPECT_EQ(window.usageError().empty(), s.page != 3);
  }
  EXPECT_EQ(server.asked, (std::vector<long>{0, 1, 2, 3, 2}));
  // A press while a page is read is dropped.
  window.NextPage();
  window.NextPage();
  ASSERT_TRUE(settled());
  EXPECT_EQ(window.uHistPageNumber(), 3);
}

TEST(NotificationWindowTest, LocalUpdatesLeaveOutSeenAndBrokenRecordsAndADoubleClickMarksSeen) {
  setenv("TZ", "UTC", 1);
  tzset();
  FakeActivity server;
  server.records = {Record("/h/new", 0), Record("/h/seen", -1), Record("/h/part", 0, true), Record("/h/edited", 1),
                    Record("/h/other", 2, false, 0)};
  MainQueue main;
  NotificationWindowController window(server, main.Post());
  auto settled = [&] { return main.RunUntil([&] { return !window.inProgressNowLocal; }); };
  window.SelectTab("2");
  ASSERT_TRUE(settled());
  const std::vector<std::vector<std::string>> expected = {{"Created", "2020 September 13 12:26:40", "/h/new"},
                                                          {"Updated", "2020 September 13 12:26:40", "/h/edited"},
                                                          {"Updated", "", "/h/other"}};
  const auto rows = window.LocalRows();
  ASSERT_EQ(rows.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const auto& row = rows[i];
    EXPECT_EQ((std::vector<std::string>{row.action, row.date, row.fileURL}), expected[i]);
  }
  window.RowDoubleClicked(1);
  ASSERT_TRUE(settled());
  ASSERT_EQ(window.LocalRows().size(), 2u);
  EXPECT_EQ(window.LocalRows()[1].fileURL, "/h/other");
}

}  // namespace
