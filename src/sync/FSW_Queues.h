#pragma once
// FSW_Queues: the local change queue in its two stages. Raw events go into
// NF_Queue on the main thread; the filter folds them into FQ_FilteredQueue,
// which the main loop works through from the front (index in SmartSync).
//
// The filter is not incremental: each run takes the whole filtered queue out and
// folds it again with the new events, so that a new event can cancel or re-aim an
// entry of an earlier run. The result is saved to NewFiles.xml after each run.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "CVFileForCompareMethods.h"
#include "SyncRecords.h"

class FSW_Queues {
 public:
  // needToRestartNFQ: the delegate's flag, set when events came during a filter.
  explicit FSW_Queues(std::atomic<bool>* needToRestartNFQ = nullptr);
  virtual ~FSW_Queues() = default;

  // Appends one raw event under FSW_NFQ_Lock.
  void AddFSWPath(const std::string& path, bool isFolder, const std::string& renameTo,
                  std::int32_t eventFlag);

  // Folds the raw events into the filtered queue.
  virtual void FilterCurrentQueue();
  void FilterPaths();
  void FilterPaths(std::vector<NFQ_File> rawEvents);

  // Stage 2: what waits on a renamed path comes to stand behind the rename.
  static std::vector<NFQ_File> FilterPathsRenames(const std::vector<NFQ_File>& queue);
  // Stage 3: deletions cancel what waits below them, duplicates fold, known
  // files of unchanged size and time drop out.
  static std::vector<NFQ_File> PostFilterPaths(const std::vector<NFQ_File>& queue,
                                               const std::vector<CVFileForCompare>& serverArray);

  // Re-aims both queues after a storage was renamed; the sync is stopped.
  void RenameFilesInQueue(const std::string& oldName, const std::string& newName);

  static void printNFQueue(const std::vector<NFQ_File>& queue, const std::string& prefix);

  static bool IsFileInServerArray(const std::string& path, const std::vector<CVFileForCompare>& array);
  static bool IsFileInServerArray(const std::string& path, const CVFileForCompareMethods::PathIndex& index);
  static bool IsFileChanged(const std::string& path, const std::vector<CVFileForCompare>& array);
  static bool IsFileChanged(const std::string& path, const std::vector<CVFileForCompare>& array,
                            const CVFileForCompareMethods::PathIndex& index);
  // True when both paths lie in the same storage.
  static bool IsSitesSame(const std::string& path, const std::string& oldPath);
  // True when the path is a storage folder itself.
  static bool RootItem(const std::string& path);

  std::size_t RawCount();
  std::size_t FilteredCount();

  std::vector<NFQ_File> NF_Queue;
  std::vector<NFQ_File> FQ_FilteredQueue;
  std::mutex FSW_NFQ_Lock;
  std::mutex FSW_FQ_Lock;  // also guards SmartSync::fswQueueIndex

 private:
  std::atomic<bool>* needToRestartNFQ_;
};
