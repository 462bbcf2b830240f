#pragma once
// SmartSync: the sync engine of the process. It owns the two queues and runs the
// main loop thread (Sync), which takes one work item at a time and hands it to the
// dispatcher. The local change queue always goes first; any local operation throws
// the server queue away, and the loop rebuilds it once the local queue is through.
// The scheduler (AppDelegate) fills the server queue and waits on sqInProcess.

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Clock.h"
#include "FSW_Queues.h"
#include "SERVER_Queues.h"
#include "SyncRecords.h"
#include "WorkerThreads.h"

class AppDelegate;
class FileOperationDispatcher;

class SmartSync {
 public:
  SmartSync(AppDelegate& app, FileOperationDispatcher& dispatcher,
            std::unique_ptr<SERVER_Queues> serverQueue = nullptr,
            std::unique_ptr<FSW_Queues> fswQueue = nullptr);
  ~SmartSync();
  SmartSync(const SmartSync&) = delete;
  SmartSync& operator=(const SmartSync&) = delete;

  // Starts the loop thread unless one runs.
  void RunSyncThread();
  // Stops the running operation, the passes and the loop, and waits until the
  // loop has ended.
  void StopMainSyncThread();
  // Asks the running transfer or server call to end; returns at once.
  void StopCurrentOperation();
  // Blocks until the loop has emptied the server queue (sqInProcess clear), or the
  // pass is cancelled.
  void WaitForSQProcessEnding(const CancelFlag* cancel = nullptr);
  // A pass that has started; StopMainSyncThread raises its flag while it runs.
  void SetStoragesThread(std::shared_ptr<CancelFlag> pass);

  std::optional<CVFileWithAction> GetNextFileForProcessing();
  void RemoveFileFromFSWArrayQueue();
  void write_log_inforamtion(const CVFileWithAction& item, bool isFailed);
  static CVFileWithAction CreateCVFileWithActionFromNFQFile(const NFQ_File& record);

  // Registers a path the sync itself is changing; the watcher drops its events.
  void AddPath(const std::string& path, bool isFolder);

  // ---- Local scan of the server comparison (SmartSyncLocalScan.cpp) ----------
  // Symbolic links are never followed nor descended into; names ending in
  // ".DS_Store" or beginning with "." are not the user's and are skipped.
  // The entry at path, read without testing that it exists; site from origPath.
  static CVFileForCompare CreateCVFileForCompare(const std::string& path, const std::string& origPath);
  // Everything under the folder, depth first, each folder before its contents,
  // entries in the order the file system gives.
  static std::vector<CVFileForCompare> readLocalFiles(const std::string& folderPath);
  // NFQ_Created records of everything under the folder: per level its folders,
  // then its files, then the levels below, folder by folder.
  static std::vector<NFQ_File> GetChildFilesAndFoldersNFQ(const std::string& folderPath, bool recursive);
  // -1: no record of the last sync has the same path; 0: one has it byte for
  // byte; 1: it is stored in another normalisation form.
  static std::int32_t CheckFileNameStringState(const std::string& path);
  // ---------------------------------------------------------------------------

  // The loop thread's body; a second thread leaves at once.
  void Sync();

  // Sets sqInProcess under SQ_FQ_Lock: the scheduler's hand-over.
  void SetSQInProcess();
  // Ends the loop's idle wait: there is work (a filtered queue, a connection back).
  void WakeUp() { idleSleep_.Wake(); }
  std::string CurrentStorageName();
  void SetCurrentStorageName(const std::string& name);

  FSW_Queues& fswQueue() { return *fswQueue_; }
  SERVER_Queues& serverQueue() { return *serverQueue_; }

  std::atomic<bool> requiresQueueRefill{false};
  std::atomic<bool> sqInProcess{false};
  std::atomic<bool> queuesNotEmpty{false};
  std::atomic<bool> syncedWithSomeErrors{false};
  // Set when an item of this pass stayed for a later one; cleared at a pass's start.
  std::atomic<bool> itemsLeftForLater{false};
  std::atomic<bool> shouldLoginToStorageAgain{false};
  std::atomic<bool> forceStopSync{false};
  std::atomic<std::int32_t> currentAction{-1};
  std::atomic<std::int32_t> syncThreadsNumber{0};

  // Guarded by Sync_Lock; atomic so that a plain read elsewhere is no data race.
  std::mutex Sync_Lock;
  std::atomic<bool> syncMainThreadShouldRun{true};
  std::atomic<bool> mainLoopIsRunning{false};
  std::atomic<bool> fswQueueInProcess{false};
  std::atomic<bool> fswOperationInProcess{false};
  std::atomic<bool> syncOperationInProcess{false};

  // Guarded by fswQueue().FSW_FQ_Lock.
  std::int32_t fswQueueIndex = 0;

 private:
  void OneItem(CVFileWithAction& item);
  void Refill();
  void Idle(bool& workDone);
  void ReleaseSchedulerIfQueueEmpty();

  AppDelegate& app_;
  FileOperationDispatcher& dispatcher_;
  std::unique_ptr<FSW_Queues> fswQueue_;
  std::unique_ptr<SERVER_Queues> serverQueue_;

  std::mutex nameLock_;
  std::string currentStorageName_;
  std::mutex passLock_;
  // Every pass that may still run: a tick starts a new pass thread even while
  // one runs (it leaves at once), and a stop must reach the one that works.
  std::vector<std::weak_ptr<CancelFlag>> storagesSyncThreads_;
  // Raised by StopCurrentOperation, lowered before each item: ends the web
  // service call in flight on the loop thread.
  CancelFlag operationCancel_;
  // The loop's pauses, ended early by work or a stop; the scheduler's wait for
  // the queue, ended when the loop releases it; a stop's wait for the loop's end.
  WakeableSleep idleSleep_;
  WakeableSleep queueReleased_;
  WakeableSleep loopEnded_;
  WorkerThreads loopThreads_;
};
