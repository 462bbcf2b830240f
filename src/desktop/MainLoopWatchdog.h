#pragma once
// MainLoopWatchdog: a diagnostic of the desktop client (CORVALINK_WATCHDOG_MS set).
// A thread of its own hands the main loop a heartbeat and measures how long the
// loop takes to run it; a heartbeat later than the limit means something on the
// main thread waited (the network, a lock of the sync) and is written to the main
// log as "Main loop stalled for N ms".

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

class MainLoop;

class MainLoopWatchdog {
 public:
  MainLoopWatchdog(MainLoop& loop, std::chrono::milliseconds limit);
  ~MainLoopWatchdog();
  MainLoopWatchdog(const MainLoopWatchdog&) = delete;
  MainLoopWatchdog& operator=(const MainLoopWatchdog&) = delete;

  // The longest wait of a heartbeat so far, and how many passed the limit.
  std::chrono::milliseconds longest() const { return std::chrono::milliseconds(longestMs_.load()); }
  int stalls() const { return stalls_.load(); }

 private:
  void Watch();

  // Shared with the heartbeats in the loop's queue, which may run after the
  // watchdog is gone (the loop drains late).
  struct Beats {
    std::mutex mutex;
    std::condition_variable answered;
    std::uint64_t last = 0;
    bool stop = false;
  };

  MainLoop& loop_;
  const std::chrono::milliseconds limit_;
  std::shared_ptr<Beats> beats_ = std::make_shared<Beats>();
  std::atomic<std::int64_t> longestMs_{0};
  std::atomic<int> stalls_{0};
  std::thread thread_;
};
