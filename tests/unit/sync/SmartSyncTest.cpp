#include <sys/stat.h>

#include <fstream>

#include "CVEventLogger.h"
#include "SyncFixture.h"

using ::testing::ElementsAre;

class SmartSyncTest : public SyncFixture {};

TEST_F(SmartSyncTest, LocalEntriesGoFirstAndThrowTheServerQueueAway) {
  app->isAppOffline = false;
  app->CreateSyncEngine();
  SmartSync& s = sync();
  // Hold the loop inside an item while both queues are filled, so the order that
  // follows is the loop's own.
  dispatcher.holdPath = "/gate";
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/gate")};
  }
  ASSERT_TRUE(dispatcher.WaitHeld());
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/s1"), ServerItem("/s2")};
  }
  AddLocal(LocalEntry("/l1"));
  AddLocal(LocalEntry("/l2"));
  {
    std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
    s.fswQueueIndex = 0;  // as the filter does after it has rebuilt the queue
  }
  dispatcher.StopCurrentAction();  // lets the held item end

  ASSERT_TRUE(WaitUntil([&] { return dispatcher.Done().size() == 3 && !s.queuesNotEmpty; }))
      << ::testing::PrintToString(dispatcher.Done());
  EXPECT_THAT(dispatcher.Done(), ElementsAre("S:/gate", "L:/l1", "L:/l2"));
  // The local operation emptied the server queue: it is rebuilt later, not worked.
  EXPECT_EQ(s.serverQueue().ServerQueueSize(), 0u);
  EXPECT_NE(home.ReadLog("CVMainLogs").find("SERVER QUEUE CLEARED"), std::string::npos);
  EXPECT_EQ(s.fswQueue().FilteredCount(), 0u);
  std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
  EXPECT_EQ(s.fswQueueIndex, 1);  // size 0, index at rest on size + 1
}

TEST_F(SmartSyncTest, IndexComesToRestAtSizePlusOneAndFailedEntriesStay) {
  app->CreateSyncEngine();
  SmartSync& s = sync();
  s.StopMainSyncThread();
  AddLocal(LocalEntry("/a"));
  AddLocal(LocalEntry("/b"));
  auto endItem = [&] {
    std::lock_guard<std::mutex> lock(s.Sync_Lock);
    s.fswOperationInProcess = false;  // as the end of an item does
  };

  auto first = s.GetNextFileForProcessing();
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->isFSWAction);
  EXPECT_EQ(first->nFilePath, "/a");
  EXPECT_EQ(first->attemptsCount, 1);
  endItem();
  s.RemoveFileFromFSWArrayQueue();  // done: the index goes back onto /b

  auto second = s.GetNextFileForProcessing();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->nFilePath, "/b");
  endItem();  // failed: /b stays behind the index

  EXPECT_FALSE(s.GetNextFileForProcessing());
  EXPECT_FALSE(s.GetNextFileForProcessing());
  std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
  EXPECT_EQ(s.fswQueueIndex, 2);  // size 1, at rest on size + 1
  ASSERT_EQ(s.fswQueue().FQ_FilteredQueue.size(), 1u);
  EXPECT_EQ(s.fswQueue().FQ_FilteredQueue[0].nFilePath, "/b");
  EXPECT_EQ(s.fswQueue().FQ_FilteredQueue[0].attemptCount, 1);
}

TEST_F(SmartSyncTest, NoLocalItemWhileTheFilterRunsButServerItemsStillCome) {
  app->CreateSyncEngine();
  SmartSync& s = sync();
  s.StopMainSyncThread();
  AddLocal(LocalEntry("/local"));
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/remote")};
  }
  s.fswQueueInProcess = true;
  auto item = s.GetNextFileForProcessing();
  ASSERT_TRUE(item);
  EXPECT_FALSE(item->isFSWAction);
  EXPECT_EQ(item->nFilePath, "/remote");
  EXPECT_EQ(s.serverQueue().ServerQueueSize(), 0u);  // a server item leaves when taken
  std::lock_guard<std::mutex> lock(s.fswQueue().FSW_FQ_Lock);
  EXPECT_EQ(s.fswQueueIndex, 0);
}

TEST_F(SmartSyncTest, RawEventsOfflineAndPauseHoldTheLoop) {
  app->CreateSyncEngine();
  SmartSync& s = sync();
  AddLocal(LocalEntry("/waiting"));
  s.fswQueue().AddFSWPath("/raw", false, "", NFQ_Created);  // offline at start, too
  clock.Sleep(std::chrono::seconds(5));
  app->isAppOffline = false;
  clock.Sleep(std::chrono::seconds(5));
  EXPECT_TRUE(dispatcher.Done().empty());

  {
    std::lock_guard<std::mutex> lock(s.fswQueue().FSW_NFQ_Lock);
    s.fswQueue().NF_Queue.clear();
  }
  app->syncWasPaused = true;
  clock.Sleep(std::chrono::seconds(5));
  EXPECT_TRUE(dispatcher.Done().empty());
  app->syncWasPaused = false;
  EXPECT_TRUE(WaitUntil([&] { return dispatcher.Done().size() == 1; }));
}

TEST_F(SmartSyncTest, SecondLoopThreadLeavesAtOnceAndRunSyncThreadKeepsTheQueue) {
  app->CreateSyncEngine();
  SmartSync& s = sync();
  ASSERT_TRUE(WaitUntil([&] { return s.mainLoopIsRunning.load(); }));
  EXPECT_EQ(s.syncThreadsNumber, 1);
  std::thread second([&] { s.Sync(); });
  second.join();  // returns at once, or this test would hang
  EXPECT_EQ(s.syncThreadsNumber, 1);

  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/kept")};  // offline: the loop does not take it
  }
  s.RunSyncThread();
  EXPECT_EQ(s.serverQueue().ServerQueueSize(), 1u);
}

TEST_F(SmartSyncTest, StopEndsTheRunningOperationAndTheLoop) {
  app->isAppOffline = false;
  app->CreateSyncEngine();
  SmartSync& s = sync();
  dispatcher.holdPath = "/slow";
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/slow"), ServerItem("/next")};
  }
  ASSERT_TRUE(dispatcher.WaitHeld());
  EXPECT_EQ(s.currentAction, FWA_DownloadFromServer);
  s.StopMainSyncThread();  // asks the download to stop, then waits for the loop
  EXPECT_FALSE(s.mainLoopIsRunning);
  EXPECT_EQ(s.serverQueue().ServerQueueSize(), 0u);
  EXPECT_THAT(dispatcher.Done(), ElementsAre("S:/slow"));

  // With no loop running, a stop leaves the server queue alone.
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/stays")};
  }
  s.StopMainSyncThread();
  EXPECT_EQ(s.serverQueue().ServerQueueSize(), 1u);

  s.RunSyncThread();  // the same object starts again, with an empty server queue
  EXPECT_EQ(s.serverQueue().ServerQueueSize(), 0u);
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/after")};
  }
  EXPECT_TRUE(WaitUntil([&] { return dispatcher.Done().size() == 2; }));
  EXPECT_EQ(dispatcher.Done().back(), "S:/after");
}

TEST_F(SmartSyncTest, RunTellsItsStateAndAnItemOfNoActionStillCounts) {
  app->isAppOffline = false;
  const std::int64_t lastSync = 1'700'000'000;
  CVConfiguration::Instance().Corvalink.LastSync = lastSync;
  app->CreateSyncEngine();
  SmartSync& s = sync();
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/same", FWA_Nothing), ServerItem("/new")};
  }
  // The end of the run is told last by the "last update" text; what was posted before it has run after Drain.
  ASSERT_TRUE(WaitUntil([&] {
    return dispatcher.Done().size() == 1 && !s.queuesNotEmpty && SyncListenerAddInfo::Instance().Snapshot().lastSync;
  }));
  Drain();
  EXPECT_THAT(dispatcher.Done(), ElementsAre("S:/new"));  // -1 is never dispatched
  auto icons = status.icons();
  EXPECT_THAT(icons, ::testing::Contains(3));  // the run opened
  EXPECT_EQ(icons.back(), 2);
  // The tool tip shows the stored LastSync; the "last update" text the time now.
  EXPECT_EQ(status.tooltips().back(), "Last synchronization: " + CVStaticHelpers::FormatDateTime(lastSync));
  auto record = SyncListenerAddInfo::Instance().Snapshot();
  ASSERT_TRUE(record.lastSync);
  EXPECT_EQ(record.lastSync->rfind("Last update at: ", 0), 0u);
  EXPECT_NE(*record.lastSync, "Last update at: " + CVStaticHelpers::FormatDateTime(lastSync));
  EXPECT_EQ(record.totalFilesNumber, 2);
}

TEST_F(SmartSyncTest, RunWithAFailedOperationEndsWithErrors) {
  app->isAppOffline = false;
  app->CreateSyncEngine();
  SmartSync& s = sync();
  dispatcher.hook = [](SmartSync& sync, CVFileWithAction&) { sync.syncedWithSomeErrors = true; };
  {
    std::lock_guard<std::mutex> lock(s.serverQueue().SQ_FQ_Lock);
    s.serverQueue().SQ_ServerQueue = {ServerItem("/broken")};
  }
  ASSERT_TRUE(WaitUntil([&] { return dispatcher.Done().size() == 1 && !s.queuesNotEmpty; }));
  ASSERT_TRUE(WaitUntil([&] { return !status.tooltips().empty() &&
                                     status.tooltips().back() == "Corvalink Sync. Synced with errors."; }));
  Drain();
  EXPECT_EQ(status.icons().back(), 6);
  ASSERT_FALSE(status.notifications().empty());
  EXPECT_EQ(status.notifications().back().second, "Synced with errors");
}

TEST_F(SmartSyncTest, ItemsOfTheLocalQueueReadTheDisk) {
  std::string path = home.path() + "/file.txt";
  std::ofstream(path) << "12345";
  NFQ_File entry = LocalEntry(path, NFQ_Modified);
  entry.attemptCount = 2;
  CVFileWithAction item = SmartSync::CreateCVFileWithActionFromNFQFile(entry);
  EXPECT_EQ(item.fileAction, FWA_UploadToServer);
  EXPECT_EQ(item.fileSize, 5);
  EXPECT_GT(item.dateModified, 0);
  EXPECT_EQ(item.attemptsCount, 2);
  EXPECT_EQ(item.oldFilePath, "");
  EXPECT_TRUE(item.isFSWAction);

  CVFileWithAction gone = SmartSync::CreateCVFileWithActionFromNFQFile(LocalEntry("/no/such", NFQ_Deleted));
  EXPECT_EQ(gone.fileAction, FWA_DeleteOnServer);
  EXPECT_EQ(gone.fileSize, 0);
  EXPECT_EQ(gone.dateModified, 0);
}

TEST_F(SmartSyncTest, OperationLogLines) {
  app->CreateSyncEngine();
  CVFileWithAction local = ServerItem("/l/x", FWA_UploadToServer);
  local.isFSWAction = true;
  CVFileWithAction rename = ServerItem("/l/new", FWA_RenameFileOnServer);
  rename.isFSWAction = true;
  rename.oldFilePath = "/l/old";
  sync().write_log_inforamtion(local, false);
  sync().write_log_inforamtion(rename, false);
  sync().write_log_inforamtion(ServerItem("/s/quiet"), false);
  sync().write_log_inforamtion(ServerItem("/s/failed"), true);
  std::string log = home.ReadLog("CVMainLogs");
  EXPECT_NE(log.find("_LOC:/l/x (FWA_UploadToServer)"), std::string::npos);
  EXPECT_NE(log.find("_LOC_RENAME:/l/old - /l/new"), std::string::npos);
  EXPECT_EQ(log.find("/s/quiet"), std::string::npos);
  EXPECT_NE(log.find("_SRV:/s/failed (FWA_DownloadFromServer)"), std::string::npos);
}
