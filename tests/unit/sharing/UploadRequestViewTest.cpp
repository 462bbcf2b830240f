// The upload request view without a server: what the checked rows stand for at
// each level, the expiry as shown, and the actions that must not reach it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "CVViewUploadRequest.h"
#include "FakeUploadRequestService.h"
#include "MainQueue.h"
#include "SharedCache.h"
#include "TempHome.h"

using View = CVViewUploadRequest;

TEST(UploadRequestView, CheckedRowsStandForTheirRequestsAtEachLevel) {
  TempHome home;
  FakeUploadRequestService service;
  MainQueue main;
  View view(service, main.Post());
  auto settle = [&] { ASSERT_TRUE(main.RunUntil([&] { return !view.isBusy; })); };
  view.RefreshArrayData();
  settle();
  // Level, what is opened first ("" for none), the rows checked, the requests they stand for.
  struct Case {
    std::string open;
    std::vector<std::size_t> checked;
    std::vector<std::string> ids;
  } cases[] = {
      {"", {}, {}},
      {"", {0}, {"3"}},  // "Rent" sorts first
      {"", {0, 1}, {"3", "1", "2"}},
      {"s-Tax", {1}, {"2"}},
      {"g1", {1}, {"1"}},
  };
  for (const auto& c : cases) {
    if (c.open.rfind("s-", 0) == 0) view.GetUsersListForSession(c.open);
    if (c.open.rfind("g", 0) == 0) view.GetFilesListForUser(c.open);
    settle();
    for (std::size_t row = 0; row < view.rows.size(); ++row) view.SetChecked(row, false);
    for (std::size_t row : c.checked) view.SetChecked(row, true);
    EXPECT_EQ(view.CheckedRequestIds(), c.ids) << c.open;
  }
  // At the files: the checked file's place; a file here already is not fetched again.
  EXPECT_EQ(view.CheckedFiles(), std::vector<std::size_t>{1});
  view.searchButtonClick("B.");
  EXPECT_EQ(view.CheckedFiles(), std::vector<std::size_t>{1});  // a search keeps the places
  std::filesystem::create_directories(SharedCache::UploadsRoot() + "/Tax/ann");
  std::ofstream(SharedCache::UploadsRoot() + "/Tax/ann/a.txt") << "here";
  view.methodDownload({0, 1});
  settle();
  EXPECT_EQ(service.fetched, std::vector<std::string>{SharedCache::UploadsRoot() + "/Tax/ann/b.txt"});
  // Clearing from the searched list: the file goes and its mark with it, also in the whole list.
  view.searchButtonClick("B.");
  view.ClearCBCheckedAndShowMessage(view.CheckedFiles());
  EXPECT_FALSE(std::filesystem::exists(SharedCache::UploadsRoot() + "/Tax/ann/b.txt"));
  view.searchButtonClick("");
  EXPECT_TRUE(view.CheckedFiles().empty());

  // Delete: nothing checked, or "No", reaches nobody.
  int asked = 0;
  view.DeleteMethodTrash({}, [&](const std::string&, const std::string&) { return ++asked, true; });
  view.DeleteMethodTrash({"1"}, [&](const std::string&, const std::string&) { return ++asked, false; });
  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(service.deleted.empty());
}

TEST(UploadRequestView, ExpiryShownInItsFormOrAsItStands) {
  for (const auto& [given, shown] : std::vector<std::pair<std::string, std::string>>{
           {"2026-03-04T05:06:07", "Expires On: 04.03.26 05:06:07"},
           {"next week", "Expires On: next week"},
           {"", "Expires On: "}}) {
    EXPECT_EQ(View::ExpiryText(given), shown);
  }
}
