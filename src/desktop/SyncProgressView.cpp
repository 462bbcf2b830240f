#include "SyncProgressView.h"

#include <algorithm>

#include "CVStaticHelpers.h"

namespace {
int StoragePercent(const SyncProgressSnapshot& r) {
  if (r.totalFilesNumber < 1) return 0;
  return static_cast<int>(static_cast<double>(r.processedFilesCount) / r.totalFilesNumber * 100.0);
}

int FilePercent(const SyncProgressSnapshot& r) {
  if (r.currentFileSize < 1) return 0;
  int percent = static_cast<int>(static_cast<double>(r.currentFileProgress) / static_cast<double>(r.currentFileSize) * 100.0);
  return percent > 99 ? 100 : std::max(percent, 0);
}
}  // namespace

SyncProgressView SyncProgressView::From(const SyncProgressSnapshot& r, const std::string& storageName) {
  SyncProgressView view;
  switch (r.currentSyncState) {
    case 1:
      view.syncStateLabel = "Synchronization in process...";
      view.buttonImage = "StopSync";
      view.storagesBoxShown = true;
      view.storagesProcessedBoxShown = true;
      break;
    case 2:
      view.syncStateLabel = "Uploading changes";
      view.buttonImage = "StopSync";
      view.storagesBoxShown = true;
      break;
    default:
      view.syncStateLabel = r.lastSync.value_or("Synchronization stopped");
      view.buttonImage = "StartSync";
      return view;  // the fields of a pass are blank while none runs
  }
  view.fileBoxShown = !r.currentFileName.empty();
  view.currentStorageNumber = std::to_string(r.currentSiteNumber);
  view.storageLabel = storageName;
  view.percentsOfStorage = std::to_string(StoragePercent(r)) + "%";
  view.progressValue = r.processedFilesCount;
  view.progressMaximum = r.totalFilesNumber;
  view.progressIndeterminate = r.processedFilesCount < 2 && r.processedFilesCount == r.totalFilesNumber;
  view.filesLeftLabel = std::to_string(std::max<std::int64_t>(0, std::int64_t{r.totalFilesNumber} - r.processedFilesCount));
  view.currentFileName = r.currentFileName;
  view.currentFileActionType = r.currentFileActionType;
  view.currentFileSizeLabel = CVStaticHelpers::ConvertBytesToReadableFromat(r.currentFileSize);
  view.percentsOfFile = std::to_string(FilePercent(r)) + "%";
  return view;
}

std::string SyncProgressView::TrayLine(const SyncProgressSnapshot& r) {
  if (r.currentSyncState == 0 || r.currentFileName.empty()) return "";
  std::string line = (r.currentFileActionType.empty() ? "" : r.currentFileActionType + " ") + r.currentFileName;
  if (r.currentFileSize > 0) line += ", " + std::to_string(FilePercent(r)) + "%";
  const std::int64_t left = std::max<std::int64_t>(0, std::int64_t{r.totalFilesNumber} - r.processedFilesCount);
  if (left > 0) line += " — " + std::to_string(left) + (left == 1 ? " file left" : " files left");
  return line;
}
