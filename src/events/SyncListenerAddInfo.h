#pragma once
// SyncListenerAddInfo: the shared record of how far the sync has come. The sync
// thread and the transfer callbacks write it while windows read it, so every
// field sits behind one mutex and readers take a Snapshot.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

struct SyncProgressSnapshot {
  std::int32_t currentSyncState = 0;
  std::int32_t currentSiteNumber = 0;
  std::int32_t totalFilesNumber = 0;
  std::int32_t processedFilesCount = 0;
  std::int64_t currentFileSize = 0;
  std::int64_t currentFileProgress = 0;
  std::string currentFileName;
  std::optional<std::int64_t> PU_FullFileSize;
  std::optional<std::int64_t> PU_Step;
  std::optional<std::int64_t> PU_PartSize;
  std::string currentFileActionType;
  std::optional<std::string> lastSync;
};

class SyncListenerAddInfo {
 public:
  static void CreateStaticInstance();
  static SyncListenerAddInfo& Instance();
  static void ResetForTests();

  SyncProgressSnapshot Snapshot() const;

  // Changes the record under its lock.
  template <typename Change>
  void Update(Change&& change) {
    std::lock_guard<std::mutex> lock(mutex_);
    change(record_);
  }

 private:
  mutable std::mutex mutex_;
  SyncProgressSnapshot record_;
};
