#include <fstream>

#include "CVEventLogger.h"
#include "SyncFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class AppDelegateTest : public SyncFixture {
 protected:
  void Online() {
    app->CreateSyncEngine();
    ASSERT_TRUE(app->CheckCVConnection());
  }
};

TEST_F(AppDelegateTest, PassWithNoStoragesStillRecordsLastSync) {
  Online();
  CVConfiguration::Instance().Corvalink.LastSync = 0;
  std::vector<AppDelegate::PassOutcome> outcomes;
  app->SetPassFinishedHandler([&](AppDelegate::PassOutcome o) { outcomes.push_back(o); });
  RunPass();
  Drain();
  EXPECT_GT(CVConfiguration::Instance().Corvalink.LastSync, 0);
  EXPECT_THAT(outcomes, ElementsAre(AppDelegate::PassOutcome::InStep));
  EXPECT_EQ(status.icons().back(), 2);
  EXPECT_EQ(status.tooltips().back().rfind("Last synchronization: ", 0), 0u);
  EXPECT_EQ(status.syncNowTitle().rfind("Sync now (last update at ", 0), 0u);
  EXPECT_TRUE(sync().serverQueue().firstTimeSyncPerformed);
  EXPECT_FALSE(app->isSyncRunning);
}

TEST_F(AppDelegateTest, StoragesAreDueByTheirLastStartAndTheInterval) {
  Online();
  AddStorage("Docs");
  AddStorage("Team");
  auto& config = CVConfiguration::Instance();
  config.Corvalink.SyncCV = 5;  // 300 s, 0.3 s on this clock
  RunPass();
  EXPECT_THAT(server->Fills(), ElementsAre("Docs", "Team"));  // due at the first pass
  RunPass();
  EXPECT_EQ(server->Fills().size(), 2u);  // nothing is due again yet

  app->ResetSyncTime();  // "Sync now": all due
  RunPass();
  EXPECT_EQ(server->Fills().size(), 4u);

  config.Corvalink.SyncCV = 0;  // 0 minutes: due at every tick
  RunPass();
  RunPass();
  EXPECT_EQ(server->Fills().size(), 8u);

  config.Corvalink.SyncCV = 5;
  app->ResetSyncTime2();  // none due, yet the pass still records LastSync
  config.Corvalink.LastSync = 0;
  RunPass();
  EXPECT_EQ(server->Fills().size(), 8u);
  EXPECT_GT(config.Corvalink.LastSync, 0);
}

TEST_F(AppDelegateTest, PassWaitsForTheLoopToWorkTheStorageQueue) {
  Online();
  AddStorage("Docs");
  AddStorage("Empty");
  server->listings["Docs"] = {ServerItem("/d/1"), ServerItem("/d/2"), ServerItem("/d/3")};
  RunPass();  // returns only when the loop has emptied the queue of Docs
  EXPECT_THAT(dispatcher.Done(), ElementsAre("S:/d/1", "S:/d/2", "S:/d/3"));
  EXPECT_THAT(server->Fills(), ElementsAre("Docs", "Empty"));
  EXPECT_FALSE(sync().sqInProcess);
  EXPECT_EQ(sync().CurrentStorageName(), "");
  EXPECT_NE(home.ReadLog("CVMainLogs").find("WaitForSQProcessEnding method FINISHED"), std::string::npos);
}

TEST_F(AppDelegateTest, LocalItemDuringAPassMakesTheLoopRebuildThatStorage) {
  Online();
  AddStorage("Docs");
  server->listings["Docs"] = {ServerItem("/d/1"), ServerItem("/d/2")};
  bool added = false;
  dispatcher.hook = [&](SmartSync& s, CVFileWithAction& item) {
    if (item.nFilePath == "/d/1" && !added) {
      added = true;
      std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
      s.fswQueue().FQ_FilteredQueue.push_back(LocalEntry("/local"));
      s.fswQueueIndex = 0;
    }
  };
  RunPass();
  // The local item came before /d/2 and threw the queue away; the loop rebuilt
  // the queue of Docs and worked it through before the pass was released.
  EXPECT_THAT(dispatcher.Done(), ElementsAre("S:/d/1", "L:/local", "S:/d/1", "S:/d/2"));
  EXPECT_THAT(server->Fills(), ElementsAre("Docs", "Docs"));
  EXPECT_NE(home.ReadLog("CVMainLogs").find("SERVER QUEUE REFILLING STARTED"), std::string::npos);
}

TEST_F(AppDelegateTest, PassDoesNothingWhileTheLocalQueueIsNotThrough) {
  Online();
  AddStorage("Docs");
  sync().StopMainSyncThread();
  AddLocal(LocalEntry("/pending"));
  RunPass();
  EXPECT_TRUE(server->Fills().empty());
  EXPECT_FALSE(sync().serverQueue().firstTimeSyncPerformed);
  EXPECT_FALSE(app->isSyncRunning);

  app->syncWasPaused = true;  // paused: no pass either
  {
    std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_FQ_Lock);
    sync().fswQueue().FQ_FilteredQueue.clear();
  }
  RunPass();
  EXPECT_TRUE(server->Fills().empty());
}

TEST_F(AppDelegateTest, OfflineStorageIsPassedOverWithoutErrors) {
  Online();
  AddStorage("Gone");  // no listing: siteOffline
  AddStorage("Docs");
  server->listings["Docs"] = {ServerItem("/d/1")};
  RunPass();
  EXPECT_THAT(dispatcher.Done(), ElementsAre("S:/d/1"));
  EXPECT_EQ(status.icons().back(), 2);
}

TEST_F(AppDelegateTest, OfflineIsToldOnceAndTheFirstGoodProbeBringsItBack) {
  app->CreateSyncEngine();
  connection.SetOnline(false);
  std::vector<AppDelegate::PassOutcome> outcomes;
  app->SetPassFinishedHandler([&](AppDelegate::PassOutcome o) { outcomes.push_back(o); });
  app->isAppOffline = false;  // as if the last probe had succeeded
  for (int i = 0; i < 3; ++i) RunPass();
  Drain();
  EXPECT_EQ(status.notifications().size(), 1u);
  EXPECT_EQ(status.notifications()[0].first, "Synchronization error");
  EXPECT_EQ(status.tooltips().back(),
            "Corvalink offline. Please check network connection or Corvalink credentials.");
  EXPECT_EQ(status.icons().back(), 4);
  EXPECT_EQ(outcomes.size(), 3u);
  EXPECT_TRUE(app->isAppOffline);

  connection.SetOnline(true);
  RunPass();
  Drain();
  EXPECT_FALSE(app->isAppOffline);
  EXPECT_EQ(status.notifications().size(), 1u);
  EXPECT_EQ(outcomes.back(), AppDelegate::PassOutcome::InStep);
}

TEST_F(AppDelegateTest, ProbeRetriesOnceWithANewLoginAfterABadStatus) {
  connection.statuses = {"-1;Invalid token", "1;A"};
  EXPECT_TRUE(app->CheckCVConnection());
  EXPECT_EQ(connection.tokenRemovals, 1);
  EXPECT_EQ(connection.statusRequests, 2);

  connection.statuses = {"0;B"};  // blocked device: two attempts, then offline
  app->isAppOffline = false;
  EXPECT_FALSE(app->CheckCVConnection());
  EXPECT_EQ(connection.statusRequests, 4);
  EXPECT_TRUE(app->isAppOffline);
  EXPECT_FALSE(app->isCheckingConnection);
}

TEST_F(AppDelegateTest, OfflineTickProbesEvenWhenThePassCannotStart) {
  app->CreateSyncEngine();
  AddLocal(LocalEntry("/held"));  // the loop is held offline, so the queue is not through
  connection.SetOnline(true);
  RunPass();
  EXPECT_FALSE(app->isAppOffline);
  EXPECT_EQ(connection.statusRequests, 1);
}

TEST_F(AppDelegateTest, StoredVersionIsReadWithoutTheNetwork) {
  EXPECT_EQ(app->GetWebServiceVersion(false), "");
  EXPECT_EQ(connection.versionRequests, 0);
  EXPECT_EQ(connection.tokenRequests, 0);
  EXPECT_EQ(app->GetWebServiceVersion(true), "6.1.0.0");
  EXPECT_EQ(app->GetWebServiceVersion(false), "6.1.0.0");
  EXPECT_EQ(connection.versionRequests, 1);
}

TEST_F(AppDelegateTest, PauseHoldsAndResumeStartsAPassOfEveryStorage) {
  Online();
  AddStorage("Docs");
  app->pauseSync();
  Drain();
  EXPECT_TRUE(app->syncWasPaused);
  EXPECT_EQ(status.tooltips().back(), "Corvalink Sync. Synchronization paused.");
  EXPECT_EQ(status.notifications().back().second, "Synchronization paused");
  RunPass();
  EXPECT_TRUE(server->Fills().empty());

  app->pauseSync();  // resume: every storage due, a pass starts
  EXPECT_TRUE(WaitUntil([&] { return server->Fills().size() == 1; }));
  EXPECT_FALSE(app->syncWasPaused);
}

TEST_F(AppDelegateTest, SettingsChangeStopsAndRestartsTheLoop) {
  Online();
  bool loopStoppedDuringChange = false;
  app->ApplySettings([&] {
    loopStoppedDuringChange = !sync().mainLoopIsRunning && app->isSettingsApplying;
    AddStorage("Added");
  });
  EXPECT_TRUE(loopStoppedDuringChange);
  EXPECT_FALSE(app->isSettingsApplying);
  EXPECT_TRUE(WaitUntil([&] { return sync().mainLoopIsRunning.load(); }));
}

TEST_F(AppDelegateTest, FilterTickWaitsForFiveQuietSeconds) {
  app->CreateSyncEngine();
  SmartSync& s = sync();
  AddLocal(LocalEntry("/a"));
  {
    std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
    s.fswQueueIndex = 2;
  }
  app->NoteFSWEvent();
  app->FSWTimerSeparatedThread();  // not quiet yet
  EXPECT_TRUE(app->fswEventsHappened);
  clock.Sleep(5s);
  app->FSWTimerSeparatedThread();
  EXPECT_FALSE(app->fswEventsHappened);
  EXPECT_FALSE(s.fswQueueInProcess);
  std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
  EXPECT_EQ(s.fswQueueIndex, 0);  // the loop goes over the queue from its front
}

// The events callback: batches as the stream delivers them, judged by the disk.
class WatcherCallbackTest : public AppDelegateTest {
 protected:
  WatcherCallbackTest() {
    AddStorage("Docs");
    app->CreateSyncEngine();
  }
  std::string Path(const std::string& relative) { return home.root() + "/Docs/" + relative; }
  void Touch(const std::string& relative) {
    std::filesystem::create_directories(std::filesystem::path(Path(relative)).parent_path());
    std::ofstream(Path(relative)) << "x";
  }
  static FileEvent Event(std::string path, std::uint32_t flags, std::uint64_t id) {
    return FileEvent{std::move(path), flags, id};
  }
  // The raw queue as "code:path>target".
  std::vector<std::string> Raw() {
    std::vector<std::string> out;
    std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_NFQ_Lock);
    for (const auto& entry : sync().fswQueue().NF_Queue) {
      std::string text = std::to_string(entry.fileAction) + ":" + entry.oldFilePath.substr(home.root().size() + 6);
      if (!entry.nFilePath.empty()) text += ">" + entry.nFilePath.substr(home.root().size() + 6);
      out.push_back(text);
    }
    return out;
  }
};

TEST_F(WatcherCallbackTest, RenamePairsOnlyByNeighbourIdsAndHiddenNamesFollowTheSaveRules) {
  using namespace fileevents;
  Touch("b.txt");
  Touch("doc.txt");
  Touch("moved.txt");
  app->FSWEventsCallback({
      Event(Path("a.txt"), kRenamed, 10), Event(Path("b.txt"), kRenamed, 11),       // a pair
      Event(Path("c.txt"), kRenamed, 20), Event(Path("moved.txt"), kRenamed, 22),  // two lone halves
      Event(Path("d.txt"), kRenamed, 30), Event(Path(".d.txt.swp"), kRenamed, 31), // hidden target
      Event(Path(".goutputstream-X1"), kRenamed, 40), Event(Path("doc.txt"), kRenamed, 41),  // editor save
      Event(Path(".DS_Store"), kModified, 50),
  });
  EXPECT_THAT(Raw(), ElementsAre("2:a.txt>b.txt", "1:c.txt", "3:moved.txt", "1:d.txt", "3:doc.txt"));
  // A lone renamed event is never a pair, even in a batch of its own.
  app->FSWEventsCallback({Event(Path("moved.txt"), kRenamed, 60)});
  EXPECT_EQ(Raw().back(), "3:moved.txt");
  EXPECT_TRUE(app->fswEventsHappened);
}

TEST_F(WatcherCallbackTest, FlagsSayWhatHappenedAndTheDiskWhatStandsNow) {
  using namespace fileevents;
  Touch("here.txt");
  app->FSWEventsCallback({
      Event(Path("here.txt"), kCreated, 1),
      Event(Path("gone.txt"), kCreated, 3),              // created and gone already: dropped
      Event(Path("gone.txt"), kCreated | kModified, 5),  // with the modified flag: a change
      Event(Path("gone.txt"), kCreated | kRemoved, 7),   // created and removed, gone: removed
      Event(Path("here.txt"), kRemoved, 9),              // removed, but something stands there
      Event(Path("dir"), kRemoved | kIsDir, 11),
  });
  EXPECT_THAT(Raw(), ElementsAre("0:here.txt", "3:gone.txt", "1:gone.txt", "1:dir"));
  std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_NFQ_Lock);
  EXPECT_TRUE(sync().fswQueue().NF_Queue.back().isFolder);
}

TEST_F(WatcherCallbackTest, TheSyncsOwnWritesMakeNoEntryForAWhileAfterTheOperation) {
  using namespace fileevents;
  Touch("down.txt");
  app->AddFileInProgress(Path("down.txt"));
  app->FSWEventsCallback({Event(Path(".down.txt.cvtemp"), kRenamed, 1), Event(Path("down.txt"), kRenamed, 2)});
  app->FSWEventsCallback({Event(Path("down.txt"), kModified, 5)});
  EXPECT_THAT(Raw(), IsEmpty());
  EXPECT_FALSE(app->fswEventsHappened);

  // Late events of a finished operation still count as its own.
  app->ReleaseFilesInProgress();
  EXPECT_TRUE(app->IsFileInProgress(Path("down.txt")));
  app->FSWEventsCallback({Event(Path("down.txt"), kModified, 7)});
  EXPECT_THAT(Raw(), IsEmpty());
  // A rename of what the sync is still writing: the new name is the user's.
  Touch("renamed by the user.txt");
  app->AddFileInProgress(Path("fresh.txt"));
  app->FSWEventsCallback({Event(Path("fresh.txt"), kRenamed, 3), Event(Path("renamed by the user.txt"), kRenamed, 4)});
  EXPECT_THAT(Raw(), ElementsAre("0:renamed by the user.txt"));
  app->RemoveFileInProgress(Path("fresh.txt"));
  { std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_NFQ_Lock); sync().fswQueue().NF_Queue.clear(); }
  // ...but not once the user has changed the file since.
  std::ofstream(Path("down.txt"), std::ios::app) << "more";
  app->FSWEventsCallback({Event(Path("down.txt"), kModified, 9)});
  EXPECT_THAT(Raw(), ElementsAre("3:down.txt"));
}

class FakeEventStream : public FileEventStream {
 public:
  explicit FakeEventStream(std::vector<std::vector<std::string>>& starts) : starts_(starts) {}
  bool Start(const std::vector<std::string>& folders) override {
    starts_.push_back(folders);
    running_ = true;
    return true;
  }
  void Stop() override { running_ = false; }
  bool IsRunning() const override { return running_; }

 private:
  std::vector<std::vector<std::string>>& starts_;
  bool running_ = false;
};

TEST_F(AppDelegateTest, WatcherCoversEveryStorageFolderAndNoneWithoutStorages) {
  std::vector<std::vector<std::string>> starts;
  int made = 0;
  AppDelegate::Dependencies deps{clock, loop, status, connection, &dispatcher, "9.9.9", nullptr, nullptr, nullptr, nullptr};
  deps.makeEventStream = [&](FileEventStream::BatchCallback, FileEventStream::TroubleCallback) {
    ++made;
    return std::make_unique<FakeEventStream>(starts);
  };
  AppDelegate watched(std::move(deps));
  watched.StartFSWsForCorvalink();
  EXPECT_EQ(made, 0);
  watched.StopFSWsForStorages();

  AddStorage("Docs");
  AddStorage("Team");
  watched.StartFSWsForCorvalink();
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_THAT(starts[0], ElementsAre(home.root() + "/Docs", home.root() + "/Team"));
  EXPECT_TRUE(std::filesystem::is_directory(home.root() + "/Team"));  // made when missing
  watched.StopFSWsForStorages();
}
