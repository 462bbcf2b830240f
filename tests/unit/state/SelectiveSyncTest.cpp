#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CVConfiguration.h"
#include "CVSelectiveSync.h"
#include "CVSelectiveSyncSite.h"
#include "CVStateXMLFile.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

const std::int32_t kAll = CVSelectiveSyncRule::syncAll;
const std::int32_t kNone = CVSelectiveSyncRule::syncNone;

// "Café" with a precomposed é, and with e followed by a combining acute accent.
const std::string kComposed = "Caf\xC3\xA9";
const std::string kDecomposed = "Cafe\xCC\x81";

std::string ReadFile(const std::string& path) { return CVStateXMLFile::ReadWholeFile(path).value_or(""); }

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

CVFileForCompare Record(const std::string& path, bool isFolder = false, bool deleted = false) {
  CVFileForCompare record;
  record.localPath = path;
  record.isFolder = isFolder;
  record.deleted = deleted;
  return record;
}

std::vector<std::string> Paths(const std::vector<CVSelectiveSyncItem>& items) {
  std::vector<std::string> paths;
  for (const auto& item : items) paths.push_back(item.Path);
  return paths;
}

std::vector<std::string> ItemUrls(const CVSelectiveSyncSite& site) {
  std::vector<std::string> urls;
  for (const auto& rule : site.SyncRules()) urls.push_back(rule.ItemUrl);
  return urls;
}

std::vector<std::string> DamagedCopies(const std::string& settings) {
  std::vector<std::string> found;
  if (!fs::is_directory(settings)) return found;
  for (const auto& entry : fs::directory_iterator(settings)) {
    if (entry.path().filename().string().rfind("SelectiveSync.xml.broken-", 0) == 0) {
      found.push_back(entry.path().string());
    }
  }
  return found;
}

class SelectiveSyncTest : public ::testing::Test {
 protected:
  SelectiveSyncTest() { CVSelectiveSync::ResetForTests(); }
  ~SelectiveSyncTest() override { CVSelectiveSync::ResetForTests(); }

  std::string Local(const std::string& relative) const { return home_.root() + "/" + relative; }
  std::string StoreFile() const { return home_.settings() + "/SelectiveSync.xml"; }

  TempHome home_;
};

TEST(SelectiveSyncRules, TheNearestRuleWinsDownTheTree) {
  CVSyncRulesDictionary rules{
      {"Docs", {kNone, "Docs"}},
      {"Docs/a", {kAll, "Docs/a"}},
      {"Docs/a/b.txt", {kNone, "Docs/a/b.txt"}},
      {"Docs/x", {kAll, "Docs/x"}},
      {"Docs/x/y", {kNone, "Docs/x/y"}},
  };
  struct Case {
    const char* path;
    std::optional<std::int32_t> rule;
  } cases[] = {
      {"Docs/a/c.txt", kAll},          // syncAll under syncNone
      {"Docs/a/b.txt", kNone},         // the file's own rule before its folder's
      {"Docs/x/y/z/deep.txt", kNone},  // syncNone under syncAll, several levels down
      {"Docs/x/q", kAll},
      {"Docs/ab/c", kNone},  // "Docs/ab" is not inside "Docs/a"
      {"Docs", kNone},
      {"Docs/a/", kAll},
      {"Docs2/a", std::nullopt},  // another storage: no rule up to its name
      {"Other", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    auto found = CVSelectiveSync::FindSyncRule(rules, c.path);
    ASSERT_EQ(found.has_value(), c.rule.has_value()) << c.path;
    if (found) {
      EXPECT_EQ(found->Rule, *c.rule) << c.path;
    }
  }
}

TEST(SelectiveSyncRules, DictionaryTakesTheLaterOfTwoRulesOfOnePath) {
  CVSelectiveSyncSite site("Docs", {{kAll, "Docs"}, {kAll, "Docs/a"}, {kNone, "Docs"}}, {}, nullptr);
  auto rules = CVSelectiveSync::GetSyncRulesDictionary(site);
  EXPECT_EQ(rules.size(), 2u);
  EXPECT_EQ(rules.at("Docs").Rule, kNone);
}

TEST(SelectiveSyncRules, ComposedAndDecomposedNamesFindTheSameRule) {
  CVSyncRulesDictionary composedRules{{"Docs", {kNone, "Docs"}},
                                      {"Docs/" + kComposed, {kAll, "Docs/" + kComposed}}};
  auto found = CVSelectiveSync::FindSyncRule(composedRules, "Docs/" + kDecomposed + "/menu.txt");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->Rule, kAll);

  CVSyncRulesDictionary decomposedRules{{"Docs", {kNone, "Docs"}},
                                        {"Docs/" + kDecomposed, {kAll, "Docs/" + kDecomposed}}};
  found = CVSelectiveSync::FindSyncRule(decomposedRules, "Docs/" + kComposed);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->Rule, kAll);
}

TEST_F(SelectiveSyncTest, ItemsAreKeptByIdenticalPathSoBothFormsOfANameStayApart) {
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName("Docs", true);
  site->addSyncItem(false, Local("Docs/" + kComposed));
  EXPECT_TRUE(site->ItemFoundForPath(Local("Docs/" + kComposed)));
  EXPECT_FALSE(site->ItemFoundForPath(Local("Docs/" + kDecomposed)));
  auto added = site->addSyncItems(std::vector<CVFileForCompare>{Record(Local("Docs/" + kDecomposed))});
  EXPECT_EQ(added.size(), 1u);

  // The rule made for one form still decides for the other.
  site->addSyncRule(kAll, Local("Docs/" + kComposed));
  EXPECT_TRUE(site->IsCheckedRuleForLocalPath(Local("Docs/" + kDecomposed)));
}

TEST_F(SelectiveSyncTest, ANewSiteSyncsNothingUntilAFolderIsTicked) {
  auto& store = CVSelectiveSync::Instance();
  auto site = store.GetSiteRulesByName("Docs", true);
  ASSERT_TRUE(site);
  EXPECT_EQ(ItemUrls(*site), std::vector<std::string>{"Docs"});
  EXPECT_NE(
      home_.ReadLog("CVMainLogs").find("CVSelectiveSync - GetSiteRulesByName -> Create site rule: Docs"),
      std::string::npos);
  EXPECT_NE(ReadFile(StoreFile()).find("<ItemUrl>Docs</ItemUrl>"), std::string::npos) << "saved at once";

  const std::string file = Local("Docs/a/b.txt");
  EXPECT_FALSE(site->IsCheckedRuleForLocalPath(file));
  // A deletion under an unticked folder never reaches the server.
  EXPECT_FALSE(site->IsCanDeleteFile(file));

  site->addSyncRule(kAll, Local("Docs/a"));
  EXPECT_TRUE(site->IsCheckedRuleForLocalPath(file));
  EXPECT_TRUE(site->IsCanDeleteFile(file));
  EXPECT_TRUE(site->ChangeSyncRuleForPath(file, kNone));
  EXPECT_EQ(site->SyncRules().size(), 2u) << "ChangeSyncRuleForPath changes nothing";

  auto rule = site->addSyncRule(kNone, file);
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->ItemUrl, "Docs/a/b.txt");
  EXPECT_FALSE(site->IsCheckedRuleForLocalPath(file));
  EXPECT_FALSE(site->IsCanDeleteFile(file));
  site->addSyncRule(kAll, file);  // sets the existing rule, adds none
  EXPECT_EQ(site->SyncRules().size(), 3u);
  EXPECT_TRUE(site->IsCanDeleteFile(file));

  EXPECT_FALSE(site->addSyncRule(kAll, "/elsewhere/x")) << "no rule outside the root";
}

TEST_F(SelectiveSyncTest, APathWithoutAnyRuleIsNotChecked) {
  CVSelectiveSyncSite site("Docs");
  EXPECT_FALSE(site.IsCheckedRuleForLocalPath(Local("Docs/a")));
  EXPECT_TRUE(site.IsCanDeleteFile(Local("Docs/a")));
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("IsCheckedRuleForLocalPath -> Sync == nil " + Local("Docs/a")),
            std::string::npos);
}

TEST_F(SelectiveSyncTest, StorageNamesMatchWithoutCaseButNeverByPrefix) {
  auto& store = CVSelectiveSync::Instance();
  auto docs = store.GetSiteRulesByName("Docs", true);
  auto docs2 = store.GetSiteRulesByName("Docs2", true);
  EXPECT_EQ(store.GetSiteRulesByName("docs"), docs);
  EXPECT_EQ(store.GetSiteRulesByName("DOCS", true), docs) << "found, not made again";
  EXPECT_TRUE(store.isNameExists("dOcS2"));
  EXPECT_FALSE(store.isNameExists("Doc"));
  EXPECT_EQ(store.Sites().size(), 2u);

  EXPECT_EQ(CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(Local("Docs2/a.txt")), docs2);
  EXPECT_EQ(CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(Local("Docs/a.txt")), docs);
  EXPECT_EQ(CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(Local("Missing/a.txt")), nullptr);
  EXPECT_EQ(CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(home_.path() + "/Corvalink2/Docs/a"), nullptr);

  // The rule of "Docs" says nothing about "Docs2".
  docs->addSyncRule(kAll, Local("Docs"));
  EXPECT_TRUE(docs->IsCheckedRuleForLocalPath(Local("Docs/a")));
  EXPECT_FALSE(docs2->IsCheckedRuleForLocalPath(Local("Docs2/a")));

  EXPECT_TRUE(store.RemoveSite("Docs2"));
  EXPECT_FALSE(store.RemoveSite("Docs2"));
  EXPECT_EQ(store.Sites().size(), 1u);
}

TEST_F(SelectiveSyncTest, FolderOperationsStopAtTheFolderBoundary) {
  auto site = std::make_shared<CVSelectiveSyncSite>("Docs");
  for (const char* path : {"Docs/a", "Docs/a/x.txt", "Docs/a/sub/y.txt", "Docs/ab", "Docs/ab/z.txt"}) {
    site->addSyncItem(std::string(path).find('.') == std::string::npos, Local(path));
    site->addSyncRule(kAll, Local(path));
  }
  EXPECT_EQ(site->GetArrayFilesFoldersForFolder(Local("Docs/a")),
            (std::vector<std::string>{Local("Docs/a/x.txt"), Local("Docs/a/sub/y.txt")}));
  EXPECT_EQ(site->GetArrayFilesFoldersForFolder(Local("Docs/a/")).size(), 2u);

  site->removeSyncItemsAndRulesForFolder(Local("Docs/a"));
  EXPECT_EQ(Paths(site->SyncItems()), (std::vector<std::string>{Local("Docs/ab"), Local("Docs/ab/z.txt")}));
  EXPECT_EQ(ItemUrls(*site), (std::vector<std::string>{"Docs/ab", "Docs/ab/z.txt"}));
  std::string log = home_.ReadLog("CVMainLogs");
  EXPECT_NE(log.find("removeSyncItemsAndRulesForFolder -> Remove Item: " + Local("Docs/a/x.txt")),
            std::string::npos);
  EXPECT_NE(log.find("removeSyncItemsAndRulesForFolder -> Remove Rule: Docs/a/sub/y.txt"), std::string::npos);

  CVSelectiveSyncSite empty("Docs");
  EXPECT_TRUE(empty.GetArrayFilesFoldersForFolder(Local("Docs/a")).empty());
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("Warning delete locally then selectivesync.count == 0!!!"),
            std::string::npos);
}

TEST_F(SelectiveSyncTest, RemovingAnItemTakesItsRuleButARuleAloneStays) {
  CVSelectiveSyncSite site("Docs");
  site.addSyncRule(kAll, Local("Docs/ruleonly.txt"));
  site.removeSyncItemAndRule(Local("Docs/ruleonly.txt"));
  EXPECT_EQ(ItemUrls(site), std::vector<std::string>{"Docs/ruleonly.txt"});

  site.addSyncItem(false, Local("Docs/f.txt"));
  site.addSyncRule(kAll, Local("Docs/f.txt"));
  site.removeSyncItemAndRule(Local("Docs/f.txt"));
  EXPECT_TRUE(site.SyncItems().empty());
  EXPECT_EQ(ItemUrls(site), std::vector<std::string>{"Docs/ruleonly.txt"});
  EXPECT_NE(home_.ReadLog("CVMainLogs")
                .find("removeSyncItemAndRule -> RemoveSyncItemAndRule for path: File " + Local("Docs/f.txt") +
                      " deleted access"),
            std::string::npos);
}

TEST_F(SelectiveSyncTest, RenamesMoveItemsAndRulesAndCanBeRepeated) {
  CVSelectiveSyncSite site("Docs");
  for (const char* path : {"Docs/a", "Docs/a/x", "Docs/ab", "Docs/f.txt"}) {
    site.addSyncItem(false, Local(path));
    site.addSyncRule(kAll, Local(path));
  }
  for (int round = 0; round < 2; ++round) {
    site.renameSyncItemAndRule(Local("Docs/a"), Local("Docs/b"), true);
    site.renameSyncItemAndRule(Local("Docs/f.txt"), Local("Docs/g.txt"), false);
    EXPECT_EQ(Paths(site.SyncItems()), (std::vector<std::string>{Local("Docs/b"), Local("Docs/b/x"),
                                                                 Local("Docs/ab"), Local("Docs/g.txt")}))
        << "round " << round;
    EXPECT_EQ(ItemUrls(site), (std::vector<std::string>{"Docs/b", "Docs/b/x", "Docs/ab", "Docs/g.txt"}));
  }

  CVSelectiveSyncSite storage(
      "Docs", {{kNone, "Docs"}, {kAll, "Docs/b"}, {kAll, "Docs2/c"}},
      {{Local("Docs"), true, false}, {Local("Docs/b"), true, false}, {Local("Docs2/c"), false, false}},
      nullptr);
  storage.renameSite("Docs", "Team");
  EXPECT_EQ(storage.Name(), "Team");
  EXPECT_EQ(Paths(storage.SyncItems()),
            (std::vector<std::string>{Local("Team"), Local("Team/b"), Local("Docs2/c")}));
  EXPECT_EQ(ItemUrls(storage), (std::vector<std::string>{"Team", "Team/b", "Docs2/c"}));
}

TEST_F(SelectiveSyncTest, AListingAddsOnlyPathsNotKnownYet) {
  CVSelectiveSyncSite site("Docs");
  site.addSyncItem(false, Local("Docs/known.txt"));
  std::vector<CVFileForCompare> listing{
      Record(Local("Docs/known.txt")),
      Record(Local("Docs/folder"), true),
      Record(Local("Docs/folder/new.txt")),
      Record(Local("Docs/folder/new.txt")),         // twice in one listing
      Record(Local("Docs/gone.txt"), false, true),  // still a known path
  };
  auto added = site.addSyncItems(listing);
  ASSERT_EQ(added.size(), 3u);
  EXPECT_EQ(Paths(added), (std::vector<std::string>{Local("Docs/folder"), Local("Docs/folder/new.txt"),
                                                    Local("Docs/gone.txt")}));
  EXPECT_TRUE(added[0].IsFolder);
  EXPECT_FALSE(added[1].IsFolder);
  for (const auto& item : site.SyncItems()) EXPECT_FALSE(item.WasDeleted) << item.Path;
  EXPECT_EQ(site.SyncItems().size(), 4u);
  EXPECT_TRUE(site.addSyncItems(listing).empty());
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("addSyncItems -> AddItem: " + Local("Docs/folder/new.txt")),
            std::string::npos);

  EXPECT_TRUE(site.addSyncItems(nullptr).empty());
  EXPECT_NE(home_.ReadLog("CVMainLogs")
                .find("-(NSMutableArray*)addSyncItems:(NSMutableArray*)serverFiles (|ADD NULL FILES|)"),
            std::string::npos);
}

TEST_F(SelectiveSyncTest, TheFileKeepsItsElementOrderAndReadsBackTheSame) {
  auto& store = CVSelectiveSync::Instance();
  auto site = store.GetSiteRulesByName("Docs", true);
  site->addSyncRule(kAll, Local("Docs/R&D <1>"));
  site->addSyncItem(true, Local("Docs/R&D <1>"));
  site->addSyncItem(false, Local("Docs/R&D <1>/" + kDecomposed + " "));
  store.GetSiteRulesByName("Team", true);
  ASSERT_TRUE(store.SaveConfigXML());

  const std::string r = home_.root();
  EXPECT_EQ(ReadFile(StoreFile()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<SelectiveSync>\n"
            "  <Sites>\n"
            "    <StorageRules>\n"
            "      <Name>Docs</Name>\n"
            "      <SyncRules>\n"
            "        <SyncRule>\n"
            "          <ItemUrl>Docs</ItemUrl>\n"
            "          <Rule>syncNone</Rule>\n"
            "        </SyncRule>\n"
            "        <SyncRule>\n"
            "          <ItemUrl>Docs/R&amp;D &lt;1&gt;</ItemUrl>\n"
            "          <Rule>syncAll</Rule>\n"
            "        </SyncRule>\n"
            "      </SyncRules>\n"
            "      <SyncItems>\n"
            "        <SyncItem>\n"
            "          <Path>" +
                r +
                "/Docs/R&amp;D &lt;1&gt;</Path>\n"
                "          <IsFolder>true</IsFolder>\n"
                "          <WasDeleted>false</WasDeleted>\n"
                "        </SyncItem>\n"
                "        <SyncItem>\n"
                "          <Path>" +
                r + "/Docs/R&amp;D &lt;1&gt;/" + kDecomposed +
                " </Path>\n"
                "          <IsFolder>false</IsFolder>\n"
                "          <WasDeleted>false</WasDeleted>\n"
                "        </SyncItem>\n"
                "      </SyncItems>\n"
                "    </StorageRules>\n"
                "    <StorageRules>\n"
                "      <Name>Team</Name>\n"
                "      <SyncRules>\n"
                "        <SyncRule>\n"
                "          <ItemUrl>Team</ItemUrl>\n"
                "          <Rule>syncNone</Rule>\n"
                "        </SyncRule>\n"
                "      </SyncRules>\n"
                "      <SyncItems/>\n"
                "    </StorageRules>\n"
                "  </Sites>\n"
                "</SelectiveSync>\n");
  struct stat info {};
  ASSERT_EQ(stat(StoreFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  std::string before = store.GetInXML();
  CVSelectiveSync::ResetForTests();
  auto& again = CVSelectiveSync::Instance();
  EXPECT_EQ(again.GetInXML(), before);
  auto docs = again.GetSiteRulesByName("Docs");
  ASSERT_TRUE(docs);
  EXPECT_TRUE(docs->ItemFoundForPath(Local("Docs/R&D <1>/" + kDecomposed + " ")))
      << "exact bytes, trailing space";
}

TEST_F(SelectiveSyncTest, ReadsHandWrittenFilesByTheirMeaning) {
  WriteFile(
      StoreFile(),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<SelectiveSync><Sites>\n"
      "  <StorageRules>\n"
      "    <Name>\n      Docs\n    </Name>\n"
      "    <SyncRules>\n"
      "      <SyncRule><ItemUrl>Docs</ItemUrl><Rule> syncAll\n</Rule></SyncRule>\n"
      "      <SyncRule><Rule>SYNCALL</Rule><ItemUrl>Docs/odd</ItemUrl><Name>ignored</Name></SyncRule>\n"
      "      <SyncRule><ItemUrl>Docs/x</ItemUrl><Rule>maybe</Rule></SyncRule>\n"
      "    </SyncRules>\n"
      "    <SyncItems>\n"
      "      "
      "<SyncItem><Path>/p/deleted</Path><IsFolder>true</IsFolder><WasDeleted>true</WasDeleted></SyncItem>\n"
      "      <SyncItem><Path>/p/kept</Path><IsFolder>yes</IsFolder><WasDeleted>TRUE</WasDeleted>"
      "<Unknown>x</Unknown></SyncItem>\n"
      "    </SyncItems>\n"
      "  </StorageRules>\n"
      "</Sites></SelectiveSync>\n");
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName("Docs");
  ASSERT_TRUE(site);
  auto rules = site->SyncRules();
  ASSERT_EQ(rules.size(), 3u);
  EXPECT_EQ(rules[0].Rule, kAll);
  EXPECT_EQ(rules[1].ItemUrl, "Docs/odd");
  EXPECT_EQ(rules[1].Rule, kNone) << "only the exact word syncAll";
  EXPECT_EQ(rules[2].Rule, kNone);
  auto items = site->SyncItems();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_TRUE(items[0].IsFolder);
  EXPECT_TRUE(items[0].WasDeleted);
  EXPECT_FALSE(items[1].IsFolder);
  EXPECT_FALSE(items[1].WasDeleted);

  // The deleted flag survives the next save.
  ASSERT_TRUE(CVSelectiveSync::Instance().SaveConfigXML());
  EXPECT_NE(ReadFile(StoreFile())
                .find("<Path>/p/deleted</Path>\n          <IsFolder>true</IsFolder>\n"
                      "          <WasDeleted>true</WasDeleted>"),
            std::string::npos);
}

TEST_F(SelectiveSyncTest, AMissingFileGivesAnEmptyStoreWrittenAtOnce) {
  EXPECT_TRUE(CVSelectiveSync::Instance().Sites().empty());
  EXPECT_EQ(ReadFile(StoreFile()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SelectiveSync>\n  <Sites/>\n</SelectiveSync>\n");
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("File SelectiveSync.xml not found!"), std::string::npos);
}

TEST_F(SelectiveSyncTest, AnEarlySettingsFolderIsTakenOver) {
  WriteFile(home_.root() + "/Settings/SelectiveSync.xml",
            "<SelectiveSync><Sites><StorageRules><Name>Old</Name></StorageRules></Sites></SelectiveSync>");
  EXPECT_TRUE(CVSelectiveSync::Instance().isNameExists("Old"));
  EXPECT_FALSE(fs::exists(home_.root() + "/Settings"));
}

TEST_F(SelectiveSyncTest, ADamagedFileIsKeptAsideAndOnlyWholeStoragesAreRead) {
  const std::string whole =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SelectiveSync><Sites>"
      "<StorageRules><Name>A</Name><SyncRules><SyncRule><ItemUrl>A</ItemUrl><Rule>syncAll</Rule></SyncRule>"
      "</SyncRules><SyncItems/></StorageRules>"
      "<StorageRules><Name>B</Name><SyncRules/><SyncItems/></StorageRules>";
  struct Case {
    const char* what;
    std::string text;
    std::vector<std::string> sites;
  } cases[] = {
      {"cut in a storage",
       whole + "<StorageRules><Name>C</Name><SyncRules><SyncRule><ItemUrl>C/x",
       {"A", "B"}},
      {"wrong closing tag", whole + "</Sites></Wrong>", {"A", "B"}},
      {"not XML", "\x01\x02 binary garbage", {}},
      {"empty", "", {}},
      {"not UTF-8",
       "<SelectiveSync><Sites><StorageRules><Name>\xff\xfe</Name></StorageRules></Sites></SelectiveSync>",
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    CVSelectiveSync::ResetForTests();
    for (const auto& copy : DamagedCopies(home_.settings())) fs::remove(copy);
    WriteFile(StoreFile(), c.text);

    auto& store = CVSelectiveSync::Instance();
    std::vector<std::string> names;
    for (const auto& site : store.Sites()) names.push_back(site->Name());
    EXPECT_EQ(names, c.sites);

    auto copies = DamagedCopies(home_.settings());
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(ReadFile(copies[0]), c.text) << "the damaged file is kept byte for byte";
    // What was read is written back as a file that reads cleanly.
    std::string saved = ReadFile(StoreFile());
    EXPECT_FALSE(CVStateXMLFile::Parse(saved, {}).has_value()) << saved;
  }
  EXPECT_NE(home_.ReadLog("CVMainLogs")
                .find("CVSelectiveSync - ReadConfigFromFile -> SelectiveSync.xml is damaged"),
            std::string::npos);
}

TEST_F(SelectiveSyncTest, InitMakesASiteForEachStorageOnce) {
  auto& configuration = CVConfiguration::Instance();
  for (const char* name : {"Docs", "Team"}) {
    auto storage = std::make_shared<CVSharepoint>();
    storage->Name = name;
    configuration.fSpSites.push_back(storage);
  }
  WriteFile(
      StoreFile(),
      "<SelectiveSync><Sites><StorageRules><Name>docs</Name><SyncRules><SyncRule><ItemUrl>docs</ItemUrl>"
      "<Rule>syncAll</Rule></SyncRule></SyncRules><SyncItems/></StorageRules></Sites></SelectiveSync>");
  CVSelectiveSync::InitSelectiveSync();
  CVSelectiveSync::InitSelectiveSync();

  CVSelectiveSync::ResetForTests();
  auto sites = CVSelectiveSync::Instance().Sites();
  ASSERT_EQ(sites.size(), 2u);
  EXPECT_EQ(sites[0]->Name(), "docs");
  EXPECT_EQ(sites[0]->SyncRules()[0].Rule, kAll) << "an existing site keeps its rules";
  EXPECT_EQ(sites[1]->Name(), "Team");
  EXPECT_EQ(ItemUrls(*sites[1]), std::vector<std::string>{"Team"});
  EXPECT_EQ(sites[1]->SyncRules()[0].Rule, kNone);
}

TEST_F(SelectiveSyncTest, ChangesFromSeveralThreadsAreAllKeptAndSaved) {
  auto& store = CVSelectiveSync::Instance();
  auto docs = store.GetSiteRulesByName("Docs", true);
  constexpr int kThreads = 4;
  constexpr int kFiles = 60;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::string folder = Local("Docs/t" + std::to_string(t));
      std::vector<CVFileForCompare> listing;
      for (int i = 0; i < kFiles; ++i) {
        std::string path = folder + "/f" + std::to_string(i);
        docs->addSyncItem(false, path);
        docs->addSyncRule(kAll, path);
        listing.push_back(Record(path + ".listed"));
        if (i % 20 == 0) docs->IsCheckedRuleForLocalPath(path);
      }
      docs->addSyncItems(listing);
      docs->renameSyncItemAndRule(folder, Local("Docs/u" + std::to_string(t)), true);
    });
  }
  threads.emplace_back([&] {
    for (int s = 0; s < 4; ++s) store.GetSiteRulesByName("S" + std::to_string(s), true);
  });
  threads.emplace_back([&] {
    for (int s = 0; s < 4; ++s) EXPECT_TRUE(store.SaveConfigXML());
  });
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(docs->SyncItems().size(), static_cast<std::size_t>(kThreads * kFiles * 2));
  EXPECT_EQ(docs->SyncRules().size(), static_cast<std::size_t>(kThreads * kFiles + 1));
  EXPECT_TRUE(docs->GetArrayFilesFoldersForFolder(Local("Docs/t0")).empty());
  EXPECT_EQ(docs->GetArrayFilesFoldersForFolder(Local("Docs/u0")).size(),
            static_cast<std::size_t>(kFiles * 2));
  EXPECT_EQ(store.Sites().size(), 5u);

  ASSERT_TRUE(store.SaveConfigXML());
  std::string saved = store.GetInXML();
  CVSelectiveSync::ResetForTests();
  EXPECT_EQ(CVSelectiveSync::Instance().GetInXML(), saved);
}

}  // namespace
