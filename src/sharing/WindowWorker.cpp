#include "WindowWorker.h"

#include "CVEventLogger.h"

WindowWorker::WindowWorker(Post toMain, std::function<std::string()> token, bool& busy,
                           std::function<void()> changed, std::function<void()> noConnection)
    : toMain_(std::move(toMain)),
      token_(std::move(token)),
      busy_(busy),
      changed_(std::move(changed)),
      noConnection_(std::move(noConnection)) {}

WindowWorker::~WindowWorker() { Stop(); }

void WindowWorker::Stop() {
  alive_.reset();
  workers_.JoinAll();
}

void WindowWorker::Run(Work work) {
  if (busy_ || !alive_) return;
  busy_ = true;
  changed_();
  std::weak_ptr<int> alive = alive_;
  workers_.Start([this, work = std::move(work), alive] {
    std::function<void()> done;
    try {
      const std::string token = token_();
      done = token.empty() || token.rfind("err", 0) == 0 ? noConnection_ : work(token);
    } catch (const std::exception& failure) {
      CVEventLogger::WriteMainLogMessage(std::string("Window worker -> ") + failure.what());
    }
    toMain_([this, alive, done] {
      if (!alive.lock()) return;
      busy_ = false;
      if (done) done();
      changed_();
    });
  });
}
