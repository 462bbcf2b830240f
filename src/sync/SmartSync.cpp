#include "SmartSync.h"

#include <sys/stat.h>

#include <chrono>
#include <exception>
#include <filesystem>

#include "AppDelegate.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "FileOperationDispatcher.h"
#include "MyParser.h"
#include "SyncListener.h"

using namespace std::chrono_literals;

namespace {
constexpr const char* kClass = "SmartSync";
}

SmartSync::SmartSync(AppDelegate& app, FileOperationDispatcher& dispatcher,
                     std::unique_ptr<SERVER_Queues> serverQueue,
                     std::unique_ptr<FSW_Queues> fswQueue)
    : app_(app),
      dispatcher_(dispatcher),
      fswQueue_(fswQueue ? std::move(fswQueue) : std::make_unique<FSW_Queues>(&app.needToRestartNFQ)),
      serverQueue_(serverQueue ? std::move(serverQueue) : std::make_unique<SERVER_Queues>()) {
  // The listing waits on the application's clock and ends when the loop is stopped.
  serverQueue_->SetListingContext(&app_.clock(), [this] { return !syncMainThreadShouldRun; });
  serverQueue_->SetNoticeHandler([this](const std::string& text) { app_.NotifyUser(text); });
}

SmartSync::~SmartSync() {
  {
    std::lock_guard<std::mutex> lock(Sync_Lock);
    syncMainThreadShouldRun = false;
  }
  operationCancel_.Cancel();
  dispatcher_.StopCurrentAction();
  dispatcher_.StopDownloading();
  loopThreads_.JoinAll();
}

void SmartSync::RunSyncThread() {
  {
    std::lock_guard<std::mutex> lock(Sync_Lock);
    if (mainLoopIsRunning) return;
    currentAction = -1;
    syncMainThreadShouldRun = true;
  }
  serverQueue_->ClearServerQueues();
  loopThreads_.Start([this] { Sync(); });
}

void SmartSync::SetStoragesThread(std::shared_ptr<CancelFlag> pass) {
  std::lock_guard<std::mutex> lock(passLock_);
  std::erase_if(storagesSyncThreads_, [](const std::weak_ptr<CancelFlag>& flag) { return flag.expired(); });
  storagesSyncThreads_.push_back(std::move(pass));
}

void SmartSync::StopMainSyncThread() {
  {
    std::lock_guard<std::mutex> lock(passLock_);
    for (auto& weak : storagesSyncThreads_) {
      if (auto pass = weak.lock()) pass->Cancel();
    }
    storagesSyncThreads_.clear();
  }
  {
    std::lock_guard<std::mutex> lock(Sync_Lock);
    syncMainThreadShouldRun = false;
    if (!mainLoopIsRunning) return;  // both queues stay as they are
  }
  idleSleep_.Wake();
  queueReleased_.Wake();
  StopCurrentOperation();
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(Sync_Lock);
      if (!mainLoopIsRunning) break;
    }
    loopEnded_.Sleep(app_.clock(), 200ms);
  }
  sqInProcess = false;
  serverQueue_->ClearServerQueues();
  SyncListener::SendSyncStateChangedNotification(0);
  CVEventLogger::WriteMainLogMessage("SERVER QUEUE CLEARED (1)");
}

void SmartSync::StopCurrentOperation() {
  operationCancel_.Cancel();
  std::int32_t action = currentAction;
  switch (action) {
    case 0: case 1: case 3: case 4: case 5: case 8:
      CVEventLogger::WriteMainLogMessage(
          std::string("Trying to stop current sync operation.\nCurrently running:\n") +
          FWAActionName(action));
      dispatcher_.StopCurrentAction();
      break;
    case 2:
      CVEventLogger::WriteMainLogMessage(
          "Trying to stop current sync operation.\nCurrently running:\nFWA_DownloadFromServer");
      dispatcher_.StopDownloading();
      break;
    default:
      CVEventLogger::WriteMainLogMessage("Trying to stop current sync operation.\nCurrently running:\n");
      break;
  }
}

void SmartSync::WaitForSQProcessEnding(const CancelFlag* cancel) {
  while (sqInProcess) {
    if (cancel && cancel->IsCancelled()) return;
    queueReleased_.Sleep(app_.clock(), 200ms);
  }
}

void SmartSync::SetSQInProcess() {
  {
    std::lock_guard<std::mutex> lock(serverQueue_->SQ_FQ_Lock);
    sqInProcess = true;
  }
  idleSleep_.Wake();
}

void SmartSync::ReleaseSchedulerIfQueueEmpty() {
  // Never while a comparison fills the work list, and only with an empty list
  // (under SQ_FQ_Lock), so that the scheduler is not released before its queue
  // has been worked.
  std::unique_lock<std::mutex> comparing(serverQueue_->compareLock, std::try_to_lock);
  if (!comparing.owns_lock()) return;
  std::lock_guard<std::mutex> lock(serverQueue_->SQ_FQ_Lock);
  if (serverQueue_->SQ_ServerQueue.empty() && sqInProcess.exchange(false)) queueReleased_.Wake();
}

std::string SmartSync::CurrentStorageName() {
  std::lock_guard<std::mutex> lock(nameLock_);
  return currentStorageName_;
}

void SmartSync::SetCurrentStorageName(const std::string& name) {
  std::lock_guard<std::mutex> lock(nameLock_);
  currentStorageName_ = name;
}

void SmartSync::AddPath(const std::string& path, bool isFolder) {
  app_.AddFileInProgress(path);
  if (!isFolder) return;
  // Everything below a folder the sync is about to change is the sync's own too.
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(
           path, std::filesystem::directory_options::skip_permission_denied, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    std::string child = it->path().string();
    app_.AddFileInProgress(child);
    app_.AddFileInProgress(MyParser::GetFileCVTempForFileLocalPath(child));
  }
}

CVFileWithAction SmartSync::CreateCVFileWithActionFromNFQFile(const NFQ_File& record) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) +
                                     " - CreateCVFileWithActionFromNFQFile -> File: " +
                                     record.nFilePath);
  CVFileWithAction item;
  item.attemptsCount = static_cast<std::int32_t>(record.attemptCount);
  item.isFolder = record.isFolder;
  item.isFSWAction = true;
  item.oldFilePath = record.oldFilePath;
  item.nFilePath = record.nFilePath;
  struct stat info {};
  if (!item.nFilePath.empty() && lstat(item.nFilePath.c_str(), &info) == 0) {
    item.dateModified = info.st_mtime;
    item.fileSize = info.st_size;
  }
  item.fileAction = FWAForNFQAction(record.fileAction);
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - CreateCVFileWithActionFromNFQFile -> " +
                                     NFQActionName(record.fileAction));
  return item;
}

std::optional<CVFileWithAction> SmartSync::GetNextFileForProcessing() {
  bool localAllowed;
  {
    std::lock_guard<std::mutex> lock(Sync_Lock);
    if (fswOperationInProcess || syncOperationInProcess) return std::nullopt;
    // No local item while the filter rebuilds the queue; a local item taken here
    // is marked at once, so that a filter starting now waits for it.
    localAllowed = !fswQueueInProcess;
    if (localAllowed) fswOperationInProcess = true;
  }
  std::optional<CVFileWithAction> local;
  if (localAllowed) {
    std::optional<NFQ_File> taken;
    {
      std::lock_guard<std::mutex> lock(fswQueue_->FSW_FQ_Lock);
      auto& queue = fswQueue_->FQ_FilteredQueue;
      auto size = static_cast<std::int32_t>(queue.size());
      if (fswQueueIndex >= 0 && fswQueueIndex < size) {
        NFQ_File& entry = queue[static_cast<std::size_t>(fswQueueIndex)];
        ++fswQueueIndex;
        ++entry.attemptCount;
        taken = entry;
      } else if (fswQueueIndex <= size) {
        // The index comes to rest at size + 1: the sign that the queue is through.
        ++fswQueueIndex;
      }
    }
    if (taken) {
      local = CreateCVFileWithActionFromNFQFile(*taken);
    } else {
      std::lock_guard<std::mutex> lock(Sync_Lock);
      fswOperationInProcess = false;
    }
  }
  if (local) return local;

  try {
    std::lock_guard<std::mutex> lock(serverQueue_->SQ_FQ_Lock);
    auto& queue = serverQueue_->SQ_ServerQueue;
    if (queue.empty()) return std::nullopt;
    const CVFileWithAction& head = queue.front();
    CVFileWithAction item;
    item.isFolder = head.isFolder;
    item.oldFilePath = head.oldFilePath;
    item.nFilePath = head.nFilePath;
    item.isFSWAction = false;
    item.dateModified = head.dateModified;
    item.fileSize = head.fileSize;
    item.fileAction = head.fileAction;
    queue.pop_front();
    return item;
  } catch (const std::exception&) {
    CVEventLogger::WriteExceptionsLog("Exception SmartSync Get next file for Processing");
    return std::nullopt;
  }
}

void SmartSync::RemoveFileFromFSWArrayQueue() {
  std::lock_guard<std::mutex> lock(fswQueue_->FSW_FQ_Lock);
  if (fswQueueIndex < 1) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) +
                                       " - RemoveFileFromFSWArrayQueue -> fswQueueIndex == 0");
    return;
  }
  --fswQueueIndex;
  auto& queue = fswQueue_->FQ_FilteredQueue;
  if (static_cast<std::size_t>(fswQueueIndex) < queue.size()) {
    queue.erase(queue.begin() + fswQueueIndex);
  }
}

void SmartSync::write_log_inforamtion(const CVFileWithAction& item, bool isFailed) {
  if (item.isFSWAction) {
    if (item.fileAction == FWA_RenameFileOnServer) {
      CVEventLogger::WriteMainLogMessage("_LOC_RENAME:" + item.oldFilePath + " - " + item.nFilePath);
    } else {
      CVEventLogger::WriteMainLogMessage("_LOC:" + item.nFilePath + " (" +
                                         FWAActionName(item.fileAction) + ")");
    }
  } else if (isFailed) {
    CVEventLogger::WriteMainLogMessage("_SRV:" + item.nFilePath + " (" +
                                       FWAActionName(item.fileAction) + ")");
  }
}

void SmartSync::Sync() {
  {
    std::lock_guard<std::mutex> lock(Sync_Lock);
    if (mainLoopIsRunning) return;
    mainLoopIsRunning = true;
  }
  int running = ++syncThreadsNumber;
  CVEventLogger::WriteMainLogMessage("Main loop thread started! " + std::to_string(running) +
                                     " thread(s) running");
  requiresQueueRefill = false;
  // A scheduler that handed over a queue while this thread got going keeps it.
  ReleaseSchedulerIfQueueEmpty();
  // syncMainThreadShouldRun was set by RunSyncThread; setting it again here would
  // undo a stop that came before this thread got going.
  {
    std::vector<std::string> paths;
    {
      std::lock_guard<std::mutex> lock(serverQueue_->SQ_FQ_Lock);
      for (const auto& item : serverQueue_->SQ_ServerQueue) paths.push_back(item.nFilePath);
    }
    for (const auto& path : paths) app_.AddFileInProgress(path);
  }

  bool workDone = false;
  CancelFlag::Binding cancelBinding(operationCancel_);
  for (;;) {
    try {
      // Lowered before the test of the run flag: a stop sets the flag first and
      // raises this one after, so no stop is lost here.
      operationCancel_.Reset();
      {
        std::lock_guard<std::mutex> lock(Sync_Lock);
        if (!syncMainThreadShouldRun) {
          dispatcher_.FinishPendingWork();
          sqInProcess = false;
          mainLoopIsRunning = false;
          queueReleased_.Wake();
          loopEnded_.Wake();
          CVEventLogger::WriteMainLogMessage("Main loop thread stopped!");
          break;
        }
      }
      if (app_.isAppOffline || app_.syncWasPaused) {
        idleSleep_.Sleep(app_.clock(), 1s);
        continue;
      }
      if (fswQueue_->RawCount() > 0 || fswQueueInProcess) {
        // While raw events wait for the filter or are being filtered, no file is
        // touched: a server item made before them could undo them (a renamed
        // folder downloaded again under its old name).
        idleSleep_.Sleep(app_.clock(), 1s);
        continue;
      }
      if (auto item = GetNextFileForProcessing()) {
        OneItem(*item);
        workDone = true;
        continue;
      }
      if (requiresQueueRefill) {
        Refill();
        continue;
      }
      Idle(workDone);
    } catch (const std::exception& error) {
      CVEventLogger::LogException(kClass, "Sync", error.what());
    } catch (...) {
      CVEventLogger::LogException(kClass, "Sync", "unknown exception");
    }
  }
  CVEventLogger::LogMethodEnd(kClass, "Sync");
  --syncThreadsNumber;
}

void SmartSync::OneItem(CVFileWithAction& item) {
  {
    std::lock_guard<std::mutex> lock(Sync_Lock);
    fswOperationInProcess = item.isFSWAction;
    syncOperationInProcess = true;
  }
  app_.mainSyncWorking = true;
  struct EndOfItem {
    SmartSync& sync;
    ~EndOfItem() {
      std::lock_guard<std::mutex> lock(sync.Sync_Lock);
      sync.fswOperationInProcess = false;
      sync.syncOperationInProcess = false;
    }
  } endOfItem{*this};

  if (!queuesNotEmpty) {
    syncedWithSomeErrors = false;
    app_.SetStatusIcon(3);
    app_.SetTooltip("Corvalink Sync. Synchronization in process.");
    if (item.isFSWAction) {
      SyncListener::SendSyncStateChangedNotification(2);
      SyncListener::SendOverallFilesNUmber(static_cast<std::int64_t>(fswQueue_->FilteredCount()));
    } else {
      SyncListener::SendSyncStateChangedNotification(1);
      SyncListener::SendOverallFilesNUmber(static_cast<std::int64_t>(serverQueue_->ServerQueueSize()) + 1);
    }
    queuesNotEmpty = true;
  }
  if (item.isFSWAction && !requiresQueueRefill) {
    requiresQueueRefill = true;
    serverQueue_->ClearServerQueues();
    CVEventLogger::WriteMainLogMessage("SERVER QUEUE CLEARED");
    SyncListener::SendSyncStateChangedNotification(2);
    SyncListener::SendOverallFilesNUmber(static_cast<std::int64_t>(fswQueue_->FilteredCount()));
  }
  currentAction = item.fileAction;
  write_log_inforamtion(item, false);
  // An item in step only counts in the progress; it waits on nothing.
  if (item.fileAction != FWA_Nothing) {
    // The dispatcher handles the result itself (queues, records, error flag).
    (void)dispatcher_.PerformNextFileOperation(*this, item);
  }
  SyncListener::SendOneMoreFileSyncedNotification();
  currentAction = -1;
}

void SmartSync::Refill() {
  requiresQueueRefill = false;
  std::string storage = CurrentStorageName();
  // Outside a pass nothing is rebuilt, and only while the scheduler waits for this
  // storage: a refill under the scheduler's own comparison would race it.
  if (storage.empty() || !sqInProcess) return;
  CVEventLogger::WriteMainLogMessage("SERVER QUEUE REFILLING STARTED");
  {
    std::lock_guard<std::mutex> lock(serverQueue_->compareLock);
    serverQueue_->Fill_NFQ_ForStorage(storage);
    if (!serverQueue_->siteOffline) serverQueue_->FilterNFQ(storage);
  }
  std::size_t size = serverQueue_->ServerQueueSize();
  if (size == 0) return;
  SyncListener::SendSyncStateChangedNotification(1);
  SyncListener::SendOverallFilesNUmber(static_cast<std::int64_t>(size) + 1);
  std::int32_t index = 0;
  auto sites = CVConfiguration::Instance().SitesCopy();
  for (std::size_t i = 0; i < sites.size(); ++i) {
    if (sites[i]->Name == storage) {
      index = static_cast<std::int32_t>(i);
      break;
    }
  }
  SyncListener::SendSyncNumberChangedNotification(index);
}

void SmartSync::Idle(bool& workDone) {
  // Nothing of the run waits any more when the scheduler learns the queue is through.
  dispatcher_.FinishPendingWork();
  ReleaseSchedulerIfQueueEmpty();
  if (queuesNotEmpty) {
    app_.SetStatusIcon(2);
    SyncListener::SendSyncStateChangedNotification(0);
    queuesNotEmpty = false;
  }
  if (workDone) {
    if (syncedWithSomeErrors) {
      app_.SetTooltip("Corvalink Sync. Synced with errors.");
      app_.NotifySyncError();
      app_.SetStatusIcon(6);
    } else if (!app_.ShowHeldDeletions(*serverQueue_)) {
      // Before the first whole pass has ended there is no last sync to tell: the pass's end sets it.
      const std::int64_t lastSync = CVConfiguration::Instance().LastSync();
      if (lastSync > 0) app_.SetTooltip("Last synchronization: " + CVStaticHelpers::FormatDateTime(lastSync));
      SyncListener::setLastSyncText("Last update at: " +
                                    CVStaticHelpers::FormatDateTime(app_.clock().WallNowSeconds()));
      app_.SetStatusIcon(2);
    }
    SyncListener::SendSyncStateChangedNotification(0);
  }
  app_.mainSyncWorking = false;
  // Asleep until the second is over or work comes: a queue handed over, a filter done.
  idleSleep_.Sleep(app_.clock(), 1s);
  workDone = false;
}
