#include "PollMainLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <vector>

PollMainLoop::PollMainLoop(const Clock& clock) : clock_(clock) {
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  // Until Run is called, the creating thread counts as the main thread.
  mainThread_ = std::this_thread::get_id();
}

PollMainLoop::~PollMainLoop() {
  for (auto& [id, source] : sources_) {
    if (source.ownsFd) close(source.fd);
  }
  close(wakeFd_);
}

MainLoop::TimerId PollMainLoop::AddTimer(std::chrono::nanoseconds period, Callback callback,
                                         bool fireNow) {
  int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
  auto scaled = clock_.Scaled(period);
  if (scaled.count() <= 0) scaled = std::chrono::nanoseconds(1);
  itimerspec spec{};
  spec.it_interval.tv_sec = static_cast<time_t>(scaled.count() / 1000000000);
  spec.it_interval.tv_nsec = static_cast<long>(scaled.count() % 1000000000);
  spec.it_value = spec.it_interval;
  if (fireNow) {
    spec.it_value.tv_sec = 0;
    spec.it_value.tv_nsec = 1;
  }
  timerfd_settime(fd, 0, &spec, nullptr);
  int id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = nextId_++;
    sources_[id] = Source{fd, true, std::move(callback)};
  }
  Wake();
  return id;
}

void PollMainLoop::CancelTimer(TimerId id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sources_.find(id);
  if (it == sources_.end()) return;
  if (it->second.ownsFd) close(it->second.fd);
  sources_.erase(it);
}

MainLoop::WatchId PollMainLoop::AddReadWatch(int fd, Callback callback) {
  int id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = nextId_++;
    sources_[id] = Source{fd, false, std::move(callback)};
  }
  Wake();
  return id;
}

void PollMainLoop::RemoveReadWatch(WatchId id) { CancelTimer(id); }

void PollMainLoop::Post(Callback callback) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    posted_.push_back(std::move(callback));
  }
  Wake();
}

bool PollMainLoop::IsMainThread() const { return std::this_thread::get_id() == mainThread_.load(); }

void PollMainLoop::Wake() {
  std::uint64_t one = 1;
  ssize_t written = write(wakeFd_, &one, sizeof one);
  (void)written;  // a full counter already means "wake up"
}

void PollMainLoop::RunPosted() {
  std::deque<Callback> batch;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    batch.swap(posted_);
  }
  for (auto& callback : batch) callback();
}

int PollMainLoop::Run() {
  mainThread_ = std::this_thread::get_id();
  quit_ = false;
  while (!quit_) {
    std::vector<pollfd> fds;
    std::vector<int> ids;
    fds.push_back({wakeFd_, POLLIN, 0});
    ids.push_back(0);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (auto& [id, source] : sources_) {
        fds.push_back({source.fd, POLLIN, 0});
        ids.push_back(id);
      }
    }
    int ready = poll(fds.data(), fds.size(), -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    if (fds[0].revents & POLLIN) {
      std::uint64_t count;
      ssize_t got = read(wakeFd_, &count, sizeof count);
      (void)got;
      RunPosted();
    }
    for (std::size_t i = 1; i < fds.size() && !quit_; ++i) {
      if (!(fds[i].revents & (POLLIN | POLLERR | POLLHUP))) continue;
      Callback callback;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = sources_.find(ids[i]);
        if (it == sources_.end()) continue;  // cancelled by an earlier callback
        if (it->second.ownsFd) {
          std::uint64_t expirations;
          ssize_t got = read(it->second.fd, &expirations, sizeof expirations);
          if (got != static_cast<ssize_t>(sizeof expirations)) continue;
        }
        callback = it->second.callback;
      }
      callback();
    }
  }
  RunPosted();
  return exitCode_;
}

void PollMainLoop::Quit(int code) {
  exitCode_ = code;
  quit_ = true;
  Wake();
}
