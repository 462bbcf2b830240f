#pragma once
// SettingsContext: what every settings operation shares: the control of the sync
// it changes, and the lock that lets one settings operation run at a time. The
// operations block; windows run them on a worker (RunInBackground) and get the
// outcome back on the main loop.

#include <functional>
#include <memory>
#include <mutex>

#include "MainLoop.h"
#include "SyncControl.h"
#include "WorkerThreads.h"

class SettingsContext {
 public:
  explicit SettingsContext(std::unique_ptr<SyncControl> control) : control_(std::move(control)) {}
  ~SettingsContext() { workers_.JoinAll(); }

  SyncControl& control() { return *control_; }
  // Held for the whole of one settings operation, network steps included.
  std::unique_lock<std::mutex> Exclusive() { return std::unique_lock<std::mutex>(lock_); }

  // Runs work on a worker thread and hands its result to done on the main loop.
  template <typename Result>
  void RunInBackground(MainLoop& loop, std::function<Result()> work, std::function<void(Result)> done) {
    workers_.Start([&loop, work = std::move(work), done = std::move(done)] {
      auto result = std::make_shared<Result>(work());
      loop.Post([done, result] { done(std::move(*result)); });
    });
  }

 private:
  std::unique_ptr<SyncControl> control_;
  std::mutex lock_;
  WorkerThreads workers_;  // last: joined before the rest goes away
};
