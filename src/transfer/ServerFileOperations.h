#pragma once
// ServerFileOperations: the calls that change the server's tree for one work item
// (upload, rename, create folder, delete), as the per-file operations use them,
// and the test that the server already holds a local file as it stands.
// Each change gives a result code of the sync and retries a refused token itself.

#include <cstdint>
#include <string>
#include <vector>

#include "SyncRecords.h"

class ServerFileOperations {
 public:
  virtual ~ServerFileOperations() = default;
  virtual std::int32_t UploadFileToServer(CVFileWithAction& item) = 0;
  virtual std::int32_t RenameFileOnServer(CVFileWithAction& item) = 0;
  virtual std::int32_t CreateFolderOnServer(CVFileWithAction& item) = 0;
  virtual std::int32_t DeleteFileOnServer(CVFileWithAction& item) = 0;
  virtual std::int32_t DeleteFolderOnServer(CVFileWithAction& item) = 0;
  // When the server's file at the item's path (serverInfo: its GetFileInfo
  // fields) has the local file's size and MD5, records the item as an upload
  // would have and gives true; the file itself is never fetched.
  virtual bool RecordIfServerHoldsSame(CVFileWithAction& item, const std::vector<std::string>& serverInfo) = 0;
  // Ends a running operation at once; callable from another thread.
  virtual void StopCurrentAction() = 0;
};
