#pragma once
// WindowWorker: how a window's controller makes its server calls. One call at a
// time: it gets the main token on a worker, runs the work there, and hands the
// work's result back through the main-thread hop while the controller lives.
// busy (the controller's flag) is true from the start until the result ran;
// a start while busy is dropped. Without a token the view is told noConnection.

#include <functional>
#include <memory>
#include <string>

#include "WorkerThreads.h"

class WindowWorker {
 public:
  using Post = std::function<void(std::function<void()>)>;
  using Work = std::function<std::function<void()>(const std::string& token)>;

  WindowWorker(Post toMain, std::function<std::string()> token, bool& busy, std::function<void()> changed,
               std::function<void()> noConnection);
  // Joins the workers; no result runs after this.
  ~WindowWorker();
  void Stop();

  void Run(Work work);

 private:
  Post toMain_;
  std::function<std::string()> token_;
  bool& busy_;
  std::function<void()> changed_, noConnection_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  WorkerThreads workers_;
};
