#pragma once
// A whole sync engine in one process: the real AppDelegate, SmartSync and main
// loop on a fast clock, with fakes for the server session, the listing and the
// per-file operations.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <filesystem>
#include <thread>
#include <vector>

#include "AppDelegate.h"
#include "CVConfiguration.h"
#include "Clock.h"
#include "ConnectionService.h"
#include "FakeStatusSink.h"
#include "FileOperationDispatcher.h"
#include "PollMainLoop.h"
#include "SERVER_Queues.h"
#include "SmartSync.h"
#include "CVStaticHelpers.h"
#include "SyncListenerAddInfo.h"
#include "TempHome.h"

class FakeConnection : public ConnectionService {
 public:
  std::string CheckCVToken(const std::string&) override {
    ++tokenRequests;
    std::lock_guard<std::mutex> lock(mutex);
    return token;
  }
  void RemoveCVToken(const std::string&) override { ++tokenRemovals; }
  std::string GetDeviceStatus(const std::string&) override {
    ++statusRequests;
    std::lock_guard<std::mutex> lock(mutex);
    if (statuses.empty()) return "1;A";
    std::string next = statuses.front();
    if (statuses.size() > 1) statuses.erase(statuses.begin());
    return next;
  }
  void setDevStatus(const std::string&) override {}
  std::string GetVersion() override {
    ++versionRequests;
    return "6.1.0.0";
  }
  void SetOnline(bool online) {
    std::lock_guard<std::mutex> lock(mutex);
    token = online ? "token-1" : "";
  }

  std::mutex mutex;
  std::string token = "token-1";
  std::vector<std::string> statuses;  // the last one repeats
  std::atomic<int> tokenRequests{0}, tokenRemovals{0}, statusRequests{0}, versionRequests{0};
};

// A listing per storage: FilterNFQ puts the storage's items in the work list.
class FakeServerQueues : public SERVER_Queues {
 public:
  void Fill_NFQ_ForStorage(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex);
    fills.push_back(name);
    siteOffline = listings.count(name) == 0;
  }
  bool FilterNFQ(const std::string& name) override {
    std::vector<CVFileWithAction> items;
    {
      std::lock_guard<std::mutex> lock(mutex);
      items = listings[name];
    }
    std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
    for (auto& item : items) SQ_ServerQueue.push_back(item);
    return !items.empty();
  }
  std::vector<std::string> Fills() {
    std::lock_guard<std::mutex> lock(mutex);
    return fills;
  }

  std::mutex mutex;
  std::map<std::string, std::vector<CVFileWithAction>> listings;
  std::vector<std::string> fills;
};

// Records each item; a local item that is done leaves the queue, as the real
// operations do. An item can be held until the loop is asked to stop.
class RecordingDispatcher : public FileOperationDispatcher {
 public:
  std::int32_t PerformNextFileOperation(SmartSync& sync, CVFileWithAction& item) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      done.push_back((item.isFSWAction ? "L:" : "S:") + item.nFilePath);
    }
    if (item.nFilePath == holdPath) {
      std::unique_lock<std::mutex> lock(mutex);
      held = true;
      changed.notify_all();
      changed.wait(lock, [&] { return stopAsked; });
    }
    if (hook) hook(sync, item);
    if (item.isFSWAction) sync.RemoveFileFromFSWArrayQueue();
    return result;
  }
  void StopCurrentAction() override {
    std::lock_guard<std::mutex> lock(mutex);
    stopAsked = true;
    changed.notify_all();
  }
  void StopDownloading() override { StopCurrentAction(); }

  std::vector<std::string> Done() {
    std::lock_guard<std::mutex> lock(mutex);
    return done;
  }
  bool WaitHeld() {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&] { return held; });
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> done;
  std::string holdPath;
  bool held = false;
  bool stopAsked = false;
  std::int32_t result = SYNC_RETURN_OK;
  std::function<void(SmartSync&, CVFileWithAction&)> hook;
};

inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

inline CVFileWithAction ServerItem(const std::string& path, std::int32_t action = FWA_DownloadFromServer) {
  CVFileWithAction item;
  item.nFilePath = path;
  item.fileAction = action;
  return item;
}

inline NFQ_File LocalEntry(const std::string& path, std::int32_t action = NFQ_Created) {
  NFQ_File entry;
  entry.nFilePath = path;
  entry.fileAction = action;
  return entry;
}

class SyncFixture : public ::testing::Test {
 protected:
  // adjust: a derived fixture's changes to the application's dependencies.
  explicit SyncFixture(const std::function<void(AppDelegate::Dependencies&)>& adjust = nullptr) {
    // A signed-in account: the fake connection answers for its server.
    CVConnection& account = CVConfiguration::Instance().Corvalink;
    account.Url = "http://server.test/";
    account.UserName = "alice";
    account.Password = "secret";
    loopThread = std::thread([this] { loop.Run(); });
    Drain();  // the loop thread is the main thread from here on
    AppDelegate::Dependencies deps{clock, loop, status, connection, &dispatcher, "9.9.9",
                                   [this] {
                                     auto queues = std::make_unique<FakeServerQueues>();
                                     server = queues.get();
                                     return queues;
                                   },
                                   nullptr, nullptr, nullptr};
    if (adjust) adjust(deps);
    app = std::make_unique<AppDelegate>(std::move(deps));
  }
  ~SyncFixture() override {
    app.reset();
    loop.Quit(0);
    loopThread.join();
  }

  void AddStorage(const std::string& name) {
    auto site = std::make_shared<CVSharepoint>();
    site->Name = name;
    auto& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    config.fSpSites.push_back(site);
  }
  // As a filter leaves the queue: the entry added, the loop's index back at the front.
  void AddLocal(const NFQ_File& entry) {
    std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_FQ_Lock);
    sync().fswQueue().FQ_FilteredQueue.push_back(entry);
    sync().fswQueueIndex = 0;
  }
  void RunPass() { app->SyncNowSeparatedSelector(std::make_shared<CancelFlag>()); }
  SmartSync& sync() { return *app->mainSyncObject(); }
  // Waits until every hop posted so far has reached the status sink.
  void Drain() {
    std::atomic<bool> ran{false};
    loop.Post([&ran] { ran = true; });
    WaitUntil([&ran] { return ran.load(); });
  }

  TempHome home;
  Clock clock{0.001};
  PollMainLoop loop{clock};
  std::thread loopThread;
  FakeStatusSink status;
  FakeConnection connection;
  RecordingDispatcher dispatcher;
  FakeServerQueues* server = nullptr;
  std::unique_ptr<AppDelegate> app;
};
