#pragma once
// PollMainLoop: a MainLoop on poll(2) with one timerfd per timer and an eventfd
// for posted callbacks. The thread that calls Run is the main thread.

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "Clock.h"
#include "MainLoop.h"

class PollMainLoop : public MainLoop {
 public:
  explicit PollMainLoop(const Clock& clock);
  ~PollMainLoop() override;
  PollMainLoop(const PollMainLoop&) = delete;
  PollMainLoop& operator=(const PollMainLoop&) = delete;

  TimerId AddTimer(std::chrono::nanoseconds period, Callback callback, bool fireNow) override;
  void CancelTimer(TimerId id) override;
  WatchId AddReadWatch(int fd, Callback callback) override;
  void RemoveReadWatch(WatchId id) override;
  void Post(Callback callback) override;
  bool IsMainThread() const override;
  int Run() override;
  void Quit(int code) override;

 private:
  struct Source {
    int fd = -1;
    bool ownsFd = false;  // timers own their timerfd
    Callback callback;
  };

  void Wake();
  void RunPosted();

  const Clock& clock_;
  int wakeFd_ = -1;
  std::mutex mutex_;  // guards sources_, posted_, nextId_
  std::map<int, Source> sources_;
  std::deque<Callback> posted_;
  int nextId_ = 1;
  std::atomic<bool> quit_{false};
  std::atomic<int> exitCode_{0};
  std::atomic<std::thread::id> mainThread_;
};
