#pragma once
// MainQueue: the main thread of a test. Workers post callbacks; the test runs
// them on its own thread until what it waits for has happened.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

class MainQueue {
 public:
  std::function<void(std::function<void()>)> Post() {
    return [this](std::function<void()> callback) {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(std::move(callback));
      posted_.notify_all();
    };
  }

  // Runs the posted callbacks until done() holds; false when it does not within 20 s.
  bool RunUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!posted_.wait_until(lock, deadline, [this] { return !queue_.empty(); })) return false;
      auto callback = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      callback();
      ++ran_;
    }
    return true;
  }
  // Runs what has been posted so far.
  void RunPending() {
    std::deque<std::function<void()>> pending;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending.swap(queue_);
    }
    for (auto& callback : pending) {
      callback();
      ++ran_;
    }
  }
  // How many callbacks have run.
  int ran() const { return ran_; }

 private:
  int ran_ = 0;
  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::function<void()>> queue_;
};
