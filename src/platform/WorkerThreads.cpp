#include "WorkerThreads.h"

#include <exception>

void WorkerThreads::Start(std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mutex_);
  ReapLocked();
  auto done = std::make_shared<std::atomic<bool>>(false);
  workers_.push_back(Worker{std::thread([job = std::move(job), done] {
                              job();
                              *done = true;
                            }),
                            done});
}

void WorkerThreads::StartWithReply(Work work, std::function<void(std::function<void()>)> post,
                                   std::weak_ptr<int> alive, std::function<void(const char* what)> failed) {
  Start([work = std::move(work), post = std::move(post), alive, failed = std::move(failed)] {
    std::function<void()> done;
    try {
      done = work();
    } catch (const std::exception& failure) {
      failed(failure.what());
    }
    if (!done) return;
    post([alive, done] {
      if (alive.lock()) done();
    });
  });
}

void WorkerThreads::ReapLocked() {
  for (auto it = workers_.begin(); it != workers_.end();) {
    if (*it->done) {
      it->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
}

void WorkerThreads::JoinAll() {
  // A job may start another job while we wait, so take the list in rounds.
  for (;;) {
    std::list<Worker> batch;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (workers_.empty()) return;
      batch.swap(workers_);
    }
    for (auto& worker : batch) {
      if (worker.thread.get_id() == std::this_thread::get_id()) {
        worker.thread.detach();  // a job that ends its own owner
      } else {
        worker.thread.join();
      }
    }
  }
}

std::size_t WorkerThreads::Running() {
  std::lock_guard<std::mutex> lock(mutex_);
  ReapLocked();
  return workers_.size();
}

namespace {
thread_local CancelFlag* tBoundFlag = nullptr;
}  // namespace

void CancelFlag::Cancel() {
  std::map<HookId, std::function<void()>> hooks;
  {
    std::lock_guard<std::mutex> lock(hooksLock_);
    cancelled_ = true;
    hooks.swap(hooks_);
  }
  // Outside the lock: a hook may wait for the call it ends, and that call
  // removes its hook on the way out.
  for (auto& [id, hook] : hooks) hook();
}

CancelFlag::HookId CancelFlag::AddHook(std::function<void()> hook) {
  std::lock_guard<std::mutex> lock(hooksLock_);
  if (cancelled_) return 0;
  HookId id = nextHook_++;
  hooks_.emplace(id, std::move(hook));
  return id;
}

void CancelFlag::RemoveHook(HookId id) {
  std::lock_guard<std::mutex> lock(hooksLock_);
  hooks_.erase(id);
}

CancelFlag* CancelFlag::ForThisThread() { return tBoundFlag; }

bool CancelFlag::ThisThreadCancelled() { return tBoundFlag != nullptr && tBoundFlag->IsCancelled(); }

CancelFlag::Binding::Binding(CancelFlag& flag) : previous_(tBoundFlag) { tBoundFlag = &flag; }

CancelFlag::Binding::~Binding() { tBoundFlag = previous_; }
