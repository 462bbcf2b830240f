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
  std::optional<std::vector<CVFileForCompare>> GetFileListFromServerNew(const std::string& serverURL,
                                                                        CVSharepoint& site, bool recursive,
                                                                        bool uploadRequest,
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

  // True when localPath lies strictly below storageRoot, an absolute folder, and
  // neither holds a "." or ".." component or a NUL byte. Whatever the server
  // lists must pass this before the sync may write there.
  static bool StaysInsideStorage(const std::string& localPath, const std::string& storageRoot);

  // Upload request mode: base followed by the last three parts of the server
  // path ("\" separated, else "/") joined with "/"; "" for fewer parts.
  static std::string UploadRequestLocalPath(const std::string& serverPath, const std::string& base);
  // "\\" and each non-empty part of the server path with "\" behind it, up to and
  // including the part "UploadRequest".
  static std::string UploadRequestUrl(const std::string& serverPath);

  // What the entries of one "0;" reply come to.
  struct ListingRead {
    std::vector<CVFileForCompare> records;  // in reply order
    bool usable = true;  // false: an entry could not be read, so no record may stand for the storage
    std::string why;     // for the log, when not usable
  };
  // Reads the entries behind the code of a GetFilesResult text for the storage
  // named siteName at the location siteUrl, pausing 1 ms before each. In upload
  // request mode site.Url is rebuilt from each accepted entry.
  ListingRead ReadListingEntries(const std::string& result, const std::string& siteName,
                                 const std::string& siteUrl, bool uploadRequest, CVSharepoint& site);

  // The text the last run gathered for the main log.
  const std::string& report() const { return report_; }

 private:
  enum class Next { Retry, Finish };
  struct Run;

  Next Attempt(const Run& run, bool& offline, std::optional<std::vector<CVFileForCompare>>& list);
  void Note(const std::string& text);

  const Clock& clock_;
  std::function<bool()> stopRequested_;
  std::string report_;
};
