#pragma once
// WorkerThreads: threads started for one job each (a sync pass, a filter tick, a
// probe). They run detached in spirit, but the owner joins them before it goes
// away, so no job outlives the objects it works on. Finished threads are reaped
// at each start.

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

class WorkerThreads {
 public:
  WorkerThreads() = default;
  ~WorkerThreads() { JoinAll(); }
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  void Start(std::function<void()> job);
  // A window's job: work runs on a new thread and gives back what to do with
  // its result, which post runs on the window's thread unless alive has gone by
  // then. An exception of work goes to failed, on the worker, and nothing is posted.
  using Work = std::function<std::function<void()>()>;
  void StartWithReply(Work work, std::function<void(std::function<void()>)> post, std::weak_ptr<int> alive,
                      std::function<void(const char* what)> failed);
  // Waits for every thread started so far.
  void JoinAll();
  std::size_t Running();

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void ReapLocked();

  std::mutex mutex_;
  std::list<Worker> workers_;
};

// A flag by which the starter of a job asks it to give up at its next check.
// A thread working for the job binds the flag to itself (Binding), so that a
// call blocked deep below (a request on the wire) can hang a hook on it and end
// at once when the flag is raised, instead of at its own time-out.
class CancelFlag {
 public:
  using HookId = std::uint64_t;

  // Raises the flag and runs the hooks waiting on it, each once, on this thread.
  void Cancel();
  bool IsCancelled() const { return cancelled_; }
  // Lowers the flag for the job's next piece of work.
  void Reset() { cancelled_ = false; }

  // Keeps hook until Cancel or RemoveHook. 0, and nothing kept, when the flag is
  // raised already: the caller then gives up by itself.
  HookId AddHook(std::function<void()> hook);
  // A hook that Cancel has taken may still be running when this returns.
  void RemoveHook(HookId id);

  // The flag bound to the calling thread; null when none is.
  static CancelFlag* ForThisThread();
  // True when the calling thread's flag is raised.
  static bool ThisThreadCancelled();

  // Binds a flag to the calling thread for its lifetime; the previous binding
  // comes back after it.
  class Binding {
   public:
    explicit Binding(CancelFlag& flag);
    ~Binding();
    Binding(const Binding&) = delete;
    Binding& operator=(const Binding&) = delete;

   private:
    CancelFlag* previous_;
  };

 private:
  std::atomic<bool> cancelled_{false};
  std::mutex hooksLock_;
  std::map<HookId, std::function<void()>> hooks_;
  HookId nextHook_ = 1;
};
