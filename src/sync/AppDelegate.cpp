#include "AppDelegate.h"

#include <uuid/uuid.h>

#include <exception>
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <fstream>
#include <set>
#include <sstream>

#include "AsyncFileCommonPart.h"
#include "CVConfiguration.h"
#include "CVSelectiveSync.h"
#include "DownloadedFilesStore.h"
#include "DownloadedXMLStaticMethods.h"
#include "HeldBackNames.h"
#include "NewFilesParser.h"
#include "NewFilesStore.h"
#include "ServerXMLParser.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ConnectionService.h"
#include "FSW_Queues.h"
#include "FileOperationDispatcher.h"
#include "SERVER_Queues.h"
#include "SmartSync.h"
#include "StatusSink.h"
#include "SyncListener.h"
#include "SyncListenerAddInfo.h"
#include "UIFunctions.h"

using namespace std::chrono_literals;

namespace {
constexpr const char* kClass = "AppDelegate";

std::string NewUuid() {
  uuid_t raw;
  uuid_generate(raw);
  char text[37];
  uuid_unparse_lower(raw, text);
  return text;
}

std::int64_t SteadyNanos(const Clock& clock) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(clock.SteadyNow().time_since_epoch())
      .count();
}
}  // namespace

AppDelegate::AppDelegate(Dependencies d)
    : clock_(d.clock),
      mainLoop_(d.mainLoop),
      status_(d.status),
      connection_(d.connection),
      dispatcher_(d.dispatcher),
      version_(std::move(d.version)),
      makeServerQueues_(std::move(d.makeServerQueues)),
      makeFSWQueues_(std::move(d.makeFSWQueues)),
      makeEventStream_(std::move(d.makeEventStream)) {
  if (d.makeDispatcher) {
    ownDispatcher_ = d.makeDispatcher(*this);
    dispatcher_ = ownDispatcher_.get();
  }
}

AppDelegate::~AppDelegate() {
  if (timersRunning_) {
    mainLoop_.CancelTimer(syncTimer_);
    mainLoop_.CancelTimer(fswTimer_);
  }
  if (stream) stream->Stop();
  if (mainSyncObject_) mainSyncObject_->StopMainSyncThread();
  workers_.JoinAll();
  SyncListener::SetSyncNewEnableHandler(nullptr);
  mainSyncObject_.reset();
}

bool AppDelegate::applicationDidFinishLaunching() {
  SyncListenerAddInfo::CreateStaticInstance();
  CVEventLogger::DeleteOldLogFolders();
  CVEventLogger::WriteMainLogMessage("\n***** Application started, v." + version_ + " ****");
  CVEventLogger::WriteMainLogMessage(CVEventLogger::DateText());

  isSyncManagerOn = true;
  SyncListener::SetSyncNewEnableHandler([this](bool hidden) { SyncNewEnable(hidden); });
  isAppOffline = true;
  isCheckingConnection = false;
  needToRestartNFQ = false;
  isSyncRunning = false;
  syncWasPaused = false;
  SetStatusIcon(1);

  CVConfiguration& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  initializeRules();
  HeldBackNames::Instance().Load();
  for (const auto& name : HeldBackNames::Instance().All()) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - held back -> " + HeldBackNames::Describe(name));
  }

  if (!config.IsSignedIn()) {
    CVEventLogger::WriteMainLogMessage("No account is signed in: the login must come first");
    return false;
  }
  StartAfterLogin();
  return true;
}

void AppDelegate::StartAfterLogin() {
  std::lock_guard<std::mutex> once(startLock_);
  if (syncStarted_) return;
  {
    // The record's lock covers the other two files too: nobody writes them yet.
    std::lock_guard<std::recursive_mutex> lock(DownloadedXMLStaticMethods::downloadedFilesLock());
    std::lock_guard<std::recursive_mutex> queueLock(NewFilesParser::newFilesLock());
    RepairDoubleSlashes();
  }
  FinishAppLaunchNewSync();
  syncStarted_ = true;
}

void AppDelegate::initializeRules() {
  std::vector<CVFileForCompare> records = ServerXMLParser().readDownloadedFiles().value_or(
      std::vector<CVFileForCompare>{});
  std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  CVSelectiveSync& store = CVSelectiveSync::Instance();
  for (const auto& storage : CVConfiguration::Instance().SitesCopy()) {
    auto site = store.GetSiteRulesByName(storage->Name, true);
    if (!site) continue;
    if (site->SyncItemCount() > 0 || records.empty()) continue;
    // A store that is new or empty learns the storage's items from the record.
    std::string prefix = root + "/" + storage->Name + "/";
    std::vector<std::string> relativePaths;
    for (const auto& record : records) {
      if (record.localPath.size() <= prefix.size() || record.localPath.compare(0, prefix.size(), prefix) != 0) {
        continue;
      }
      site->addSyncItem(record.isFolder, record.localPath);
      relativePaths.push_back(record.localPath.substr(root.size() + 1));
    }
    auto rules = site->SyncRules();
    if (rules.empty()) {
      site->addSyncRule(CVSelectiveSyncRule::syncNone, root + "/" + storage->Name);
    } else if (!relativePaths.empty()) {
      std::set<std::string> ruled;
      for (const auto& rule : rules) ruled.insert(rule.ItemUrl);
      for (const auto& relative : relativePaths) {
        if (!ruled.count(relative)) site->addSyncRule(CVSelectiveSyncRule::syncAll, root + "/" + relative);
      }
    }
  }
  store.SaveConfigXML();
}

void AppDelegate::RepairDoubleSlashes() {
  // An older version stored "<root>//<storage>/..." in these files.
  std::string root = CVStaticHelpers::GenerateRootPath();
  std::string settings = CVStaticHelpers::GenerateSettingsPath();
  for (const char* name : {"/DownloadedFiles.xml", "/NewFiles.xml", "/SelectiveSync.xml"}) {
    std::string path = settings + name;
    std::ifstream in(path, std::ios::binary);
    if (!in) continue;
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string text = buffer.str();
    std::string wrong = root + "//", right = root + "/";
    bool changed = false;
    for (auto at = text.find(wrong); at != std::string::npos; at = text.find(wrong, at + right.size())) {
      text.replace(at, wrong.size(), right);
      changed = true;
    }
    if (changed && !CVStaticHelpers::WriteFileAtomically(path, text, 0600)) {
      CVEventLogger::LogException(kClass, "RepairDoubleSlashes", "could not write " + path);
    }
  }
}

void AppDelegate::FinishAppLaunchNewSync() {
  initAndRunSync();
  // Local changes that the last run had not finished come back, with their attempts.
  if (auto queued = NewFilesParser().readNewFiles()) {
    FSW_Queues& fsw = mainSyncObject_->fswQueue();
    {
      std::lock_guard<std::mutex> lock(fsw.FSW_FQ_Lock);
      fsw.FQ_FilteredQueue = std::move(*queued);
    }
    mainSyncObject_->WakeUp();
  }
  workers_.Start([this] { GetWebServiceVersionAgain(); });
}

void AppDelegate::initAndRunSync() {
  StartFSWsForCorvalink();
  StartSyncTimer();
  StartFSWTimer();
  CreateSyncEngine();
}

void AppDelegate::CreateSyncEngine() {
  auto serverQueues = makeServerQueues_ ? makeServerQueues_() : nullptr;
  auto fswQueues = makeFSWQueues_ ? makeFSWQueues_() : nullptr;
  mainSyncObject_ =
      std::make_unique<SmartSync>(*this, *dispatcher_, std::move(serverQueues), std::move(fswQueues));
  mainSyncObject_->RunSyncThread();
}

void AppDelegate::StartSyncTimer() {
  syncTimer_ = mainLoop_.AddTimer(kSyncTimerPeriod, [this] { SyncNowThread(); }, true);
  timersRunning_ = true;
}

void AppDelegate::StartFSWTimer() {
  fswTimer_ = mainLoop_.AddTimer(kFSWTimerPeriod, [this] { FSWTimerThread(); }, true);
  timersRunning_ = true;
}

void AppDelegate::SyncNowThread() {
  // While offline every tick asks, whatever the loop is doing: otherwise a loop
  // held by the offline state could keep the client offline for good.
  if (!mainSyncWorking || isAppOffline) SyncNow();
}

void AppDelegate::syncNowCommand() {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - syncNowCommand -> Sync now pressed");
  ResetSyncTime();
  SyncNow();
}

void AppDelegate::SyncNow() {
  if (!mainSyncObject_) return;
  auto pass = std::make_shared<CancelFlag>();
  mainSyncObject_->SetStoragesThread(pass);
  workers_.Start([this, pass] { SyncNowSeparatedSelector(pass); });
}

void AppDelegate::SyncNowSeparatedSelector(std::shared_ptr<CancelFlag> pass) {
  SmartSync* sync = mainSyncObject_.get();
  if (!sync) return;
  // A server whose certificate failed is not asked again until a sign-in checked it.
  if (auto problem = CertificateProblem()) {
    TellCertificateProblem(*problem);
    ReportPass(PassOutcome::Offline);
    return;
  }
  // A stop ends the pass's server calls at once (login, probe, listing).
  CancelFlag::Binding cancelBinding(*pass);
  FSW_Queues& fsw = sync->fswQueue();
  SERVER_Queues& server = sync->serverQueue();

  // A running filter has taken the raw events out but not yet queued them.
  bool localThrough = fsw.RawCount() == 0 && !sync->fswQueueInProcess;
  if (localThrough) {
    std::lock_guard<std::mutex> lock(fsw.FSW_FQ_Lock);
    localThrough = !(sync->fswQueueIndex < static_cast<std::int32_t>(fsw.FQ_FilteredQueue.size()));
  }
  bool mayRun = false;
  if (localThrough) {
    // Test and set in one critical section: two passes never run together.
    std::lock_guard<std::mutex> lock(sync->Sync_Lock);
    // A signed-out account keeps its files but does not sync.
    if (!isSyncRunning && !syncWasPaused && !isSettingsApplying && CVConfiguration::Instance().IsSignedIn()) {
      isSyncRunning = true;
      mayRun = true;
    }
  }
  if (!mayRun) {
    // The loop is held while offline; the probe must not wait for it.
    if (isAppOffline && !syncWasPaused && CVConfiguration::Instance().IsSignedIn() && !CheckCVConnection()) {
      ReportPass(PassOutcome::Offline);
    }
    return;
  }

  sync->forceStopSync = false;
  // A pass that finds everything in step leaves no lines: an idle client would
  // otherwise log a screenful every pass, megabytes a day.
  CVEventLogger::HeldLines passLines;
  SyncListener::SendSyncStateChangedNotification(1);
  std::string passId = NewUuid();
  CVEventLogger::WriteMainLogMessage("[SyncNowSeparatedSelector] called\n" + passId);
  sync->syncedWithSomeErrors = false;
  sync->itemsLeftForLater = false;

  std::optional<PassOutcome> outcome;
  try {
    if (!CheckCVConnection()) {
      outcome = PassOutcome::Offline;
    } else {
      CVConfiguration& config = CVConfiguration::Instance();
      auto sites = config.SitesCopy();
      {
        std::lock_guard<std::mutex> lock(fsw.FSW_FQ_Lock);
        if (sync->fswQueueIndex < 1 ||
            sync->fswQueueIndex > static_cast<std::int32_t>(fsw.FQ_FilteredQueue.size())) {
          sync->fswQueueIndex = 0;  // once more over the local entries that failed
        }
      }
      std::int64_t passDate = clock_.WallNowSeconds();
      int storagesWithErrors = 0;
      bool cancelled = false;
      for (std::size_t index = 0; index < sites.size(); ++index) {
        SyncListener::SendSyncNumberChangedNotification(static_cast<std::int32_t>(index));
        std::string name;
        bool due;
        {
          std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
          CVSharepoint& site = *sites[index];
          name = site.Name;
          auto now = clock_.SteadyNow();
          auto interval = clock_.Scaled(std::chrono::seconds(config.Corvalink.SyncCV * 60));
          auto dueDate = site.prevFireDate == Clock::Steady::time_point::min()
                             ? site.prevFireDate
                             : site.prevFireDate +
                                   std::chrono::duration_cast<Clock::Steady::duration>(interval);
          due = !(now < dueDate);
          if (due) site.prevFireDate = now;
        }
        if (!due) continue;

        sync->SetCurrentStorageName(name);
        server.ClearServerQueues();
        bool handedWork = false;
        {
          std::lock_guard<std::mutex> lock(server.compareLock);
          server.Fill_NFQ_ForStorage(name);
          if (pass->IsCancelled()) {
            cancelled = true;
            break;
          }
          if (!server.siteOffline) {
            // Handed over before the work list fills: the loop may take its first
            // items at once, and a local change among them must find the pass waiting.
            sync->SetSQInProcess();
            handedWork = server.FilterNFQ(name);
            if (server.siteOffline) sync->sqInProcess = false;  // nothing was handed over
          }
        }
        if (!server.siteOffline) {
          if (handedWork) passLines.Keep();
          // The loop woke at the hand-over and found the list still empty: it sleeps
          // until told that the list is there (or that there is nothing to do).
          sync->WakeUp();
          sync->WaitForSQProcessEnding(pass.get());
          if (pass->IsCancelled()) {
            cancelled = true;
            break;
          }
          if (!sync->syncMainThreadShouldRun || !sync->mainLoopIsRunning) break;
          CVEventLogger::WriteMainLogMessage("WaitForSQProcessEnding method FINISHED");
        }
        if (sync->syncedWithSomeErrors) ++storagesWithErrors;
        if (isSettingsApplying) break;
      }
      sync->SetCurrentStorageName("");
      if (!cancelled) {
        if (storagesWithErrors > 0) {
          SetTooltip("Corvalink Sync. Synced with errors.");
          SetStatusIcon(6);
          SyncListener::SendSyncStateChangedNotification(0);
          outcome = PassOutcome::WithErrors;
        } else {
          config.SetLastSync(passDate);
          config.SaveConfigXML();
          const bool held = ShowHeldDeletions(server);
          if (held) {
            SyncListener::SendSyncStateChangedNotification(0);
          } else if (!sync->requiresQueueRefill) {
            std::string when = CVStaticHelpers::FormatDateTime(passDate);
            SetTooltip("Last synchronization: " + when);
            SetStatusIcon(2);
            SyncListener::SendSyncStateChangedNotification(0);
            mainLoop_.RunOnMain([&status = status_, when] {
              status.SetSyncNowTitle("Sync now (last update at " + when + ")");
            });
          }
          outcome = sync->itemsLeftForLater || held ? PassOutcome::ItemsLeft : PassOutcome::InStep;
        }
      }
    }
  } catch (const std::exception& error) {
    CVEventLogger::LogException(kClass, "SyncNowSeparatedSelector", error.what());
    outcome = PassOutcome::WithErrors;
  }
  isSyncRunning = false;
  if (outcome != PassOutcome::InStep) passLines.Keep();
  CVEventLogger::WriteMainLogMessage(passId);
  sync->serverQueue().firstTimeSyncPerformed = true;
  SaveStateFiles();
  if (outcome) ReportPass(*outcome);
}

void AppDelegate::SaveStateFiles() {
  // What a pass changed stands in the journals of the state files; the files
  // take it whole now, so that at rest they hold everything.
  DownloadedFilesStore::Instance().Fold();
  NewFilesStore::Instance().Fold();
  CVSelectiveSync::Instance().SaveIfChanged();
}

void AppDelegate::ResetSyncTime() {
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  for (auto& site : config.fSpSites) site->prevFireDate = Clock::Steady::time_point::min();
}

void AppDelegate::ResetSyncTime2() {
  CVConfiguration& config = CVConfiguration::Instance();
  auto now = clock_.SteadyNow();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  for (auto& site : config.fSpSites) site->prevFireDate = now;
}

void AppDelegate::pauseSync() {
  if (!syncWasPaused) {
    CVEventLogger::WriteMainLogMessage("Sync paused by the user");
    syncWasPaused = true;
    mainLoop_.RunOnMain([&status = status_] {
      status.SetPauseTitle("Start sync");
      status.SetSyncNowHidden(true);
    });
    SetTooltip("Corvalink Sync. Synchronization paused.");
    mainLoop_.RunOnMain([&status = status_] { UIFunctions::NotificationSyncPaused(status); });
  } else {
    CVEventLogger::WriteMainLogMessage("Sync resumed by the user");
    syncWasPaused = false;
    mainLoop_.RunOnMain([&status = status_] {
      status.SetPauseTitle("Pause sync");
      status.SetSyncNowHidden(false);
    });
    SetTooltip("Corvalink Sync");
    ResetSyncTime();
    SyncNow();
  }
}

bool AppDelegate::CheckCVConnection() {
  if (isCheckingConnection) {
    CVEventLogger::WriteMainLogMessage("Connection checking is already in progress...");
    // Woken when that check ends; no pause of its own after it.
    while (isCheckingConnection) connectionChecked_.Sleep(clock_, 300ms);
    CVEventLogger::WriteMainLogMessage("..checked");
    return !isAppOffline;
  }
  isCheckingConnection = true;
  // Cleared on every way out, an exception included.
  struct Guard {
    std::atomic<bool>& flag;
    WakeableSleep& waiters;
    ~Guard() {
      flag = false;
      waiters.Wake();
    }
  } guard{isCheckingConnection, connectionChecked_};
  try {
    CVEventLogger::WriteMainLogMessage("Starting to check CV Connection");
    bool succeeded = false;
    for (int attempt = 0; attempt < 2; ++attempt) {
      CVEventLogger::WriteMainLogMessage("CheckCVConnection ATTEMPT " + std::to_string(attempt));
      std::string token = connection_.CheckCVToken(ConnectionService::kMainTokenGuid);
      lastCVConnCheckTime = clock_.WallNowSeconds();
      if (token.empty()) break;
      std::string status = connection_.GetDeviceStatus(token);
      connection_.setDevStatus(status);
      CVEventLogger::WriteMainLogMessage("CheckCVConnection DEVSTATUS: " + status);
      if (status == "1;A") {
        if (isAppOffline) {
          // Coming online is news, whichever thread asked: a held pass keeps its lines.
          CVEventLogger::KeepHeldLines();
          SetTooltip("Corvalink Sync");
          SetStatusIcon(2);
        }
        isAppOffline = false;
        if (mainSyncObject_) mainSyncObject_->WakeUp();
        succeeded = true;
        std::lock_guard<std::mutex> lock(certificateLock_);
        certificateTold_.clear();
        break;
      }
      if (attempt == 0) connection_.RemoveCVToken(ConnectionService::kMainTokenGuid);
    }
    isCheckingConnection = false;
    if (!succeeded && CancelFlag::ThisThreadCancelled()) {
      // Stopped on the way, not refused: the state stays as it was.
      CVEventLogger::WriteMainLogMessage("CheckCVConnection stopped before an answer came");
      return !isAppOffline;
    }
    if (!succeeded) {
      if (auto problem = CertificateProblem()) {
        isAppOffline = true;
        TellCertificateProblem(*problem);
        return false;
      }
    }
    if (!succeeded && !isAppOffline.exchange(true)) {
      SetTooltip("Corvalink offline. Please check network connection or Corvalink credentials.");
      mainLoop_.RunOnMain([&status = status_] { UIFunctions::NotificationOffline(status); });
      SetStatusIcon(4);
    }
    return succeeded;
  } catch (const std::exception& error) {
    CVEventLogger::LogException(kClass, "CheckCVConnection", error.what());
    return false;
  }
}

std::string AppDelegate::GetWebServiceVersion(bool again) {
  if (again) return GetWebServiceVersionAgain();
  std::lock_guard<std::mutex> lock(versionLock_);
  return webServiceVersion_;
}

std::string AppDelegate::GetWebServiceVersionAgain() {
  if (CheckCVConnection()) {
    std::string version = connection_.GetVersion();
    std::lock_guard<std::mutex> lock(versionLock_);
    webServiceVersion_ = version;
  }
  std::lock_guard<std::mutex> lock(versionLock_);
  return webServiceVersion_;
}

void AppDelegate::FSWTimerThread() {
  workers_.Start([this] { FSWTimerSeparatedThread(); });
}

void AppDelegate::FSWTimerSeparatedThread() {
  SmartSync* sync = mainSyncObject_.get();
  if (!sync || !fswEventsHappened) return;
  auto quiet = clock_.Unscaled(std::chrono::nanoseconds(SteadyNanos(clock_) - lastFWSEventTimeStamp));
  // Whole seconds of quiet count: 4.9 seconds are too few.
  if (std::chrono::duration_cast<std::chrono::seconds>(quiet) < 5s) return;
  {
    std::lock_guard<std::mutex> lock(sync->Sync_Lock);
    if (sync->fswQueueInProcess) return;
    sync->fswQueueInProcess = true;
  }
  // Cleared only after winning the filter, so no event is forgotten.
  fswEventsHappened = false;
  needToRestartNFQ = false;
  for (;;) {
    bool operationRunning;
    {
      std::lock_guard<std::mutex> lock(sync->Sync_Lock);
      operationRunning = sync->fswOperationInProcess;
    }
    if (operationRunning) {
      clock_.Sleep(200ms);
      continue;
    }
    sync->fswQueue().FilterCurrentQueue();
    if (needToRestartNFQ.exchange(false)) continue;
    std::lock_guard<std::mutex> lock(sync->fswQueue().FSW_FQ_Lock);
    sync->fswQueueIndex = 0;
    break;
  }
  {
    std::lock_guard<std::mutex> lock(sync->Sync_Lock);
    sync->fswQueueInProcess = false;
  }
  // After the flag: the main loop waits for it as for the raw events.
  sync->WakeUp();
}

void AppDelegate::StartFSWsForCorvalink() {
  RunOnMainAndWait([this] {
    try {
      const std::string root = CVStaticHelpers::GenerateRootPathForStorages() + "/";
      std::vector<std::string> folders;
      for (const auto& site : CVConfiguration::Instance().SitesCopy()) {
        const std::string path = root + site->Name;
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (error) {
          CVEventLogger::WriteMainLogMessage("StartFSWsForCorvalink: cannot make " + path + ": " + error.message());
          continue;
        }
        folders.push_back(path);
      }
      if (folders.empty()) return;
      if (!makeEventStream_) {
        CVEventLogger::WriteMainLogMessage(
            "StartFSWsForCorvalink: no file system event stream in this run; local changes are found by the "
            "comparison");
        return;
      }
      if (stream) stream->Stop();
      stream = makeEventStream_([this](const std::vector<FileEvent>& events) { FSWEventsCallback(events); },
                                [this](FileEventTrouble trouble, const std::string& detail) {
                                  FSWStreamTrouble(trouble, detail);
                                });
      if (!stream || !stream->Start(folders)) {
        CVEventLogger::WriteMainLogMessage("Error occured during create of FSW stream: no folder could be watched");
        stream.reset();
      }
    } catch (const std::exception& error) {
      CVEventLogger::WriteMainLogMessage(std::string("Error occured during create of FSW stream: ") + error.what());
    }
  });
}

void AppDelegate::StopFSWsForStorages() {
  RunOnMainAndWait([this] {
    try {
      if (!stream) return;
      stream->Stop();
      stream.reset();
    } catch (const std::exception& error) {
      CVEventLogger::WriteMainLogMessage(std::string("Error occurred during stop of FSW stream: ") + error.what());
    }
  });
}

void AppDelegate::RunOnMainAndWait(const std::function<void()>& work) {
  if (mainLoop_.IsMainThread()) {
    work();
    return;
  }
  // The stream lives on the main thread: its callbacks run there, so it is made
  // and ended there too. Only workers wait here, never the main thread.
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  mainLoop_.Post([work, done] {
    work();
    done->set_value();
  });
  finished.wait();
}

namespace {
// Events on these never reach the queue: the system's own files, partial
// downloads and hidden files.
bool IsSkippedEventPath(const std::string& path) {
  auto endsWith = [&](const std::string& suffix) {
    return path.size() >= suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  if (endsWith("/.DS_Store") || endsWith(".cvtemp")) return true;
  std::size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return !name.empty() && name.front() == '.';
}

bool SomethingStandsAt(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}
}  // namespace

void AppDelegate::FSWEventsCallback(const std::vector<FileEvent>& events) {
  bool added = false;
  SmartSync* sync = mainSyncObject_.get();
  if (!sync) return;
  try {
    for (std::size_t i = 0; i < events.size(); ++i) {
      std::string path = events[i].path;
      const std::uint32_t flags = events[i].flags;
      const bool isFolder = (flags & fileevents::kIsDir) != 0;
      std::string target;
      bool pair = false;
      if ((flags & fileevents::kRenamed) && events.size() >= 2 && i + 1 < events.size() &&
          events[i + 1].id == events[i].id + 1) {
        target = events[i + 1].path;
        ++i;
        pair = !IsSkippedEventPath(target);
        if (!pair) target.clear();
      }
      // The rename's target stands for the whole event, as a plain item.
      auto onlyTarget = [&] {
        path = target;
        target.clear();
        pair = false;
      };
      std::int32_t code;
      if (IsSkippedEventPath(path)) {
        // An editor's save: a hidden temporary or swap file renamed over the
        // document. It is a change of the document, not nothing.
        if (!pair) continue;
        onlyTarget();
        code = NFQ_Modified;
        if (IsFileInProgress(path)) continue;
      } else {
        if (pair && IsFileInProgress(target)) continue;
        if (IsFileInProgress(path)) {
          if (!pair) continue;
          // The user renamed what the sync was still writing: the old name is the
          // sync's to mend, the new name is the user's and must not go unseen.
          onlyTarget();
          code = NFQ_Created;
        } else if (pair) {
          code = NFQ_Renamed;
        } else {
          const bool exists = SomethingStandsAt(path);
          if ((flags & fileevents::kCreated) && exists) {
            code = NFQ_Created;
          } else if ((flags & fileevents::kRemoved) && !exists) {
            code = NFQ_Deleted;
          } else if (flags & fileevents::kRenamed) {
            code = exists ? NFQ_Modified : NFQ_Deleted;
          } else if (flags & fileevents::kModified) {
            code = NFQ_Modified;
          } else {
            continue;
          }
        }
      }
      sync->fswQueue().AddFSWPath(path, isFolder, target, code);
      added = true;
    }
  } catch (const std::exception& error) {
    CVEventLogger::WriteMainLogMessage(std::string("FSW -> ") + error.what());
  }
  if (added) NoteFSWEvent();
}

void AppDelegate::FSWStreamTrouble(FileEventTrouble trouble, const std::string& detail) {
  CVEventLogger::WriteMainLogMessage("FSW trouble -> " + detail);
  std::string text;
  if (trouble == FileEventTrouble::Overflow) {
    text = "Too many changes came at once to follow them one by one. Corvalink Sync compares all "
           "storages with the server now.";
  } else {
    text = "Corvalink Sync cannot watch every folder for changes: the system's limit of watched folders "
           "is reached. Changes there are found by the regular comparison. To raise the limit, set "
           "fs.inotify.max_user_watches higher (for example with sysctl) and restart Corvalink Sync.";
  }
  mainLoop_.RunOnMain([&status = status_, text] { UIFunctions::ShowNotificationInTrayWithTitle(status, "Corvalink Sync", text); });
  // Lost events: the next pass compares everything, new local files included.
  if (SmartSync* sync = mainSyncObject_.get()) sync->serverQueue().firstTimeSyncPerformed = false;
  ResetSyncTime();
}

void AppDelegate::NoteFSWEvent() {
  lastFWSEventTimeStamp = SteadyNanos(clock_);
  fswEventsHappened = true;
}

void AppDelegate::ApplySettings(const std::function<void()>& change) {
  isSettingsApplying = true;
  StopFSWsForStorages();
  if (mainSyncObject_) {
    mainSyncObject_->StopMainSyncThread();
    while (mainSyncObject_->syncMainThreadShouldRun) clock_.Sleep(30ms);
  }
  try {
    change();
  } catch (const std::exception& error) {
    CVEventLogger::LogException(kClass, "ApplySettings", error.what());
  }
  StartFSWsForCorvalink();
  if (mainSyncObject_) mainSyncObject_->RunSyncThread();
  isSettingsApplying = false;
}

void AppDelegate::ForgetQueuedWork() {
  SmartSync* sync = mainSyncObject_.get();
  if (!sync) return;
  {
    std::lock_guard<std::mutex> lock(sync->fswQueue().FSW_NFQ_Lock);
    sync->fswQueue().NF_Queue.clear();
  }
  {
    std::lock_guard<std::mutex> lock(sync->fswQueue().FSW_FQ_Lock);
    sync->fswQueue().FQ_FilteredQueue.clear();
    sync->fswQueueIndex = 0;
  }
  sync->serverQueue().ClearServerQueues();
  fswEventsHappened = false;
}

void AppDelegate::applicationWillTerminate() {
  CVEventLogger::WriteMainLogMessage("\n***** Application ended ****");
  CVEventLogger::WriteMainLogMessage(CVEventLogger::DateText());
  StopFSWsForStorages();
  SaveStateFiles();
  CVEventLogger::killMyLock();
}

void AppDelegate::SetStatusIcon(int state) {
  mainLoop_.RunOnMain([&status = status_, state] { status.SetStatusIcon(state); });
}

void AppDelegate::SetTooltip(const std::string& text) {
  mainLoop_.RunOnMain([&status = status_, text] { status.SetTooltip(text); });
}

void AppDelegate::SyncNewEnable(bool hidden) {
  // Every pass sets it twice or more; the log tells only a change.
  if (syncNowHidden_.exchange(hidden ? 1 : 0) != (hidden ? 1 : 0)) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) +
                                       " - SyncNewEnable -> SyncNew button enable/desable statEnable: " +
                                       std::to_string(hidden ? 1 : 0));
  }
  mainLoop_.RunOnMain([&status = status_, hidden] { status.SetSyncNowHidden(hidden); });
}

void AppDelegate::NotifySyncError() {
  mainLoop_.RunOnMain([&status = status_] { UIFunctions::NotificationSyncError(status); });
}

void AppDelegate::NotifyUser(const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - NotifyUser -> " + text);
  mainLoop_.RunOnMain(
      [&status = status_, text] { UIFunctions::ShowNotificationInTrayWithTitle(status, "Corvalink Sync", text); });
}

bool AppDelegate::ShowHeldDeletions(SERVER_Queues& server) {
  const auto held = server.deletionGuard.AllHeld();
  TellHeldStorages(held);
  if (held.empty()) return false;
  SetTooltip(MassDeletionGuard::Describe(held.front()));
  SetStatusIcon(6);
  return true;
}

void AppDelegate::TellHeldStorages(const std::vector<MassDeletionGuard::Held>& held) {
  std::vector<std::string> storages;
  for (const auto& storage : held) storages.push_back(storage.storage);
  mainLoop_.RunOnMain([&status = status_, storages] { status.SetHeldDeletions(storages); });
}

std::vector<MassDeletionGuard::Held> AppDelegate::HeldDeletions() {
  SmartSync* sync = mainSyncObject();
  return sync ? sync->serverQueue().deletionGuard.AllHeld() : std::vector<MassDeletionGuard::Held>{};
}

std::size_t AppDelegate::AnswerHeldDeletions(const std::string& storage, bool confirm) {
  SmartSync* sync = mainSyncObject();
  if (!sync) return 0;
  MassDeletionGuard& guard = sync->serverQueue().deletionGuard;
  const std::size_t files = confirm ? guard.Confirm(storage) : guard.Decline(storage);
  if (files == 0) return 0;
  CVEventLogger::WriteSettingsLogMessage(std::string(confirm ? "Deletions confirmed" : "Deletions declined") +
                                         " for " + storage + ": " + std::to_string(files) + " files");
  TellHeldStorages(guard.AllHeld());
  syncNowCommand();
  return files;
}

std::optional<std::string> AppDelegate::CertificateProblem() { return connection_.CertificateProblem(); }

void AppDelegate::TellCertificateProblem(const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(certificateLock_);
    if (certificateTold_ == text) return;
    certificateTold_ = text;
  }
  SetTooltip(text);
  SetStatusIcon(6);
  NotifyUser(text);
}

void AppDelegate::NotifyDiskFull(const std::string& path) {
  if (diskFullNotified_.exchange(true)) return;
  const std::string name = std::filesystem::path(path).filename().string();
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - NotifyDiskFull -> no space left for " + path);
  mainLoop_.RunOnMain([&status = status_, name] {
    UIFunctions::ShowNotificationInTrayWithTitle(
        status, "Corvalink Sync",
        "The disk is full: \"" + name + "\" could not be downloaded. Free some space; the sync goes on by itself.");
  });
}

void AppDelegate::DiskHasRoom() { diskFullNotified_ = false; }

void AppDelegate::AddFileInProgress(const std::string& path) {
  std::lock_guard<std::recursive_mutex> lock(FilesInProgressLock);
  filesInProgress[path] = "1";
}

void AppDelegate::RemoveFileInProgress(const std::string& path) {
  std::lock_guard<std::recursive_mutex> lock(FilesInProgressLock);
  filesInProgress.erase(path);
}

namespace {
std::int64_t SteadyNowNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// What stands at a path, as far as telling the sync's own write from a later one goes.
// A folder is only a folder: its size and time move with every file the sync
// writes into it, and say nothing of a change of the folder itself.
std::string DiskState(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return "none";
  if (S_ISDIR(info.st_mode)) return "folder";
  return std::to_string(info.st_mode & S_IFMT) + ":" + std::to_string(info.st_size) + ":" +
         std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
}
}  // namespace

bool AppDelegate::IsFileInProgress(const std::string& path) {
  std::lock_guard<std::recursive_mutex> lock(FilesInProgressLock);
  if (filesInProgress.count(path) > 0) return true;
  auto recent = recentOwnPaths_.find(path);
  if (recent == recentOwnPaths_.end()) return false;
  if (recent->second.until <= SteadyNowNanos()) {
    recentOwnPaths_.erase(recent);
    return false;
  }
  // A late event of the sync's own write finds the disk as the operation left it;
  // a user's change made meanwhile does not, and must not be lost.
  return DiskState(path) == recent->second.state;
}

void AppDelegate::ReleaseFilesInProgress() {
  // Real time, not the program's scaled time: the kernel delivers at its own pace.
  const std::int64_t now = SteadyNowNanos();
  const std::int64_t until = now + std::chrono::nanoseconds(kOwnPathsGrace).count();
  std::lock_guard<std::recursive_mutex> lock(FilesInProgressLock);
  // Oldest first: what has expired stands at the front, whatever the number kept.
  while (!ownPathsExpiry_.empty() && ownPathsExpiry_.front().first <= now) {
    auto expired = recentOwnPaths_.find(ownPathsExpiry_.front().second);
    if (expired != recentOwnPaths_.end() && expired->second.until <= now) recentOwnPaths_.erase(expired);
    ownPathsExpiry_.pop_front();
  }
  for (const auto& entry : filesInProgress) {
    recentOwnPaths_[entry.first] = OwnPath{until, DiskState(entry.first)};
    ownPathsExpiry_.emplace_back(until, entry.first);
  }
  filesInProgress.clear();
}

void AppDelegate::SetPassFinishedHandler(std::function<void(PassOutcome)> handler) {
  std::lock_guard<std::mutex> lock(handlerLock_);
  passFinished_ = std::move(handler);
}

void AppDelegate::ReportPass(PassOutcome outcome) {
  std::function<void(PassOutcome)> handler;
  {
    std::lock_guard<std::mutex> lock(handlerLock_);
    handler = passFinished_;
  }
  if (handler) handler(outcome);
}
