// The local change filter on hand-made raw events, against a real record of the
// last sync and a real disk in a temporary home.

#include <atomic>

#include "CompareSupport.h"
#include "FSW_Queues.h"
#include "NewFilesParser.h"
#include "SyncCodes.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LocalQueueFilterTest : public CompareTest {
 protected:
  LocalQueueFilterTest() : queues(&restart) {}

  void Raw(const std::string& relative, std::int32_t code, bool folder = false, const std::string& to = "") {
    queues.AddFSWPath(Path(relative), folder, to.empty() ? "" : Path(to), code);
  }
  // The filtered queue as "code:path" or "2:old>new", paths below the root.
  std::vector<std::string> Queue() {
    std::vector<std::string> out;
    std::lock_guard<std::mutex> lock(queues.FSW_FQ_Lock);
    for (const auto& entry : queues.FQ_FilteredQueue) {
      std::string text = std::to_string(entry.fileAction) + ":";
      if (entry.fileAction == NFQ_Renamed) text += entry.oldFilePath.substr(Root().size() + 1) + ">";
      text += entry.nFilePath.substr(Root().size() + 1);
      if (entry.isFolder) text += "/";
      out.push_back(text);
    }
    return out;
  }

  std::atomic<bool> restart{false};
  FSW_Queues queues;
};

TEST_F(LocalQueueFilterTest, HiddenPartialAndStorageFoldersMakeNoEntry) {
  WriteFile(Path("Docs/.hidden"), "x", 1000);
  WriteFile(Path("Docs/.a.txt.cvtemp"), "x", 1000);
  WriteFile(Path("Docs/b.txt.cvtemp"), "x", 1000);
  WriteFile(Path("Docs/a.txt"), "x", 1000);
  Raw("Docs/.hidden", NFQ_Created);
  Raw("Docs/.a.txt.cvtemp", NFQ_Created);
  Raw("Docs/b.txt.cvtemp", NFQ_Modified);
  Raw("Docs", NFQ_Modified, true);
  Raw("Docs/a.txt", NFQ_Renamed, false, "Docs/.a.txt.swp");  // hidden target
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(LocalQueueFilterTest, CreatedOrModifiedIsDecidedByTheRecordAndKnownFilesOfTheRecordedSizeAndTimeDrop) {
  WriteFile(Path("Docs/new.txt"), "new", 1000);
  WriteFile(Path("Docs/same.txt"), "12345", 1000);
  WriteFile(Path("Docs/grown.txt"), "123456", 1000);
  WriteFile(Path("Docs/edited.txt"), "EDIT", 2000);  // same size, another time
  std::filesystem::create_directories(Path("Docs/known"));
  SaveRecords({Record("Docs/same.txt", 5, 1000), Record("Docs/grown.txt", 5, 1000),
               Record("Docs/edited.txt", 4, 1000), Record("Docs/known", 0, 0, true)});
  Raw("Docs/new.txt", NFQ_Modified);  // the event's own code does not count
  Raw("Docs/same.txt", NFQ_Modified);
  Raw("Docs/grown.txt", NFQ_Created);
  Raw("Docs/edited.txt", NFQ_Modified);
  Raw("Docs/known", NFQ_Modified, true);  // a known folder whose contents changed
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("0:Docs/new.txt", "3:Docs/grown.txt", "3:Docs/edited.txt"));
}

TEST_F(LocalQueueFilterTest, DeletionCancelsWhatWaitsAndRenamesChainInOrder) {
  Raw("Docs/tmp.txt", NFQ_Created);
  Raw("Docs/tmp.txt", NFQ_Deleted);
  Raw("Docs/a.txt", NFQ_Renamed, false, "Docs/b.txt");
  Raw("Docs/b.txt", NFQ_Renamed, false, "Docs/c.txt");
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("1:Docs/tmp.txt", "2:Docs/a.txt>Docs/b.txt", "2:Docs/b.txt>Docs/c.txt"));
}

TEST_F(LocalQueueFilterTest, NewTreeComesFolderFirstEachOnceWithWhatTheDiskHolds) {
  WriteFile(Path("Docs/x/y/z/deep.txt"), "d", 1000);
  WriteFile(Path("Docs/x/y/side.txt"), "s", 1000);  // no event came for this one
  Raw("Docs/x/y/z/deep.txt", NFQ_Created);
  Raw("Docs/x/y/z/deep.txt", NFQ_Modified);
  Raw("Docs/x", NFQ_Created, true);
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("0:Docs/x/", "0:Docs/x/y/", "0:Docs/x/y/z/", "0:Docs/x/y/z/deep.txt",
                                   "0:Docs/x/y/side.txt"));
}

TEST_F(LocalQueueFilterTest, NewFolderWithFilesHasNoDoublesWhenTheirEventsCameToo) {
  for (const char* name : {"a", "b", "c"}) WriteFile(Path(std::string("Docs/f/") + name), name, 1000);
  Raw("Docs/f", NFQ_Created, true);
  Raw("Docs/f/a", NFQ_Created);
  Raw("Docs/f/b", NFQ_Modified);
  Raw("Docs/f/c", NFQ_Created);
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("0:Docs/f/", "0:Docs/f/a", "0:Docs/f/b", "0:Docs/f/c"));
}

TEST_F(LocalQueueFilterTest, MoveBetweenStoragesIsADeleteAndACreate) {
  AddStorage("Docs2");
  WriteFile(Path("Docs2/moved.txt"), "m", 1000);
  SaveRecords({Record("Docs/moved.txt", 1, 1000)});
  Raw("Docs/moved.txt", NFQ_Renamed, false, "Docs2/moved.txt");
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("1:Docs/moved.txt", "0:Docs2/moved.txt"));
  // "Docs" is not a folder of "Docs2/...": one storage name prefixing another is no match.
  EXPECT_FALSE(FSW_Queues::IsSitesSame(Path("Docs/a"), Path("Docs2/a")));
  EXPECT_TRUE(FSW_Queues::IsSitesSame(Path("Docs/a"), Path("Docs/b/c")));
}

TEST_F(LocalQueueFilterTest, LaterFilterFoldsTheEarlierQueueAgain) {
  WriteFile(Path("Docs/up.txt"), "u", 1000);
  Raw("Docs/up.txt", NFQ_Created);
  queues.FilterCurrentQueue();
  ASSERT_THAT(Queue(), ElementsAre("0:Docs/up.txt"));

  std::filesystem::remove(Path("Docs/up.txt"));
  Raw("Docs/up.txt", NFQ_Deleted);
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("1:Docs/up.txt"));
}

TEST_F(LocalQueueFilterTest, UploadsWaitingInARenamedFolderFollowTheRename) {
  WriteFile(Path("Docs/new/a.txt"), "a", 1000);
  WriteFile(Path("Docs/new/b.txt"), "b", 1000);
  SaveRecords({Record("Docs/old", 0, 0, true), Record("Docs/old/b.txt", 0, 900)});
  Raw("Docs/old/a.txt", NFQ_Created);
  Raw("Docs/old/b.txt", NFQ_Modified);
  Raw("Docs/old", NFQ_Renamed, true, "Docs/new");
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("2:Docs/old>Docs/new/", "0:Docs/new/a.txt", "3:Docs/new/b.txt"));
}

TEST_F(LocalQueueFilterTest, EditorSavePatternsBecomeOneChangeOfTheFile) {
  // Rename the file away, write it anew, delete the renamed copy.
  WriteFile(Path("Docs/doc.txt"), "version two", 2000);
  SaveRecords({Record("Docs/doc.txt", 11, 1000)});
  Raw("Docs/doc.txt", NFQ_Renamed, false, "Docs/doc.txt~");
  Raw("Docs/doc.txt", NFQ_Created);
  Raw("Docs/doc.txt", NFQ_Modified);
  Raw("Docs/doc.txt~", NFQ_Deleted);
  queues.FilterCurrentQueue();
  EXPECT_THAT(Queue(), ElementsAre("3:Docs/doc.txt"));
}

TEST_F(LocalQueueFilterTest, EventsDuringAFilterStayForTheNextRound) {
  WriteFile(Path("Docs/first.txt"), "1", 1000);
  WriteFile(Path("Docs/late.txt"), "2", 1000);
  NFQ_File first;
  first.oldFilePath = Path("Docs/first.txt");
  first.fileAction = NFQ_Created;
  Raw("Docs/late.txt", NFQ_Created);  // arrives while the copy above is folded
  queues.FilterPaths(std::vector<NFQ_File>{first});
  EXPECT_TRUE(restart);
  EXPECT_EQ(queues.RawCount(), 1u);
  EXPECT_THAT(Queue(), ElementsAre("0:Docs/first.txt"));

  queues.FilterCurrentQueue();
  EXPECT_FALSE(restart);
  EXPECT_THAT(Queue(), ElementsAre("0:Docs/first.txt", "0:Docs/late.txt"));
}

TEST_F(LocalQueueFilterTest, QueueIsSavedAfterEveryFilterAndReadsBack) {
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  Raw("Docs/a.txt", NFQ_Created);
  Raw("Docs/gone.txt", NFQ_Deleted);
  Raw("Docs/r1", NFQ_Renamed, true, "Docs/r2");
  queues.FilterCurrentQueue();
  auto saved = NewFilesParser().readNewFiles();
  ASSERT_TRUE(saved.has_value());
  std::vector<std::string> read;
  for (const auto& entry : *saved) {
    read.push_back(std::to_string(entry.fileAction) + ":" + entry.oldFilePath + ">" + entry.nFilePath);
  }
  EXPECT_THAT(read, ElementsAre("0:>" + Path("Docs/a.txt"), "1:>" + Path("Docs/gone.txt"),
                                "2:" + Path("Docs/r1") + ">" + Path("Docs/r2")));
}

TEST_F(LocalQueueFilterTest, RenamedStorageReaimsBothQueues) {
  AddStorage("Docs2");
  WriteFile(Path("Docs/a.txt"), "a", 1000);
  Raw("Docs/a.txt", NFQ_Created);
  Raw("Docs2/keep.txt", NFQ_Deleted);
  queues.FilterCurrentQueue();
  Raw("Docs/b", NFQ_Renamed, false, "Docs/c");
  queues.FilterCurrentQueue();
  queues.RenameFilesInQueue("Docs", "Work");
  EXPECT_THAT(Queue(), ElementsAre("0:Work/a.txt", "1:Docs2/keep.txt", "2:Work/b>Work/c"));
}

}  // namespace
