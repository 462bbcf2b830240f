#pragma once
// The three records of the sync: a local change (NFQ_File), a line of a listing,
// of the record of the last sync or of a local scan (CVFileForCompare), and the
// work item of one step of the main loop (CVFileWithAction).

#include <cstdint>
#include <memory>
#include <string>

#include "SyncCodes.h"

// One change on the local disk; owned by the queue array that holds it.
struct NFQ_File {
  std::int32_t fileAction = NFQ_Created;
  bool isFolder = false;
  std::string oldFilePath;  // path of the event; for a rename the path before it
  std::string nFilePath;    // path to work on; for a rename the path after it
  std::int64_t attemptCount = 0;
};

// The work item of one step of the main loop; owned by that step.
struct CVFileWithAction {
  std::int32_t fileAction = FWA_UploadToServer;
  bool isFolder = false;
  bool isFSWAction = false;  // came from the local change queue
  std::string oldFilePath;
  std::string nFilePath;
  std::int64_t dateModified = 0;  // seconds since 1970: the disk's or the server's
  std::int64_t fileSize = 0;
  std::int32_t attemptsCount = 0;
  std::string sessionGuid;
  std::string urServerPath;
};

// One file or folder as the server, the record of the last sync or the disk knows it.
struct CVFileForCompare {
  std::string localPath;
  std::int64_t modifiedTime = 0;
  std::int64_t size = 0;
  bool wasProcessed = false;
  bool isFolder = false;
  bool deleted = false;
  std::string site;
  bool brokeDownload = false;  // element "brokenDownload"
  std::int32_t fileStatus = 0;
  std::int64_t statusChangeTime = 0;
  bool renamed = false;
  std::int32_t fileNameUnicodeForm = 0;
  std::string storagePath;
};
