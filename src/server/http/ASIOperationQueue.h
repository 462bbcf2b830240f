#pragma once
// ASIOperationQueue: runs requests on threads of its own, at most
// maxConcurrentOperationCount at a time, in the order they came. The threads stay
// for the next request, so each keeps its connections. The requests' events
// arrive on these threads. The queue keeps each request alive while it waits and
// runs; destroying a queue cancels what it holds (without events) and joins.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class ASIHTTPRequest;

class ASIOperationQueue {
 public:
  explicit ASIOperationQueue(int maxConcurrentOperationCount = 4);
  ~ASIOperationQueue();
  ASIOperationQueue(const ASIOperationQueue&) = delete;
  ASIOperationQueue& operator=(const ASIOperationQueue&) = delete;

  void addOperation(std::shared_ptr<ASIHTTPRequest> request);
  int maxConcurrentOperationCount() const { return maxConcurrent_; }
  // Waiting and running requests.
  std::size_t operationCount();
  std::size_t runningOperationCount();
  // Cancels every request it holds; each fails with code 4 if it has a delegate.
  void cancelAllOperations();
  void waitUntilAllOperationsAreFinished();

 private:
  void Worker();

  const int maxConcurrent_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::shared_ptr<ASIHTTPRequest>> waiting_;
  std::vector<std::shared_ptr<ASIHTTPRequest>> running_;
  std::vector<std::thread> threads_;
  int idle_ = 0;
  bool stopping_ = false;
};
