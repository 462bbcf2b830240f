#pragma once
// MainLoop: the run loop of the process's main thread. Timers, the file system
// event callback and every hop from a worker run on that one thread. The headless
// client and the tests use PollMainLoop; the desktop build puts its event loop
// behind the same interface.

#include <chrono>
#include <functional>

class MainLoop {
 public:
  using Callback = std::function<void()>;
  using TimerId = int;
  using WatchId = int;

  virtual ~MainLoop() = default;

  // A repeating timer; the period is a duration of the program's own and is
  // scaled by the loop's clock. With fireNow the first tick comes at once.
  virtual TimerId AddTimer(std::chrono::nanoseconds period, Callback callback, bool fireNow) = 0;
  virtual void CancelTimer(TimerId id) = 0;

  // Calls the callback on the main thread whenever the descriptor is readable.
  virtual WatchId AddReadWatch(int fd, Callback callback) = 0;
  virtual void RemoveReadWatch(WatchId id) = 0;

  // Queues a callback for the main thread; safe from any thread.
  virtual void Post(Callback callback) = 0;
  virtual bool IsMainThread() const = 0;

  // Runs until Quit; returns the code given to Quit.
  virtual int Run() = 0;
  virtual void Quit(int code) = 0;

  // A hop to the main thread: queued from a worker, run at once on the main thread.
  // Never waits, so a worker holding a lock cannot deadlock with the main thread.
  void RunOnMain(Callback callback) {
    if (IsMainThread()) {
      callback();
    } else {
      Post(std::move(callback));
    }
  }
};
