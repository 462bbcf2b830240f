#pragma once
// WindowWorker: runs a window's server calls on worker threads and hands what
// each returns to the main thread, unless the window has gone by then. Stopping
// it (as its window closes) ends a call still on the wire at once and waits for
// the workers, so closing a window never waits on the server.
//
// ServerCallWorker: the same for a window that makes one call at a time with the
// main token: busy (the controller's flag) is true from the start until the
// result ran, and a start while busy is dropped; without a token the view is told
// noConnection.

#include <functional>
#include <memory>
#include <string>

#include "WorkerThreads.h"

class WindowWorker {
 public:
  using Post = std::function<void(std::function<void()>)>;

  // area names the worker's lines in the main log ("Sharing - worker -> ...").
  explicit WindowWorker(Post toMain, std::string area = "Sharing") : toMain_(std::move(toMain)), area_(std::move(area)) {}
  ~WindowWorker() { Stop(); }
  WindowWorker(const WindowWorker&) = delete;
  WindowWorker& operator=(const WindowWorker&) = delete;

  // work runs on a worker; the callback it returns, if any, on the main thread.
  void Run(std::function<std::function<void()>()> work);
  // From a worker: job runs on the main thread unless the window has gone by then.
  void ToMain(std::function<void()> job);
  // Stops the calls in progress and joins the workers; no result runs after this.
  void Stop();

 private:
  Post toMain_;
  std::string area_;
  CancelFlag cancel_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  const std::weak_ptr<int> aliveSeen_ = alive_;  // never written again: workers may read it
  WorkerThreads workers_;
};

class ServerCallWorker {
 public:
  using Post = WindowWorker::Post;
  using Work = std::function<std::function<void()>(const std::string& token)>;

  ServerCallWorker(Post toMain, std::function<std::string()> token, bool& busy, std::function<void()> changed,
                   std::function<void()> noConnection);

  void Run(Work work);
  void Stop() { worker_.Stop(); }

 private:
  std::function<std::string()> token_;
  bool& busy_;
  std::function<void()> changed_, noConnection_;
  WindowWorker worker_;  // last: joined before the rest goes away
};
