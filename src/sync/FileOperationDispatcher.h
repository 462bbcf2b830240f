#pragma once
// FileOperationDispatcher: carries out one work item of the main loop and gives
// its result code. The per-file operations implement it; the loop knows only this.

#include <cstdint>

#include "SyncRecords.h"

class SmartSync;

class FileOperationDispatcher {
 public:
  virtual ~FileOperationDispatcher() = default;
  virtual std::int32_t PerformNextFileOperation(SmartSync& sync, CVFileWithAction& item) = 0;
  // Asks the running transfer or server operation to end; returns at once.
  virtual void StopCurrentAction() {}
  virtual void StopDownloading() {}
  // Finishes what operations left waiting (downloads that land in batches);
  // the loop calls it when it runs out of work and when it stops.
  virtual void FinishPendingWork() {}
};
