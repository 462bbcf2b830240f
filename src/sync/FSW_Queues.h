#pragma once
// FSW_Queues: the local change queue in its two stages. Raw events go into
// NF_Queue on the main thread; the filter folds them into FQ_FilteredQueue,
// which the main loop works through from the front (index in SmartSync).

#include <mutex>
#include <string>
#include <vector>

#include "SyncRecords.h"

class FSW_Queues {
 public:
  virtual ~FSW_Queues() = default;

  // Appends one raw event under FSW_NFQ_Lock.
  void AddFSWPath(const std::string& path, bool isFolder, const std::string& renameTo,
                  std::int32_t eventFlag);

  // Folds the raw events into the filtered queue.
  virtual void FilterCurrentQueue();

  std::size_t RawCount();
  std::size_t FilteredCount();

  std::vector<NFQ_File> NF_Queue;
  std::vector<NFQ_File> FQ_FilteredQueue;
  std::mutex FSW_NFQ_Lock;
  std::mutex FSW_FQ_Lock;  // also guards SmartSync::fswQueueIndex
};
