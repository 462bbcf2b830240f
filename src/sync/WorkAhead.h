#pragma once
// WorkAhead: the next few transfers of the work list run on threads of their
// own while the loop is busy with the one before, so that a run of small files
// does not cost one round trip after another. The loop still takes every item
// in order and, reaching one that runs here, takes its end instead of starting
// it again. Each transfer has a worker of its own, which a stop reaches. The
// threads stay for the next transfers, so that each keeps its connections.
//
// Start, Take and Finish belong to the loop thread; Stop may come from any.

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <iterator>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "SyncRecords.h"

template <class Worker, class Outcome>
class WorkAhead {
 public:
  using Make = std::function<std::shared_ptr<Worker>()>;
  // Runs one transfer with its worker; on a thread of its own.
  using Run = std::function<Outcome(const CVFileWithAction&, Worker&)>;
  // Ends a worker's transfer at once; from any thread.
  using Halt = std::function<void(Worker&)>;
  using Qualifies = std::function<bool(const CVFileWithAction&)>;

  WorkAhead(std::size_t most, Make make, Run run, Halt halt)
      : most_(most), make_(std::move(make)), run_(std::move(run)), halt_(std::move(halt)) {}
  ~WorkAhead() {
    Finish();
    {
      std::lock_guard<std::mutex> lock(tasksLock_);
      closing_ = true;
    }
    tasksChanged_.notify_all();
    for (auto& thread : threads_) thread.join();
  }
  WorkAhead(const WorkAhead&) = delete;
  WorkAhead& operator=(const WorkAhead&) = delete;

  // Starts the items of next that qualify and do not run yet, up to `most` at a
  // time. With leadingOnly, only those before the first item that does not
  // qualify: nothing then overtakes an item that must come first, and what
  // runs for an item that is no longer in next is of a list built again since;
  // it is stopped and dropped first.
  void Start(const std::vector<CVFileWithAction>& next, const Qualifies& qualifies, bool leadingOnly) {
    if (leadingOnly) DropAllBut(next);
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& item : next) {
      if (entries_.size() >= most_) break;
      if (RunningFor(item)) continue;
      if (!qualifies(item)) {
        if (leadingOnly) break;
        continue;
      }
      auto worker = make_();
      if (!worker) break;
      std::packaged_task<Outcome()> task([run = run_, worker, item] { return run(item, *worker); });
      entries_.push_back(Entry{item, worker, task.get_future()});
      Hand(std::move(task));
    }
  }

  // The end of what was started here for this item's path, waited for, with
  // the item it ran for; nothing when none was started. With sameVersionOnly,
  // one started for another size or time of the file is stopped and dropped.
  std::optional<std::pair<CVFileWithAction, Outcome>> Take(const CVFileWithAction& item, bool sameVersionOnly) {
    Entry entry;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto found = std::find_if(entries_.begin(), entries_.end(),
                                [&](const Entry& running) { return running.item.nFilePath == item.nFilePath; });
      if (found == entries_.end()) return std::nullopt;
      entry = std::move(*found);
      entries_.erase(found);
    }
    if (sameVersionOnly && (entry.item.fileSize != item.fileSize || entry.item.dateModified != item.dateModified)) {
      // The list was built again meanwhile and wants another version.
      halt_(*entry.worker);
      entry.result.wait();
      return std::nullopt;
    }
    return std::make_pair(std::move(entry.item), entry.result.get());
  }

  // Ends every transfer that runs here at once. Returns at once.
  void Stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : entries_) halt_(*entry.worker);
  }

  // The ends of everything started here, waited for, in the order started.
  std::vector<std::pair<CVFileWithAction, Outcome>> TakeAll() {
    std::vector<Entry> left;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      left.swap(entries_);
    }
    std::vector<std::pair<CVFileWithAction, Outcome>> ends;
    for (auto& entry : left) ends.emplace_back(std::move(entry.item), entry.result.get());
    return ends;
  }

  // Stops and waits for what still runs, which the loop never took; gives how many.
  std::size_t Finish() {
    Stop();
    return TakeAll().size();
  }

  // True when something runs here for the item's path.
  bool Holds(const CVFileWithAction& item) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return RunningFor(item);
  }

  std::size_t Running() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
  }

 private:
  struct Entry {
    CVFileWithAction item;
    std::shared_ptr<Worker> worker;
    std::future<Outcome> result;
  };

  void DropAllBut(const std::vector<CVFileWithAction>& next) {
    std::vector<Entry> stale;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto kept = std::stable_partition(entries_.begin(), entries_.end(), [&](const Entry& entry) {
        return std::any_of(next.begin(), next.end(),
                           [&](const CVFileWithAction& item) { return item.nFilePath == entry.item.nFilePath; });
      });
      std::move(kept, entries_.end(), std::back_inserter(stale));
      entries_.erase(kept, entries_.end());
    }
    for (auto& entry : stale) halt_(*entry.worker);
    for (auto& entry : stale) entry.result.wait();
  }

  // At most `most` transfers run or wait at a time, so a thread is there for each.
  void Hand(std::packaged_task<Outcome()> task) {
    {
      std::lock_guard<std::mutex> lock(tasksLock_);
      tasks_.push_back(std::move(task));
    }
    tasksChanged_.notify_one();
    if (threads_.size() < most_) threads_.emplace_back([this] { Serve(); });
  }

  void Serve() {
    for (;;) {
      std::packaged_task<Outcome()> task;
      {
        std::unique_lock<std::mutex> lock(tasksLock_);
        tasksChanged_.wait(lock, [this] { return closing_ || !tasks_.empty(); });
        if (tasks_.empty()) return;
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      task();
    }
  }

  bool RunningFor(const CVFileWithAction& item) const {
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const Entry& entry) { return entry.item.nFilePath == item.nFilePath; });
  }

  const std::size_t most_;
  Make make_;
  Run run_;
  Halt halt_;
  mutable std::mutex mutex_;  // guards entries_ against Stop from another thread
  std::vector<Entry> entries_;
  std::mutex tasksLock_;  // guards tasks_ and closing_
  std::condition_variable tasksChanged_;
  std::deque<std::packaged_task<Outcome()>> tasks_;
  bool closing_ = false;
  std::vector<std::thread> threads_;  // the loop thread's only
};
