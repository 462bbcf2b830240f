#pragma once
// ManagerDownload: asks the server which files and folders a storage holds and
// turns the answer into records of the sync. A new object for each use.
// A listing that could not be read whole is never handed out as if it were whole:
// a caller that gets nothing must not take anything for deleted.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "CVSharepoint.h"
#include "SyncRecords.h"

class Clock;

class ManagerDownload {
 public:
  // stopRequested: asked between the steps of a stoppable listing; true ends it.
  explicit ManagerDownload(const Clock& clock, std::function<bool()> stopRequested = {});

  // The records of the storage's listing, or nothing: stopped, failed, or empty.
  std::optional<std::vector<CVFileForCompare>> GetFileListFromServerNew(
      const std::string& serverURL, CVSharepoint& site, bool recursive, bool uploadRequest,
      bool WithCanStopped);

  // True when the last run ended without a usable listing of the storage.
  bool isSiteOffline = false;

  static std::string ReverseSlashForCIFS(const std::string& path, const std::string& siteType);
  static std::string GetLocalPathForServerFullPath(const std::string& serverPath,
                                                   const std::string& WithServerURL,
                                                   const std::string& WithSiteName);
  static std::string GetLocalPathForServerPathForUploadRequest(const std::string& serverPath,
                                                               const CVSharepoint& site);
  static std::string GetFileURL_Of_FileInfoArray(const std::vector<std::string>& fields);
  static std::string DeleteDoubleDot(const std::string& text);

 private:
  const Clock& clock_;
  std::function<bool()> stopRequested_;
};
