#include "MainLoopWatchdog.h"

#include "CVEventLogger.h"
#include "MainLoop.h"

MainLoopWatchdog::MainLoopWatchdog(MainLoop& loop, std::chrono::milliseconds limit)
    : loop_(loop), limit_(limit), thread_([this] { Watch(); }) {}

MainLoopWatchdog::~MainLoopWatchdog() {
  {
    std::lock_guard<std::mutex> lock(beats_->mutex);
    beats_->stop = true;
  }
  beats_->answered.notify_all();
  thread_.join();
}

void MainLoopWatchdog::Watch() {
  std::unique_lock<std::mutex> lock(beats_->mutex);
  for (std::uint64_t beat = 1; !beats_->stop; ++beat) {
    const auto sentAt = std::chrono::steady_clock::now();
    loop_.Post([beats = beats_, beat] {
      std::lock_guard<std::mutex> answer(beats->mutex);
      beats->last = beat;
      beats->answered.notify_all();
    });
    beats_->answered.wait(lock, [&] { return beats_->stop || beats_->last == beat; });
    if (beats_->stop) break;
    const auto waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - sentAt);
    if (waited.count() > longestMs_) longestMs_ = waited.count();
    if (waited > limit_) {
      ++stalls_;
      CVEventLogger::WriteMainLogMessage("Main loop stalled for " + std::to_string(waited.count()) + " ms");
    }
    beats_->answered.wait_for(lock, limit_ / 2, [&] { return beats_->stop; });
  }
}
