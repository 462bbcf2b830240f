#include "WindowWorker.h"

#include <exception>
#include <string>

#include "CVEventLogger.h"

WindowWorker::~WindowWorker() {
  alive_.reset();
  workers_.JoinAll();
}

void WindowWorker::Run(std::function<std::function<void()>()> work) {
  std::weak_ptr<int> alive = alive_;
  workers_.Start([work = std::move(work), alive, post = toMain_] {
    std::function<void()> done;
    try {
      done = work();
    } catch (const std::exception& failure) {
      CVEventLogger::WriteMainLogMessage(std::string("Sharing - worker -> ") + failure.what());
    }
    if (!done) return;
    post([alive, done] {
      if (alive.lock()) done();
    });
  });
}
