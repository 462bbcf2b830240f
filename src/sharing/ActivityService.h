#pragma once
// ActivityService: where the activity window's two lists come from, behind one
// interface so that its paging runs without a server. ServerActivityService is
// the real one: the usage history through CVHandler (the main token, probed),
// the local updates from DownloadedFiles.xml. Every call blocks; the window
// makes them on a worker.

#include <optional>
#include <string>
#include <vector>

#include "ShareRecords.h"
#include "SyncRecords.h"

class ActivityService {
 public:
  virtual ~ActivityService() = default;
  // One page, from 0; nothing when the server could not be asked.
  virtual std::optional<std::vector<WSUsageHistory>> GetUsageHistory(long pageNum) = 0;
  // The records of the last sync; nothing when there are none yet.
  virtual std::optional<std::vector<CVFileForCompare>> readDownloadedFiles() = 0;
  // Marks the records of FileURL as seen; false when the record file could not be written.
  virtual bool SetNothingStatusForFile(const std::string& FileURL) = 0;
};

class ServerActivityService : public ActivityService {
 public:
  std::optional<std::vector<WSUsageHistory>> GetUsageHistory(long pageNum) override;
  std::optional<std::vector<CVFileForCompare>> readDownloadedFiles() override;
  bool SetNothingStatusForFile(const std::string& FileURL) override;
};
