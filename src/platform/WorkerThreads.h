#pragma once
// WorkerThreads: threads started for one job each (a sync pass, a filter tick, a
// probe). They run detached in spirit, but the owner joins them before it goes
// away, so no job outlives the objects it works on. Finished threads are reaped
// at each start.

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

class WorkerThreads {
 public:
  WorkerThreads() = default;
  ~WorkerThreads() { JoinAll(); }
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  void Start(std::function<void()> job);
  // Waits for every thread started so far.
  void JoinAll();
  std::size_t Running();

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void ReapLocked();

  std::mutex mutex_;
  std::list<Worker> workers_;
};

// A flag by which the starter of a job asks it to give up at its next check.
class CancelFlag {
 public:
  void Cancel() { cancelled_ = true; }
  bool IsCancelled() const { return cancelled_; }

 private:
  std::atomic<bool> cancelled_{false};
};
