// The shared files view without a server: people and their order, items and
// their order, search and pages, the cache's names and what the questions
// guard; and names of a hostile server that never reach outside the cache.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "FakeSharedFilesService.h"
#include "InternalShare51WindowController.h"
#include "MainQueue.h"
#include "SharedCache.h"
#include "TempHome.h"
#include "ViewSharedFilesController.h"

namespace fs = std::filesystem;

namespace {

using View = ViewSharedFilesController;

struct Fixture {
  TempHome home;
  FakeSharedFilesService service;
  MainQueue main;
  View view{service, main.Post()};
  std::vector<std::string> messages;
  Fixture() {
    view.onMessage = [this](const std::string& text) { messages.push_back(text); };
  }
  void Settle() { ASSERT_TRUE(main.RunUntil([this] { return !view.isBusy; })); }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& row : view.rows) names.push_back(row.name);
    return names;
  }
};

const std::string kMark = View::kPersonMark;

}  // namespace

TEST(SharedFilesView, PeopleGroupedByLetterAndItemsSorted) {
  Fixture f;
  f.service.top = {Item("1", "b.txt", false, "bob@x"), Item("2", "A", true, "ann@x", "Ann"),
                   Item("3", "a.txt", false, "bob@x"), Item("4", "c", false, "carl@x", "carl"),
                   Item("5", "Z", true, "bob@x"), Item("6", "e", false, "\xC3\xA9lise@x"),
                   Item("7", "e", false, "\xC3\x89mile@x")};  // "é" and "É" under one letter
  struct Case {
    bool ascending;
    std::vector<std::string> people, bobsItems;
  } cases[] = {
      {true,
       {"A", "Ann" + kMark + "(ann@x)", "B", "bob@x", "C", "carl" + kMark + "(carl@x)", "\xC3\x89", "\xC3\xA9lise@x",
        "\xC3\x89mile@x"},
       {"Z", "a.txt", "b.txt"}},
      {false,
       {"\xC3\x89", "\xC3\xA9lise@x", "\xC3\x89mile@x", "C", "carl" + kMark + "(carl@x)", "B", "bob@x", "A",
        "Ann" + kMark + "(ann@x)"},
       {"b.txt", "a.txt", "Z"}},
  };
  for (const auto& c : cases) {
    f.view.ascendingSortDirection = c.ascending;
    f.view.GetRecipientsList();
    f.Settle();
    EXPECT_EQ(f.Names(), c.people);
    f.view.DoubleClickRecipient("bob@x");
    f.Settle();
    EXPECT_EQ(f.Names(), c.bobsItems);
  }
  // Search over the list as loaded; the empty text gives it back whole.
  for (const auto& [text, names] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"A.T", {"a.txt"}}, {"nothing", {}}, {"", {"b.txt", "a.txt", "Z"}}}) {
    f.view.SearchBoxAction(text);
    EXPECT_EQ(f.Names(), names) << text;
  }
}

TEST(SharedFilesView, PagesAndFolders) {
  Fixture f;
  for (int i = 0; i < 450; ++i) f.service.top.push_back(Item(std::to_string(i), "f" + std::to_string(1000 + i)));
  f.service.top.push_back(Item("900", "Dir", true));
  f.service.inside[{"900", ""}] = {Item("900", "sub", true), Item("900", "x.txt")};
  f.service.inside[{"900", "sub"}] = {Item("900", "y.txt")};
  f.view.DoubleClickRecipient("a@x");
  f.Settle();
  EXPECT_EQ(f.view.PageCount(), 3u);
  f.view.ShowPage(7);
  EXPECT_EQ(f.view.page, 2u);
  EXPECT_EQ(f.view.PageRows().size(), 451u - 2 * View::kPageSize);
  EXPECT_EQ(f.view.PageRows().back().name, "f1449");

  f.view.DoubleClickFolder(f.view.rows[0].item);
  f.Settle();
  EXPECT_EQ(f.Names(), (std::vector<std::string>{"..", "sub", "x.txt"}));
  const std::string cache = f.home.root() + "/Shared In";
  EXPECT_EQ(f.view.rows[2].localPath, cache + "/900_Dir/x.txt");
  f.view.DoubleClickFolder(f.view.rows[1].item);
  f.Settle();
  EXPECT_EQ(f.view.rows[1].localPath, cache + "/900_Dir/sub/y.txt");
  f.view.DoubleClickGoUp();
  f.Settle();
  f.view.DoubleClickGoUp();
  f.Settle();
  EXPECT_EQ(f.view.level, View::Level::Items);
  EXPECT_EQ(f.view.rows.size(), 451u);
}

TEST(SharedFilesView, HostileNamesNeverLeaveTheCache) {
  Fixture f;
  const std::string cache = f.home.root() + "/Shared In";
  const std::string longName(300, 'n');
  f.service.top = {Item("1", "../../.bashrc"), Item("2", "/etc/passwd"), Item("3", std::string("a\0b", 3)),
                   Item("4", longName), Item("..", "x"), Item("6", "ok.txt"), Item("7", "Dir", true)};
  f.service.inside[{"7", ""}] = {Item("7", ".."), Item("7", "."), Item("7", "..\\..\\up"), Item("7", "in.txt"),
                                 Item("7", "..", true)};
  f.service.inside[{"7", ".."}] = {Item("7", "escaped.txt")};
  // A link planted in the cache leads nowhere: nothing is written through it.
  fs::create_directories(cache + "/7_Dir");
  fs::create_directories(f.home.path() + "/elsewhere");
  fs::create_symlink(f.home.path() + "/elsewhere", cache + "/7_Dir/linked");
  f.service.inside[{"7", ""}].push_back(Item("7", "linked", true));
  f.service.inside[{"7", "linked"}] = {Item("7", "through.txt")};

  f.view.DoubleClickRecipient("a@x");
  f.Settle();
  std::vector<WSFileProperty> all;
  for (const auto& row : f.view.rows) all.push_back(row.item);
  f.view.DownloadFileAsync(all);
  f.Settle();

  std::set<std::string> written;
  for (const auto& entry : fs::recursive_directory_iterator(f.home.path())) {
    if (entry.is_regular_file() && entry.path().string().find("/.Settings/") == std::string::npos) {
      written.insert(entry.path().lexically_relative(f.home.path()).string());
    }
  }
  EXPECT_EQ(written, (std::set<std::string>{"Corvalink/Shared In/.._x", "Corvalink/Shared In/6_ok.txt",
                                            "Corvalink/Shared In/7_Dir/in.txt",
                                            "Corvalink/Shared In/7_Dir/..\\..\\up"}));
  EXPECT_EQ(f.messages.back(), "4 downloaded to " + cache + ", 8 failed (see the log)");
}

TEST(SharedFilesView, QuestionsGuardWhatGoes) {
  Fixture f;
  const std::string cache = f.home.root() + "/Shared In";
  f.service.top = {Item("1", "a.txt"), Item("2", "b.txt")};
  f.view.DoubleClickRecipient("a@x");
  f.Settle();
  f.view.DownloadFileAsync({f.service.top});
  f.Settle();
  int asked = 0;
  auto no = [&](const std::string&, const std::string&) { return ++asked, false; };
  auto yes = [&](const std::string&, const std::string&) { return ++asked, true; };

  f.view.ClearCache({f.service.top[0]}, no);  // a selection goes without a question
  EXPECT_EQ(asked, 0);
  EXPECT_FALSE(fs::exists(cache + "/1_a.txt"));
  f.view.ClearCache({}, no);
  EXPECT_TRUE(fs::exists(cache + "/2_b.txt"));
  f.view.ClearCache({}, yes);
  EXPECT_TRUE(fs::is_empty(cache));
  EXPECT_EQ(asked, 2);

  // Shared Out: nothing selected does nothing; a "No" keeps the shares.
  f.view.SelectTab(View::kSharedOut);
  f.Settle();
  EXPECT_EQ(f.view.labelTitleTable, "Recipients");
  f.view.UnshareSlectedFiles({}, yes);
  f.view.UnshareSlectedFiles(f.service.top, no);
  EXPECT_EQ(asked, 3);
  EXPECT_TRUE(f.service.deleted.empty());
  f.view.UnshareSlectedFiles(f.service.top, yes);
  f.Settle();
  EXPECT_EQ(f.service.deleted, std::vector<std::string>{"1;2"});
  EXPECT_EQ(f.messages.back(), View::kUnshared);
}

TEST(SharedFilesView, ExtendingAndItsDates) {
  // Only the server's refusal, or a call that never got an answer, is a failure.
  for (const auto& [result, done] : std::vector<std::pair<std::string, bool>>{
           {"0", true}, {"0;", true}, {"1;", true}, {"2;extended", true}, {"-1;", false}, {"-1;denied", false},
           {"err timeout", false}, {"", false}}) {
    EXPECT_EQ(View::ExtendSucceeded(result), done) << result;
  }
  // The edit sheet's dates count from the share's own date, never before today at 23:59.
  using Share = InternalShare51WindowController;
  using std::chrono::hours;
  const auto now = Share::Clock::now();
  const auto min = Share::ExpiryDates(now, std::nullopt, 0, 0).min;
  const auto old = min - hours(24 * 10);
  struct Case {
    std::optional<Share::Clock::time_point> base;
    std::int64_t defaultDays, maxDays;
    Share::Clock::time_point start;
    std::optional<Share::Clock::time_point> max;
  } cases[] = {
      {std::nullopt, 0, 0, min, std::nullopt},
      {std::nullopt, 3, 10, min + hours(72), min + hours(240)},
      {old, 3, 5, min, min},
      {old, 12, 30, old + hours(24 * 12), old + hours(24 * 30)},
  };
  for (const auto& c : cases) {
    const auto range = Share::ExpiryDates(now, c.base, c.defaultDays, c.maxDays);
    EXPECT_EQ(range.min, min);
    EXPECT_EQ(range.start, c.start) << c.defaultDays;
    EXPECT_EQ(range.max, c.max) << c.maxDays;
  }
}

TEST(SharedFilesView, ResendSheetListsTheRecipientsOfTheSameShare) {
  auto share = [](std::string id, std::string name, std::string group, std::string to, bool folder = false) {
    auto item = Item(std::move(id), std::move(name), folder, std::move(to));
    item.shareGroup = std::move(group);
    return item;
  };
  const std::vector<WSFileProperty> all = {share("1", "r.txt", "g1", "ann@x"), share("2", "r.txt", "g1", "bob@x"),
                                           share("3", "o.txt", "g1", "bob@x"), share("4", "r.txt", "g2", "carl@x"),
                                           share("5", "r.txt", "g1", "dan@x", true), share("6", "r.txt", "", "eve@x")};
  struct Case {
    std::vector<std::string> chosen;
    std::vector<std::pair<std::string, bool>> rows;  // share id, checked
  } cases[] = {
      {{"1"}, {{"1", true}, {"2", false}}},             // same call and item; not another item, call or kind
      {{"2", "1"}, {{"2", true}, {"1", true}}},         // a chosen share is checked wherever it is met
      {{"6"}, {{"6", true}}},                           // without a group nothing ties it to others
      {{"5", "3"}, {{"5", true}, {"3", true}}},
  };
  for (const auto& c : cases) {
    std::vector<WSFileProperty> chosen;
    for (const auto& id : c.chosen) chosen.push_back(*std::find_if(all.begin(), all.end(), [&](auto& s) { return s.share_id == id; }));
    std::vector<std::pair<std::string, bool>> rows;
    for (const auto& row : View::RecipientsOf(chosen, all)) rows.emplace_back(row.shareId, row.chb);
    EXPECT_EQ(rows, c.rows) << c.chosen[0];
  }

  // From a person's list: the sheet's rows, then the notice for what stays checked.
  Fixture f;
  f.service.top = all;
  f.view.SelectTab(View::kSharedOut);
  f.Settle();
  std::vector<View::ShareRow> opened;
  f.view.loadDataForTable({all[0]}, [&](auto rows) { opened = std::move(rows); });  // not from the people
  f.view.DoubleClickRecipient("ann@x");
  f.Settle();
  ASSERT_TRUE(opened.empty());
  f.view.loadDataForTable({f.view.rows[0].item}, [&](auto rows) { opened = std::move(rows); });
  f.Settle();
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[1].name, "bob@x");
  f.view.ResendEmail({});  // nothing checked, nothing sent
  opened[1].chb = true;
  for (const bool result : {true, false}) {
    f.service.result = result;
    f.view.ResendEmail(opened);
    f.Settle();
    EXPECT_EQ(f.messages.back(), result ? View::kResent : View::kUnshareError);
  }
  EXPECT_EQ(f.service.resent, (std::vector<std::string>{"1;2", "1;2"}));
}
