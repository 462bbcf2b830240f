#include "Clock.h"

#include <thread>

Clock::Clock(double timeScale) : timeScale_(timeScale > 0 ? timeScale : 1.0) {}

std::chrono::nanoseconds Clock::Scaled(std::chrono::nanoseconds specDuration) const {
  if (timeScale_ == 1.0) return specDuration;
  return std::chrono::nanoseconds(
      static_cast<std::int64_t>(static_cast<double>(specDuration.count()) * timeScale_));
}

std::chrono::nanoseconds Clock::Unscaled(std::chrono::nanoseconds measured) const {
  if (timeScale_ == 1.0) return measured;
  return std::chrono::nanoseconds(
      static_cast<std::int64_t>(static_cast<double>(measured.count()) / timeScale_));
}

std::int64_t Clock::WallNowSeconds() const {
  return std::chrono::duration_cast<std::chrono::seconds>(WallNow().time_since_epoch()).count();
}

void Clock::Sleep(std::chrono::nanoseconds specDuration) const {
  std::this_thread::sleep_for(Scaled(specDuration));
}

bool WakeableSleep::Sleep(const Clock& clock, std::chrono::nanoseconds specDuration) {
  std::unique_lock<std::mutex> lock(mutex_);
  const bool woken = woken_.wait_for(lock, clock.Scaled(specDuration), [this] { return pending_; });
  pending_ = false;
  return woken;
}

void WakeableSleep::Wake() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_ = true;
  }
  woken_.notify_all();
}
