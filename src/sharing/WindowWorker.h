#pragma once
// WindowWorker: runs a window's server calls on worker threads and hands what
// each returns to the main thread, unless the window has gone by then. Its
// destructor waits for the workers still running.

#include <functional>
#include <memory>

#include "WorkerThreads.h"

class WindowWorker {
 public:
  using Post = std::function<void(std::function<void()>)>;

  explicit WindowWorker(Post toMain) : toMain_(std::move(toMain)) {}
  ~WindowWorker();
  WindowWorker(const WindowWorker&) = delete;
  WindowWorker& operator=(const WindowWorker&) = delete;

  // work runs on a worker; the callback it returns, if any, on the main thread.
  void Run(std::function<std::function<void()>()> work);

 private:
  Post toMain_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  WorkerThreads workers_;
};
