#pragma once
// SERVER_Queues: turns the listing of one storage into work items for the main
// loop. NFSQ_ServerQueue holds the raw listing, SQ_ServerQueue the work list.
// Fill and Filter of a storage run under compareLock, whether the scheduler or the
// loop's refill calls them, so two comparisons never interleave.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "SyncRecords.h"

class SERVER_Queues {
 public:
  virtual ~SERVER_Queues() = default;

  // Fills NFSQ_ServerQueue with the storage's listing and sets siteOffline.
  virtual void Fill_NFQ_ForStorage(const std::string& storageName);
  // Fills SQ_ServerQueue from NFSQ_ServerQueue; only when siteOffline is clear.
  virtual void FilterNFQ(const std::string& storageName);

  void ClearServerQueues();
  std::size_t ServerQueueSize();

  std::vector<CVFileForCompare> NFSQ_ServerQueue;
  std::vector<CVFileWithAction> SQ_ServerQueue;
  std::atomic<bool> siteOffline{false};
  std::atomic<bool> firstTimeSyncPerformed{false};
  std::mutex SQ_NFQ_Lock;
  std::mutex SQ_FQ_Lock;
  std::mutex compareLock;
};
