#pragma once
// SyncProgressView: what the sync manager's progress fields show, computed from
// one snapshot of the progress record (taken under its lock), so that a window
// opened in the middle of a pass is filled at once and never reads a half-written
// record. The window draws these values; it computes nothing itself.

#include <cstdint>
#include <string>

#include "SyncListenerAddInfo.h"

struct SyncProgressView {
  std::string syncStateLabel;     // "Synchronization in process...", "Uploading changes", ...
  std::string buttonImage;        // "StartSync" or "StopSync"
  bool storagesBoxShown = false;
  bool storagesProcessedBoxShown = false;
  bool fileBoxShown = false;
  std::string currentStorageNumber;
  std::string storageLabel;
  std::string percentsOfStorage;  // "%d%%"
  std::int64_t progressValue = 0;
  std::int64_t progressMaximum = 100;
  bool progressIndeterminate = false;
  std::string filesLeftLabel;     // "%ld"
  std::string currentFileName;
  std::string currentFileActionType;
  std::string currentFileSizeLabel;
  std::string percentsOfFile;     // "%d%%"

  // storageName: the name of the storage at the snapshot's index ("" when none).
  static SyncProgressView From(const SyncProgressSnapshot& record, const std::string& storageName);
  // The one line of the tray menu: what is worked on, how far, how many files are left; "" when idle.
  static std::string TrayLine(const SyncProgressSnapshot& record);
};
