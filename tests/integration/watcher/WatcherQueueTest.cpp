// File operations on a real disk, seen by the real inotify stream, folded by the
// local change filter: what reaches the queue of work for the server.

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include "InotifyEventStream.h"
#include "NewFilesParser.h"
#include "ServerXMLParser.h"
#include "SyncFixture.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

namespace {

class WatcherQueueTest : public SyncFixture {
 protected:
  WatcherQueueTest()
      : SyncFixture([this](AppDelegate::Dependencies& deps) {
          deps.makeEventStream = [this](FileEventStream::BatchCallback onBatch,
                                        FileEventStream::TroubleCallback onTrouble) {
            return std::make_unique<InotifyEventStream>(loop, std::move(onBatch), std::move(onTrouble),
                                                        [](const std::string&) {}, 50ms);
          };
        }) {
    AddStorage("Docs");
    AddStorage("Team");
    app->CreateSyncEngine();
    // No operation takes the entries: the test reads the queue as the filter leaves it.
    app->mainSyncObject()->StopMainSyncThread();
  }
  // From here on the stream sees the storages; what the test laid out before is old.
  void Watch() {
    app->StartFSWsForCorvalink();
  }
  ~WatcherQueueTest() override { app->StopFSWsForStorages(); }

  std::string Path(const std::string& relative) const { return home.root() + "/" + relative; }
  void Write(const std::string& relative, const std::string& content) {
    fs::create_directories(fs::path(Path(relative)).parent_path());
    std::ofstream(Path(relative), std::ios::binary | std::ios::trunc) << content;
  }
  // Records of the last sync for files as they stand now: known to the server.
  void Known(const std::vector<std::string>& relatives) {
    std::vector<CVFileForCompare> records;
    for (const auto& relative : relatives) {
      // As a download leaves it: the server's time, long before any edit.
      struct timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
      ASSERT_EQ(::utimensat(AT_FDCWD, Path(relative).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
      CVFileForCompare record = CVFileForCompareMethods::ReadEntry(Path(relative), Path(relative));
      record.localPath = Path(relative);
      record.site = ServerXMLParser::SiteForLocalPath(record.localPath);
      records.push_back(record);
    }
    ASSERT_TRUE(ServerXMLParser::saveDownloadedXML(records));
  }
  // Waits until the stream has been quiet for a while, then runs the filter as
  // the 5-second tick does once 5 quiet seconds have passed.
  void Filter() {
    std::size_t seen = SIZE_MAX;
    auto quietSince = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - quietSince < 300ms) {
      std::size_t now = app->mainSyncObject()->fswQueue().RawCount();
      if (now != seen) {
        seen = now;
        quietSince = std::chrono::steady_clock::now();
      }
      std::this_thread::sleep_for(10ms);
    }
    clock.Sleep(5s);
    app->FSWTimerSeparatedThread();
  }
  // The filtered queue as "code:path" or "2:old>new", paths below the root.
  std::vector<std::string> Queue() {
    std::vector<std::string> out;
    FSW_Queues& fsw = app->mainSyncObject()->fswQueue();
    std::lock_guard<std::mutex> lock(fsw.FSW_FQ_Lock);
    for (const auto& entry : fsw.FQ_FilteredQueue) {
      std::string text = std::to_string(entry.fileAction) + ":";
      if (entry.fileAction == NFQ_Renamed) text += entry.oldFilePath.substr(home.root().size() + 1) + ">";
      text += entry.nFilePath.substr(home.root().size() + 1);
      if (entry.isFolder) text += "/";
      out.push_back(text);
    }
    return out;
  }

};

TEST_F(WatcherQueueTest, CreateWriteRenameAndDeleteGiveTheQueueTheRulesSay) {
  Write("Docs/keep.txt", "kept");
  Write("Docs/old name.txt", "renamed on the server");
  Write("Docs/a/moving.txt", "moves to b");
  fs::create_directories(Path("Docs/b"));
  Write("Docs/gone.txt", "deleted");
  Known({"Docs/keep.txt", "Docs/old name.txt", "Docs/a", "Docs/a/moving.txt", "Docs/b", "Docs/gone.txt"});
  Watch();

  Write("Docs/new.txt", "a new file");
  fs::rename(Path("Docs/old name.txt"), Path("Docs/new name.txt"));
  fs::rename(Path("Docs/a/moving.txt"), Path("Docs/b/moving.txt"));
  fs::remove(Path("Docs/gone.txt"));
  Write("Docs/.hidden", "never synced");
  Write("Docs/.x.cvtemp", "a partial download");
  Filter();
  EXPECT_THAT(Queue(), ElementsAre("0:Docs/new.txt", "2:Docs/old name.txt>Docs/new name.txt",
                                   "2:Docs/a/moving.txt>Docs/b/moving.txt", "1:Docs/gone.txt"));

  // Saved as it stands, for a restart.
  auto saved = NewFilesParser().readNewFiles();
  ASSERT_TRUE(saved.has_value());
  EXPECT_EQ(saved->size(), 4u);
}

TEST_F(WatcherQueueTest, TreeCopiedInAtOnceLosesNothing) {
  // Made outside the storage, then moved in whole, and a second one copied in.
  Watch();
  fs::path outside = fs::path(home.path()) / "outside";
  for (int i = 0; i < 60; ++i) {
    fs::create_directories(outside / "tree" / ("d" + std::to_string(i % 3)) / "deep");
    std::ofstream(outside / "tree" / ("d" + std::to_string(i % 3)) / "deep" / ("f" + std::to_string(i))) << i;
  }
  fs::copy(outside / "tree", Path("Docs/copied"), fs::copy_options::recursive);
  fs::rename(outside / "tree", Path("Docs/moved"));
  Filter();
  std::vector<std::string> queue = Queue();
  for (const char* top : {"Docs/copied", "Docs/moved"}) {
    auto at = [&](const std::string& entry) { return std::find(queue.begin(), queue.end(), entry) - queue.begin(); };
    ASSERT_LT(at(std::string("0:") + top + "/"), static_cast<long>(queue.size())) << top;
    for (int i = 0; i < 60; ++i) {
      std::string folder = std::string("0:") + top + "/d" + std::to_string(i % 3) + "/";
      std::string file = std::string("0:") + top + "/d" + std::to_string(i % 3) + "/deep/f" + std::to_string(i);
      EXPECT_EQ(std::count(queue.begin(), queue.end(), file), 1) << file;
      EXPECT_LT(at(std::string("0:") + top + "/"), at(folder));
      EXPECT_LT(at(folder), at(file));
    }
  }
  EXPECT_EQ(queue.size(), 2u * (1 + 3 + 3 + 60));
}

TEST_F(WatcherQueueTest, MovesBetweenStoragesAndRenamedFoldersWithPendingFiles) {
  Write("Docs/report.txt", "moves to Team");
  Known({"Docs/report.txt"});
  Watch();
  fs::rename(Path("Docs/report.txt"), Path("Team/report.txt"));
  Write("Docs/project/plan.txt", "pending");
  Filter();
  ASSERT_THAT(Queue(), ElementsAre("1:Docs/report.txt", "0:Team/report.txt", "0:Docs/project/",
                                   "0:Docs/project/plan.txt"));

  // The folder is renamed before its upload: the upload follows under the new name.
  fs::rename(Path("Docs/project"), Path("Docs/project 2026"));
  Filter();
  EXPECT_THAT(Queue(), ElementsAre("1:Docs/report.txt", "0:Team/report.txt", "0:Docs/project/",
                                   "2:Docs/project>Docs/project 2026/", "0:Docs/project 2026/plan.txt"));
}

TEST_F(WatcherQueueTest, EditorsSavesAreOneChangeOfTheDocument) {
  Write("Docs/swap.txt", "v1");
  Write("Docs/backup.txt", "v1");
  Write("Docs/rewrite.txt", "version 1");
  Known({"Docs/swap.txt", "Docs/backup.txt", "Docs/rewrite.txt"});
  Watch();

  // A hidden temporary file renamed over the document.
  Write("Docs/.swap.txt.tmp-1234", "version 2");
  fs::rename(Path("Docs/.swap.txt.tmp-1234"), Path("Docs/swap.txt"));
  // The document renamed to a backup, written anew, the backup deleted.
  fs::rename(Path("Docs/backup.txt"), Path("Docs/backup.txt~"));
  Write("Docs/backup.txt", "version 2");
  fs::remove(Path("Docs/backup.txt~"));
  // Truncated and written again in place.
  Write("Docs/rewrite.txt", "version 2");
  Filter();
  EXPECT_THAT(Queue(), ElementsAre("3:Docs/swap.txt", "3:Docs/backup.txt", "3:Docs/rewrite.txt"));
}

TEST_F(WatcherQueueTest, TheSyncsOwnDownloadsMakeNoEntry) {
  Watch();
  // As a download does it: the folder, a hidden partial file, the move into place.
  for (const char* path : {"Docs/down", "Docs/down/a.txt", "Docs/down/.a.txt.cvtemp"}) app->AddFileInProgress(Path(path));
  fs::create_directories(Path("Docs/down"));
  Write("Docs/down/.a.txt.cvtemp", "downloaded");
  fs::rename(Path("Docs/down/.a.txt.cvtemp"), Path("Docs/down/a.txt"));
  Known({"Docs/down", "Docs/down/a.txt"});
  Filter();
  app->ReleaseFilesInProgress();
  EXPECT_THAT(Queue(), IsEmpty());
  EXPECT_FALSE(app->fswEventsHappened);
}

}  // namespace
