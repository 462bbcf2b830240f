#include "ASIOperationQueue.h"

#include <algorithm>
#include <exception>

#include "ASIHTTPRequest.h"
#include "CVEventLogger.h"

ASIOperationQueue::ASIOperationQueue(int maxConcurrentOperationCount)
    : maxConcurrent_(std::max(1, maxConcurrentOperationCount)) {}

ASIOperationQueue::~ASIOperationQueue() {
  std::vector<std::shared_ptr<ASIHTTPRequest>> left;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    left.assign(waiting_.begin(), waiting_.end());
    left.insert(left.end(), running_.begin(), running_.end());
    waiting_.clear();
  }
  changed_.notify_all();
  // Their owners may be gone already: no event may reach them.
  for (auto& request : left) request->clearDelegatesAndCancel();
  for (auto& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
}

void ASIOperationQueue::addOperation(std::shared_ptr<ASIHTTPRequest> request) {
  if (!request) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    waiting_.push_back(std::move(request));
    // A new thread when the idle ones cannot take all that waits.
    if (static_cast<int>(waiting_.size()) > idle_ &&
        static_cast<int>(threads_.size()) < maxConcurrent_) {
      threads_.emplace_back([this] { Worker(); });
      ++idle_;  // counted as idle until it takes its first request
    }
  }
  changed_.notify_one();
}

std::size_t ASIOperationQueue::operationCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return waiting_.size() + running_.size();
}

std::size_t ASIOperationQueue::runningOperationCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_.size();
}

void ASIOperationQueue::cancelAllOperations() {
  std::vector<std::shared_ptr<ASIHTTPRequest>> all;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    all.assign(waiting_.begin(), waiting_.end());
    all.insert(all.end(), running_.begin(), running_.end());
  }
  // Outside the queue's lock: a cancel may deliver an event.
  for (auto& request : all) request->cancel();
}

void ASIOperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return waiting_.empty() && running_.empty(); });
}

void ASIOperationQueue::Worker() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
    if (stopping_) return;
    std::shared_ptr<ASIHTTPRequest> request = std::move(waiting_.front());
    waiting_.pop_front();
    --idle_;
    running_.push_back(request);
    lock.unlock();
    try {
      request->main();
    } catch (const std::exception& e) {
      CVEventLogger::LogException("ASIOperationQueue", "Worker", e.what());
    }
    lock.lock();
    running_.erase(std::find(running_.begin(), running_.end(), request));
    ++idle_;
    changed_.notify_all();
    // The last hold on a request may go here; its owner's objects go with it, and
    // they must not meet the queue's lock.
    lock.unlock();
    request.reset();
    lock.lock();
  }
}
