#include "WindowWorker.h"

#include <exception>

#include "CVEventLogger.h"

void WindowWorker::Stop() {
  alive_.reset();
  workers_.JoinAll();
}

void WindowWorker::Run(std::function<std::function<void()>()> work) {
  if (!alive_) return;
  workers_.StartWithReply(std::move(work), toMain_, alive_, [](const char* what) {
    CVEventLogger::WriteMainLogMessage(std::string("Sharing - worker -> ") + what);
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
