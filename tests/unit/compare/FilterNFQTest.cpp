#include <unistd.h>

#include <algorithm>
#include <set>

#include "CVFileForCompareMethods.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "CompareSupport.h"
#include "SmartSync.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kComposed = "caf\xC3\xA9.txt";
const std::string kDecomposed = "cafe\xCC\x81.txt";

class FilterNFQTest : public CompareTest {
 protected:
  void List(std::vector<CVFileForCompare> lines) {
    for (auto& line : lines) line.site = "Docs";
    queues.listing.files = std::move(lines);
    queues.listing.isSiteOffline = false;
  }
  // Fill and, as the scheduler does, Filter only when the storage is online.
  void Compare(const std::string& storage = "Docs") {
    queues.Fill_NFQ_ForStorage(storage);
    if (!queues.siteOffline) queues.FilterNFQ(storage);
  }
  // The work list as "action:path below the root".
  std::vector<std::string> Work() {
    std::vector<std::string> work;
    std::lock_guard<std::mutex> lock(queues.SQ_FQ_Lock);
    for (const auto& item : queues.SQ_ServerQueue) {
      work.push_back(std::to_string(item.fileAction) + ":" + item.nFilePath.substr(Root().size() + 1));
    }
    return work;
  }
  const CVFileWithAction* Item(const std::string& relative) {
    for (const auto& item : queues.SQ_ServerQueue) {
      if (item.nFilePath == Path(relative)) return &item;
    }
    return nullptr;
  }

  FakeListingQueues queues;
};

TEST_F(FilterNFQTest, FirstPassComparesListingRecordAndDisk) {
  AddStorage("Docs2");
  SetOwnRule("Docs2", CVSelectiveSyncRule::syncAll);
  CVSelectiveSync::Instance().GetSiteRulesByName("Docs")->addSyncRule(CVSelectiveSyncRule::syncNone,
                                                                      Path("Docs/private"));

  WriteFile(Path("Docs/same.txt"), "12345", 1000);
  WriteFile(Path("Docs/" + kDecomposed), "abc", 1000);  // the disk holds the decomposed name
  std::filesystem::create_directories(Path("Docs/dir"));
  WriteFile(Path("Docs/edited.txt"), "EDIT", 1500);  // same size as recorded, touched
  WriteFile(Path("Docs/gone.txt"), "zz", 1000);
  WriteFile(Path("Docs/private/p.txt"), "p", 1000);
  WriteFile(Path("Docs/both.txt"), "mine", 1700);
  WriteFile(Path("Docs/local-only.txt"), "new", 1800);
  WriteFile(Path("Docs/dir/inner.txt"), "in", 1800);
  WriteFile(Path("Docs/.hidden"), "h", 1800);
  WriteFile(Path("Docs2/y.txt"), "y", 1000);
  WriteFile(Path("Outside/secret.txt"), "s", 1000);
  ASSERT_EQ(::symlink(Path("Outside").c_str(), Path("Docs/link").c_str()), 0);

  SaveRecords({Record("Docs/same.txt", 5, 1000), Record("Docs/gone.txt", 2, 1000), Record("Docs/" + kComposed, 3, 1000),
               Record("Docs/dir", 0, 0, true), Record("Docs/edited.txt", 4, 1000),
               Record("Docs2/x.txt", 1, 1000), Record("Docs/private", 0, 0, true),
               Record("Docs/private/p.txt", 1, 1000)});
  List({Line(Path("Docs/new.txt"), 10, 2000), Line(Path("Docs/same.txt"), 5, 1000),
        Line(Path("Docs/" + kComposed), 3, 1000), Line(Path("Docs/dir"), 0, 0, true),
        Line(Path("Docs/edited.txt"), 4, 1000), Line(Path("Docs/private"), 0, 0, true),
        Line(Path("Docs/private/p.txt"), 1, 1000),
        Line(Path("Docs/private/q.txt"), 1, 1000), Line(Path("Docs2/evil.txt"), 1, 1000),
        Line(Path("Docs/both.txt"), 3, 1600)});

  Compare();
  ASSERT_FALSE(queues.siteOffline);
  EXPECT_EQ(queues.listedSite, "Docs");
  auto work = Work();
  ASSERT_GE(work.size(), 10u);
  // The lines in their order; the unticked folder's lines and the line outside
  // the storage make nothing.
  EXPECT_THAT(std::vector<std::string>(work.begin(), work.begin() + 6),
              ElementsAre("2:Docs/new.txt", "-1:Docs/same.txt", "-1:Docs/" + kComposed, "-1:Docs/dir",
                          "0:Docs/edited.txt", "4:Docs/both.txt"));
  // Then the records without a synced line, in record order: Docs2's stays, the
  // unticked folder's go (the local copy of an unticked folder is removed), then
  // what the server no longer lists.
  EXPECT_THAT(std::vector<std::string>(work.begin() + 6, work.begin() + 9),
              ElementsAre("3:Docs/private", "3:Docs/private/p.txt", "3:Docs/gone.txt"));
  // Then the uploads of what the record does not know; links and hidden names are
  // not scanned, and the decomposed name is known.
  std::set<std::string> uploads(work.begin() + 9, work.end());
  EXPECT_EQ(uploads, (std::set<std::string>{"0:Docs/both.txt", "0:Docs/local-only.txt", "0:Docs/dir/inner.txt"}));
  EXPECT_EQ(uploads.size(), work.size() - 9);

  const CVFileWithAction* fresh = Item("Docs/new.txt");
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->fileSize, 10);
  EXPECT_EQ(fresh->dateModified, 2000);
  EXPECT_FALSE(fresh->isFSWAction);
  EXPECT_TRUE(Item("Docs/dir")->isFolder);
  const CVFileWithAction* gone = Item("Docs/gone.txt");
  EXPECT_EQ(gone->fileSize, 2);
  EXPECT_EQ(gone->dateModified, 1000);

  EXPECT_TRUE(std::filesystem::exists(Path("Docs/gone.txt"))) << "the comparison itself touches no file";
  {
    std::lock_guard<std::mutex> lock(queues.SQ_NFQ_Lock);
    EXPECT_THAT(queues.NFSQ_ServerQueue, IsEmpty());
  }
  const std::string log = MainLog();
  EXPECT_THAT(log, HasSubstr("Symbolic link skipped: " + Path("Docs/link")));
  EXPECT_THAT(log, HasSubstr("SERVER_Queues - FilterNFQ -> DownloadFiles.count: 8"));
  EXPECT_THAT(log, HasSubstr("\nServerFile: " + Path("Docs/new.txt") + " res: 8"));
  EXPECT_THAT(log, HasSubstr("\n********************NF_SQ***********************\n For site: Docs \n"));
  // Counts, not a line per listed path: the log of a pass stays small whatever the storage holds.
  EXPECT_THAT(log, HasSubstr("\nffc: 10 listed\n--------------------NF_SQ-----------------------\n"));
  EXPECT_THAT(log, Not(HasSubstr("ServerFile: " + Path("Docs/same.txt") + " ")));
}

TEST_F(FilterNFQTest, AfterTheFirstPassNoLocalScan) {
  WriteFile(Path("Docs/local-only.txt"), "new", 1800);
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  SaveRecords({Record("Docs/a.txt", 1, 1000)});
  List({Line(Path("Docs/a.txt"), 1, 1000)});

  Compare();
  EXPECT_THAT(Work(), ElementsAre("-1:Docs/a.txt", "0:Docs/local-only.txt"));
  queues.firstTimeSyncPerformed = true;
  Compare();
  EXPECT_THAT(Work(), ElementsAre("-1:Docs/a.txt"));
}

TEST_F(FilterNFQTest, NoListingMeansNothingIsDeleted) {
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  SaveRecords({Record("Docs/a.txt", 1, 1000)});

  // An empty list, nothing, a run that ended offline: all pass the storage over.
  queues.listing.files = std::vector<CVFileForCompare>{};
  Compare();
  EXPECT_TRUE(queues.siteOffline);
  queues.listing.files.reset();
  Compare();
  EXPECT_TRUE(queues.siteOffline);
  List({Line(Path("Docs/b.txt"), 1, 1000)});
  queues.listing.isSiteOffline = true;
  Compare();
  EXPECT_TRUE(queues.siteOffline);
  EXPECT_EQ(queues.listings, 3);
  {
    std::lock_guard<std::mutex> lock(queues.SQ_NFQ_Lock);
    EXPECT_THAT(queues.NFSQ_ServerQueue, IsEmpty());
  }
  EXPECT_THAT(MainLog(), HasSubstr("serverFiles == nil"));

  // A filter that finds its listing emptied under it makes no deletions either.
  List({Line(Path("Docs/b.txt"), 1, 1000)});
  queues.Fill_NFQ_ForStorage("Docs");
  ASSERT_FALSE(queues.siteOffline);
  queues.ClearServerQueues();
  queues.FilterNFQ("Docs");
  EXPECT_TRUE(queues.siteOffline);
  EXPECT_THAT(Work(), IsEmpty());

  queues.Fill_NFQ_ForStorage("Unknown");
  EXPECT_TRUE(queues.siteOffline);
  EXPECT_THAT(MainLog(), HasSubstr("Site == nil"));
  EXPECT_TRUE(std::filesystem::exists(Path("Docs/a.txt")));
}

TEST_F(FilterNFQTest, ABrokenRecordFileIsRebuiltFromWhatBothSidesHoldAlike) {
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  WriteFile(Path("Docs/b.txt"), "b", 1000);
  WriteFile(Path("Docs/c.txt"), "cc", 1000);
  WriteFile(Path("Docs/dir/d.txt"), "d", 1000);
  WriteFile(Path("Docs/e.txt"), "e", 1000);
  SaveRecords({Record("Docs/a.txt", 1, 1000), Record("Docs/b.txt", 1, 1000), Record("Docs/c.txt", 2, 1000)});
  const std::string file = home.settings() + "/DownloadedFiles.xml";
  // Cut in the middle of the second record: the first one still reads.
  std::string text = *CVStateXMLFile::ReadWholeFile(file);
  std::ofstream(file, std::ios::trunc) << text.substr(0, text.find("Docs/b.txt"));
  List({Line(Path("Docs/a.txt"), 1, 1000), Line(Path("Docs/b.txt"), 1, 1000), Line(Path("Docs/c.txt"), 3, 2000),
        Line(Path("Docs/dir"), 0, 0, true), Line(Path("Docs/dir/d.txt"), 1, 1000)});
  std::vector<std::string> notices;
  queues.SetNoticeHandler([&](const std::string& text) { notices.push_back(text); });
  queues.firstTimeSyncPerformed = true;

  // What is alike gets its record back; c.txt differs and is compared as on a
  // first sync, e.txt is found by the scan of a first sync.
  Compare();
  ASSERT_FALSE(queues.siteOffline);
  auto work = Work();
  ASSERT_EQ(work.size(), 7u);
  EXPECT_THAT(std::vector<std::string>(work.begin(), work.begin() + 5),
              ElementsAre("-1:Docs/a.txt", "-1:Docs/b.txt", "4:Docs/c.txt", "-1:Docs/dir", "-1:Docs/dir/d.txt"));
  EXPECT_EQ(std::set<std::string>(work.begin() + 5, work.end()),
            (std::set<std::string>{"0:Docs/c.txt", "0:Docs/e.txt"}));
  ServerXMLParser parser;
  auto records = parser.readDownloadedFiles();
  EXPECT_EQ(parser.lastRead(), StateFileRead::Whole);
  ASSERT_TRUE(records);
  std::set<std::string> recorded;
  for (const auto& record : *records) recorded.insert(record.localPath.substr(Root().size() + 1));
  EXPECT_EQ(recorded, (std::set<std::string>{"Docs/a.txt", "Docs/b.txt", "Docs/dir", "Docs/dir/d.txt"}));
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_THAT(notices[0], HasSubstr("DownloadedFiles.xml"));

  // Once rebuilt, the next pass compares as usual and says nothing.
  Compare();
  EXPECT_THAT(Work(), ElementsAre("-1:Docs/a.txt", "-1:Docs/b.txt", "4:Docs/c.txt", "-1:Docs/dir",
                                  "-1:Docs/dir/d.txt"));
  EXPECT_EQ(notices.size(), 1u);

  // A file that cannot be read at all is never written over: no comparison.
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  Compare();
  EXPECT_TRUE(queues.siteOffline);
  EXPECT_THAT(Work(), IsEmpty());
  EXPECT_THAT(MainLog(), HasSubstr("DownloadedFiles.xml is unreadable"));
}

TEST_F(FilterNFQTest, AnItemThatChangedItsKindGoesUpWithWhatItHoldsOrMakesRoom) {
  // Files that became folders and a folder that became a file, on this disk.
  WriteFile(Path("Docs/thing/mine.txt"), "m", 1000);
  WriteFile(Path("Docs/dir"), "now a file", 1000);
  WriteFile(Path("Docs/other/x.txt"), "x", 1000);
  SaveRecords({Record("Docs/thing", 5, 1000), Record("Docs/dir", 0, 0, true), Record("Docs/dir/a.txt", 1, 1000),
               Record("Docs/other", 5, 1000)});
  // The server still holds thing and dir as recorded; other changed there too.
  List({Line(Path("Docs/thing"), 5, 1000), Line(Path("Docs/dir"), 0, 0, true), Line(Path("Docs/dir/a.txt"), 1, 1000),
        Line(Path("Docs/other"), 9, 2000)});

  Compare();
  // The local folder goes up with what it holds, the local file replaces the
  // server's folder and its lines; other's server file takes the name, and the
  // download moves the local folder aside with what it holds: no first-scan
  // upload below it.
  EXPECT_THAT(Work(), ElementsAre("0:Docs/thing", "0:Docs/thing/mine.txt", "0:Docs/dir", "2:Docs/other"));
  EXPECT_TRUE(Item("Docs/thing")->isFolder);
  EXPECT_FALSE(Item("Docs/dir")->isFolder);
  EXPECT_FALSE(Item("Docs/other")->isFolder);
}

TEST_F(FilterNFQTest, SelectiveSyncLearnsTheListingAndForgetsWhatItLost) {
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName("Docs");
  site->addSyncItem(false, Path("Docs/old.txt"));
  site->addSyncRule(CVSelectiveSyncRule::syncAll, Path("Docs/old.txt"));
  site->addSyncItem(true, Path("Docs/keep"));
  List({Line(Path("Docs/keep"), 0, 0, true), Line(Path("Docs/keep/n.txt"), 1, 1000)});

  Compare();
  EXPECT_TRUE(site->ItemFoundForPath(Path("Docs/keep/n.txt")));
  EXPECT_TRUE(site->ItemFoundForPath(Path("Docs/keep")));
  EXPECT_FALSE(site->ItemFoundForPath(Path("Docs/old.txt")));
  std::vector<std::string> rules;
  for (const auto& rule : site->SyncRules()) rules.push_back(rule.ItemUrl);
  EXPECT_THAT(rules, ElementsAre("Docs")) << "the storage's own rule stays";
  EXPECT_THAT(Work(), ElementsAre("2:Docs/keep", "2:Docs/keep/n.txt"));
}

TEST_F(FilterNFQTest, ANewStorageWithItsOwnRuleSyncNoneFetchesNothing) {
  AddStorage("Fresh");
  CVSelectiveSync::Instance().GetSiteRulesByName("Fresh", true);
  List({Line(Path("Fresh/a.txt"), 1, 1000)});
  queues.firstTimeSyncPerformed = true;
  Compare("Fresh");
  EXPECT_FALSE(queues.siteOffline);
  EXPECT_THAT(Work(), IsEmpty());
}

TEST_F(FilterNFQTest, ItemsInStepGetTheirCloneAndNewOnesShowInWork) {
  IconOverlayInFinderStaticMethods::ResetForTests();
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  WriteFile(Path("Docs/b.txt"), "b", 1000);
  std::filesystem::create_directories(Path("Docs/dir"));
  WriteFile(Path("Docs/up.txt"), "u", 1000);
  SaveRecords({Record("Docs/a.txt", 1, 1000), Record("Docs/b.txt", 1, 1000), Record("Docs/dir", 0, 0, true)});
  List({Line(Path("Docs/a.txt"), 1, 1000), Line(Path("Docs/b.txt"), 1, 1000), Line(Path("Docs/dir"), 0, 0, true)});
  // b.txt already shows a state of its own, which stays.
  IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(Path("Docs/b.txt"), "2", false);
  const std::string hash = IconOverlayInFinderStaticMethods::ClonnedTreeRoot();

  Compare();
  EXPECT_THAT(Work(), ElementsAre("-1:Docs/a.txt", "-1:Docs/b.txt", "-1:Docs/dir", "0:Docs/up.txt"));
  EXPECT_EQ(*CVStateXMLFile::ReadWholeFile(hash + "/Docs/a.txt"), "");
  EXPECT_EQ(*CVStateXMLFile::ReadWholeFile(hash + "/Docs/b.txt"), "2");
  EXPECT_TRUE(std::filesystem::is_directory(hash + "/Docs/dir"));
  EXPECT_EQ(*CVStateXMLFile::ReadWholeFile(hash + "/Docs/up.txt"), "1");
  EXPECT_EQ(IconOverlayInFinderStaticMethods::TakePendingRedraws(),
            (std::set<std::string>{Path("Docs/a.txt"), Path("Docs/dir"), Path("Docs/up.txt")}));
}

// A local operation that starts while the comparison runs throws the queue away.
class ClearingQueues : public FakeListingQueues {
 protected:
  void MarkInStep(const std::string&, bool) override {
    if (clearDuringCompare) ClearServerQueues();
  }

 public:
  bool clearDuringCompare = false;
};

TEST_F(FilterNFQTest, AQueueThrownAwayDuringTheComparisonStaysEmpty) {
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  SaveRecords({Record("Docs/a.txt", 1, 1000)});
  ClearingQueues clearing;
  clearing.listing.files = std::vector<CVFileForCompare>{Line(Path("Docs/a.txt"), 1, 1000)};
  clearing.firstTimeSyncPerformed = true;
  clearing.Fill_NFQ_ForStorage("Docs");
  clearing.FilterNFQ("Docs");
  EXPECT_EQ(clearing.ServerQueueSize(), 1u);

  clearing.clearDuringCompare = true;
  clearing.Fill_NFQ_ForStorage("Docs");
  clearing.FilterNFQ("Docs");
  EXPECT_FALSE(clearing.siteOffline) << "the loop rebuilds the queue; the pass waits for it";
  EXPECT_EQ(clearing.ServerQueueSize(), 0u);
  EXPECT_THAT(MainLog(), HasSubstr("Server queue cleared during the comparison; 1 items dropped"));
}

TEST(FillStop, AStoppedLoopEndsTheListingBeforeTheServer) {
  TempHome home;
  auto site = std::make_shared<CVSharepoint>();
  site->Name = "Docs";
  site->Url = "%5C%5Cdevserver%5CDocs%5C";
  CVConfiguration::Instance().fSpSites.push_back(site);
  Clock clock;
  SERVER_Queues queues;
  queues.SetListingContext(&clock, [] { return true; });
  queues.Fill_NFQ_ForStorage("Docs");
  EXPECT_TRUE(queues.siteOffline);
  EXPECT_THAT(home.ReadLog("CVMainLogs"), HasSubstr("serverFiles == nil"));
}

}  // namespace

// How many of a storage's files one pass may delete before the user is asked.
TEST(MassDeletionGuardTest, AsksForAllFilesOrMoreThanHalfAndMoreThanAHundred) {
  struct Case {
    std::size_t deletions, files;
    bool asks;
  };
  for (const Case& c : {Case{0, 0, false}, Case{0, 5, false}, Case{1, 1, true}, Case{5, 5, true}, Case{4, 5, false},
                        Case{99, 100, false}, Case{100, 150, false}, Case{101, 150, true}, Case{101, 202, false},
                        Case{101, 201, true}, Case{1001, 2000, true}, Case{1000, 2000, false}}) {
    EXPECT_EQ(MassDeletionGuard::NeedsConfirmation(c.deletions, c.files), c.asks) << c.deletions << " of " << c.files;
  }
}

class HeldDeletionsTest : public FilterNFQTest {
 protected:
  // Every recorded file gone from the listing, one new there: the deletions are held, once told.
  void HoldEverything() {
    // Only this guard's: an earlier test's broken record file is told once more here.
    queues.SetNoticeHandler([this](const std::string& text) {
      if (text.find("no longer lists") != std::string::npos) notices.push_back(text);
    });
    WriteFile(Path("Docs/d/a.txt"), "a", 1000);
    WriteFile(Path("Docs/b.txt"), "b", 1000);
    SaveRecords({Record("Docs/d", 0, 0, true), Record("Docs/d/a.txt", 1, 1000), Record("Docs/b.txt", 1, 1000)});
    List({Line(Path("Docs/new.txt"), 1, 2000)});
    queues.firstTimeSyncPerformed = true;
    for (int pass = 0; pass < 2; ++pass) {
      Compare();
      EXPECT_THAT(Work(), ElementsAre("2:Docs/new.txt"));
    }
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_THAT(notices[0], HasSubstr("no longer lists 2 of its 2 files"));
    EXPECT_EQ(queues.deletionGuard.AllHeld().size(), 1u);
  }
  std::vector<std::string> notices;
};

TEST_F(HeldDeletionsTest, ConfirmingLetsTheNextComparisonDelete) {
  HoldEverything();
  EXPECT_EQ(queues.deletionGuard.Confirm("Docs"), 2u);
  EXPECT_EQ(queues.deletionGuard.Confirm("Docs"), 0u) << "nothing is held any more";
  Compare();
  EXPECT_THAT(Work(), ElementsAre("2:Docs/new.txt", "3:Docs/d", "3:Docs/d/a.txt", "3:Docs/b.txt"));
  EXPECT_THAT(queues.deletionGuard.AllHeld(), IsEmpty());
}

TEST_F(HeldDeletionsTest, DecliningPutsWhatIsStillHereBackOnTheServer) {
  HoldEverything();
  std::filesystem::remove(Path("Docs/b.txt"));
  EXPECT_EQ(queues.deletionGuard.Decline("Docs"), 2u);
  Compare();
  EXPECT_THAT(Work(), ElementsAre("2:Docs/new.txt", "3:Docs/b.txt", "0:Docs/d", "0:Docs/d/a.txt"));
}

TEST_F(FilterNFQTest, AFolderOfEverythingRenamedOnTheServerIsNoMassDeletion) {
  WriteFile(Path("Docs/old/a.txt"), "a", 1000);
  WriteFile(Path("Docs/old/b.txt"), "bb", 1100);
  SaveRecords({Record("Docs/old", 0, 0, true), Record("Docs/old/a.txt", 1, 1000), Record("Docs/old/b.txt", 2, 1100)});
  List({Line(Path("Docs/new"), 0, 0, true), Line(Path("Docs/new/a.txt"), 1, 1000), Line(Path("Docs/new/b.txt"), 2, 1100)});
  queues.firstTimeSyncPerformed = true;
  Compare();
  EXPECT_THAT(Work(), ElementsAre("2:Docs/new", "2:Docs/new/a.txt", "2:Docs/new/b.txt", "3:Docs/old/a.txt",
                                  "3:Docs/old/b.txt", "3:Docs/old"));
  EXPECT_THAT(queues.deletionGuard.AllHeld(), IsEmpty());
}
