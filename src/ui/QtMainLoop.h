#pragma once
// QtMainLoop: the engine's main loop on Qt's event loop, for the desktop client.
// Timers are QTimers, descriptors QSocketNotifiers, and posted callbacks queued
// calls on the thread that made the loop (the GUI thread).

#include <QObject>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "Clock.h"
#include "MainLoop.h"

class QEventLoop;
class QSocketNotifier;
class QTimer;

class QtMainLoop : public MainLoop {
 public:
  explicit QtMainLoop(const Clock& clock);
  ~QtMainLoop() override;
  QtMainLoop(const QtMainLoop&) = delete;
  QtMainLoop& operator=(const QtMainLoop&) = delete;

  TimerId AddTimer(std::chrono::nanoseconds period, Callback callback, bool fireNow) override;
  void CancelTimer(TimerId id) override;
  WatchId AddReadWatch(int fd, Callback callback) override;
  void RemoveReadWatch(WatchId id) override;
  void Post(Callback callback) override;
  bool IsMainThread() const override;
  // Runs Qt's event loop until Quit; windows closing do not end it.
  int Run() override;
  void Quit(int code) override;

 private:
  const Clock& clock_;
  QObject context_;  // lives on the main thread; queued calls run in its thread
  std::map<int, std::unique_ptr<QTimer>> timers_;
  std::map<int, std::unique_ptr<QSocketNotifier>> watches_;
  int nextId_ = 1;
  QEventLoop* running_ = nullptr;
  std::atomic<bool> quitRequested_{false};
  std::atomic<int> exitCode_{0};
};
