#pragma once
// Clock: the one source of time of the client. Every sleep, poll interval, timer
// period and time-out goes through it, so that tests and the demo can run the same
// logic faster with a time scale (durations are multiplied by the scale).
// Intervals use the steady clock; wall time is only for what is stored or shown.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

class Clock {
 public:
  using Steady = std::chrono::steady_clock;

  explicit Clock(double timeScale = 1.0);
  virtual ~Clock() = default;

  double timeScale() const { return timeScale_; }

  // A duration of the program's own (40 s, 200 ms...) as it passes on this clock.
  std::chrono::nanoseconds Scaled(std::chrono::nanoseconds specDuration) const;
  // A measured duration in the program's own time: the inverse of Scaled.
  std::chrono::nanoseconds Unscaled(std::chrono::nanoseconds measured) const;

  virtual Steady::time_point SteadyNow() const { return Steady::now(); }
  virtual std::chrono::system_clock::time_point WallNow() const {
    return std::chrono::system_clock::now();
  }
  // Whole seconds since 1 January 1970.
  std::int64_t WallNowSeconds() const;

  // Sleeps for a duration of the program's own, scaled.
  virtual void Sleep(std::chrono::nanoseconds specDuration) const;

 private:
  double timeScale_;
};

// A sleep on a clock that another thread may end early: a thread waits out its
// pause unless there is something for it to do first. A Wake that comes while
// nobody sleeps ends the next sleep at once, so that no wake is lost.
class WakeableSleep {
 public:
  // Sleeps for a duration of the program's own, scaled, or until Wake; true when woken.
  bool Sleep(const Clock& clock, std::chrono::nanoseconds specDuration);
  void Wake();

 private:
  std::mutex mutex_;
  std::condition_variable woken_;
  bool pending_ = false;
};
