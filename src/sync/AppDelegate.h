#pragma once
// AppDelegate: the root object of the client. It starts everything in its fixed
// order, owns the flags and locks that several subsystems share and the two timers,
// and runs the scheduler (SyncNowSeparatedSelector) that walks the due storages,
// compares each with the server and waits until the main loop has done the work.
// Timers and hops run on the main loop's thread; passes, probes and filter ticks
// run on worker threads of their own.

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Clock.h"
#include "FileEventStream.h"
#include "MainLoop.h"
#include "MassDeletionGuard.h"
#include "WorkerThreads.h"

class ConnectionService;
class FileOperationDispatcher;
class SERVER_Queues;
class FSW_Queues;
class SmartSync;
class StatusSink;

class AppDelegate {
 public:
  struct Dependencies {
    const Clock& clock;
    MainLoop& mainLoop;
    StatusSink& status;
    ConnectionService& connection;
    // The per-file operations: given, or made by makeDispatcher for this object.
    FileOperationDispatcher* dispatcher;
    std::string version;
    // Builds the queues of the sync engine; tests put fakes here.
    std::function<std::unique_ptr<SERVER_Queues>()> makeServerQueues;
    std::function<std::unique_ptr<FSW_Queues>()> makeFSWQueues;
    std::function<std::unique_ptr<FileOperationDispatcher>(AppDelegate&)> makeDispatcher;
    // Builds the stream of file system events; without it local changes are
    // found only by the comparison.
    std::function<std::unique_ptr<FileEventStream>(FileEventStream::BatchCallback, FileEventStream::TroubleCallback)>
        makeEventStream;
  };

  // How a pass ended, for whoever waits on one (the --once run). ItemsLeft: no
  // error, but items wait for a later pass (a download that could not finish).
  enum class PassOutcome { InStep, WithErrors, Offline, ItemsLeft };

  static constexpr std::chrono::seconds kSyncTimerPeriod{40};
  static constexpr std::chrono::seconds kFSWTimerPeriod{5};

  explicit AppDelegate(Dependencies dependencies);
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Start in the fixed order. Gives false when no account is configured and the
  // login must come first.
  bool applicationDidFinishLaunching();
  void applicationWillTerminate();
  void initializeRules();
  // Mends "<root>//" left in the state files by an older version.
  void RepairDoubleSlashes();
  void FinishAppLaunchNewSync();
  // The start that a first run leaves for the sign-in: the repair of old paths
  // and FinishAppLaunchNewSync, once. Later calls do nothing; any thread.
  void StartAfterLogin();
  // True once the sync has been started (at launch or after a sign-in).
  bool IsSyncStarted() const { return syncStarted_; }
  void initAndRunSync();
  // Makes the sync engine (SmartSync) and starts its loop thread.
  void CreateSyncEngine();
  void StartSyncTimer();
  void StartFSWTimer();

  // The 40-second tick.
  void SyncNowThread();
  // "Sync now" of the menu.
  void syncNowCommand();
  void SyncNow();
  void SyncNowSeparatedSelector(std::shared_ptr<CancelFlag> pass);
  void ResetSyncTime();
  void ResetSyncTime2();
  void pauseSync();
  bool CheckCVConnection();
  std::string GetWebServiceVersion(bool again);
  std::string GetWebServiceVersionAgain();

  // The 5-second tick and its thread: filter the raw events after 5 quiet seconds.
  void FSWTimerThread();
  void FSWTimerSeparatedThread();
  // The file system watcher of the storages.
  void StartFSWsForCorvalink();
  void StopFSWsForStorages();
  // Records that a watcher event was queued now.
  void NoteFSWEvent();
  // The events callback: one batch of the stream, on the main thread.
  void FSWEventsCallback(const std::vector<FileEvent>& events);
  // The stream lost events or cannot watch every folder.
  void FSWStreamTrouble(FileEventTrouble trouble, const std::string& detail);

  // A change of the storage list: stop the watcher and the loop, change, restart.
  // Blocks; run it on a worker thread, never on the main thread.
  void ApplySettings(const std::function<void()>& change);
  // Empties the local change queue and the server queue in memory; the account
  // they were for is gone. Call it inside ApplySettings.
  void ForgetQueuedWork();

  // Status item and texts; callable from any thread, hop to the main thread.
  void SetStatusIcon(int state);
  void SetTooltip(const std::string& text);
  void SyncNewEnable(bool hidden);
  void NotifySyncError();
  // A notification of the sync's own; the text goes to the main log too.
  void NotifyUser(const std::string& text);
  // The tray keeps saying what deletions wait for the user until they are
  // decided; false when none do.
  bool ShowHeldDeletions(SERVER_Queues& server);
  // What waits for the user's answer now, in every storage.
  std::vector<MassDeletionGuard::Held> HeldDeletions();
  // The user's answer for one storage: the files it covers (0 when nothing of
  // the storage waited); a pass then starts to carry it out.
  std::size_t AnswerHeldDeletions(const std::string& storage, bool confirm);
  // Tells the user once that a download found the disk full; DiskHasRoom makes
  // the next full disk told again.
  void NotifyDiskFull(const std::string& path);
  void DiskHasRoom();

  // filesInProgress: paths the sync itself is changing.
  void AddFileInProgress(const std::string& path);
  void RemoveFileInProgress(const std::string& path);
  bool IsFileInProgress(const std::string& path);
  // After an operation: its paths stay the sync's own for a short while, for the
  // events the file system delivers late.
  void ReleaseFilesInProgress();
  static constexpr std::chrono::seconds kOwnPathsGrace{2};

  void SetPassFinishedHandler(std::function<void(PassOutcome)> handler);

  // Why the server's certificate stops the sync; nothing while it is trusted.
  // Until a sign-in checks the server again, no pass and no probe runs.
  std::optional<std::string> CertificateProblem();

  const Clock& clock() const { return clock_; }
  // The same clock for those that keep a shared pointer; it does not own the clock.
  std::shared_ptr<const Clock> sharedClock() const {
    return std::shared_ptr<const Clock>(std::shared_ptr<const Clock>(), &clock_);
  }
  MainLoop& mainLoop() { return mainLoop_; }
  SmartSync* mainSyncObject() { return mainSyncObject_.get(); }
  ConnectionService& connection() { return connection_; }

  std::atomic<bool> isSyncManagerOn{false};
  std::atomic<bool> settingsApplyingInProgressNow{false};
  std::atomic<bool> isSettingsApplying{false};
  std::atomic<bool> needToRestartNFQ{false};
  std::atomic<bool> syncWasPaused{false};
  std::atomic<bool> isSyncRunning{false};
  std::atomic<bool> mainSyncWorking{false};
  std::atomic<bool> isAppOffline{true};
  std::atomic<bool> isCheckingConnection{false};
  std::atomic<bool> fswEventsHappened{false};
  std::atomic<int> syncNowHidden_{-1};  // what the last SyncNewEnable logged; -1 none yet
  // Steady-clock time of the last queued watcher event, in nanoseconds.
  std::atomic<std::int64_t> lastFWSEventTimeStamp{0};
  std::atomic<std::int64_t> lastCVConnCheckTime{0};  // seconds since 1970

  std::recursive_mutex FilesInProgressLock;
  std::map<std::string, std::string> filesInProgress;

 private:
  // The tray's list of storages with deletions held, on the main thread.
  void TellHeldStorages(const std::vector<MassDeletionGuard::Held>& held);
  void ReportPass(PassOutcome outcome);
  // Folds the journals of the state files into the files.
  void SaveStateFiles();
  // Tells the user, once per problem, that the sync stopped for the certificate.
  void TellCertificateProblem(const std::string& text);
  void RunOnMainAndWait(const std::function<void()>& work);

  const Clock& clock_;
  MainLoop& mainLoop_;
  StatusSink& status_;
  ConnectionService& connection_;
  std::unique_ptr<FileOperationDispatcher> ownDispatcher_;
  FileOperationDispatcher* dispatcher_;
  std::string version_;
  std::function<std::unique_ptr<SERVER_Queues>()> makeServerQueues_;
  std::function<std::unique_ptr<FSW_Queues>()> makeFSWQueues_;

  std::unique_ptr<SmartSync> mainSyncObject_;
  MainLoop::TimerId syncTimer_ = 0;
  MainLoop::TimerId fswTimer_ = 0;
  std::function<std::unique_ptr<FileEventStream>(FileEventStream::BatchCallback, FileEventStream::TroubleCallback)>
      makeEventStream_;
  std::unique_ptr<FileEventStream> stream;
  // Paths of finished operations: until when (steady nanoseconds) and in which
  // state of the disk they still count as the sync's own. Guarded by FilesInProgressLock.
  struct OwnPath {
    std::int64_t until = 0;
    std::string state;
  };
  std::map<std::string, OwnPath> recentOwnPaths_;
  std::deque<std::pair<std::int64_t, std::string>> ownPathsExpiry_;  // (until, path), in time order
  bool timersRunning_ = false;
  std::mutex startLock_;
  std::atomic<bool> syncStarted_{false};

  // Ends the wait of a second connection check when the first one ends.
  WakeableSleep connectionChecked_;
  std::mutex versionLock_;
  std::string webServiceVersion_;
  std::mutex handlerLock_;
  std::atomic<bool> diskFullNotified_{false};
  std::mutex certificateLock_;
  std::string certificateTold_;  // the certificate problem the user was told, "" for none
  std::function<void(PassOutcome)> passFinished_;

  // Declared last: joined first when the object goes away.
  WorkerThreads workers_;
};
