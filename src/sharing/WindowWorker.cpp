#include "WindowWorker.h"

#include <exception>

#include "CVEventLogger.h"

void WindowWorker::Stop() {
  alive_.reset();
  cancel_.Cancel();
  workers_.JoinAll();
}

void WindowWorker::Run(std::function<std::function<void()>()> work) {
  if (!alive_) return;
  auto bound = [this, work = std::move(work)] {
    CancelFlag::Binding binding(cancel_);
    return work();
  };
  workers_.StartWithReply(std::move(bound), toMain_, alive_, [area = area_](const char* what) {
    CVEventLogger::WriteMainLogMessage(area + " - worker -> " + what);
  });
}

void WindowWorker::ToMain(std::function<void()> job) {
  toMain_([alive = aliveSeen_, job = std::move(job)] {
    if (alive.lock()) job();
  });
}

ServerCallWorker::ServerCallWorker(Post toMain, std::function<std::string()> token, bool& busy,
                                   std::function<void()> changed, std::function<void()> noConnection)
    : token_(std::move(token)),
      busy_(busy),
      changed_(std::move(changed)),
      noConnection_(std::move(noConnection)),
      worker_(std::move(toMain)) {}

void ServerCallWorker::Run(Work work) {
  if (busy_) return;
  busy_ = true;
  changed_();
  worker_.Run([this, work = std::move(work)]() -> std::function<void()> {
    std::function<void()> done;
    // The flag comes down whatever the call did.
    try {
      const std::string token = token_();
      done = token.empty() || token.rfind("err", 0) == 0 ? noConnection_ : work(token);
    } catch (const std::exception& failure) {
      CVEventLogger::WriteMainLogMessage(std::string("Sharing - worker -> ") + failure.what());
    }
    return [this, done] {
      busy_ = false;
      if (done) done();
      changed_();
    };
  });
}
