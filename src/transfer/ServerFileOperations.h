#pragma once
// ServerFileOperations: the calls that change the server's tree for one work item
// (upload, rename, create folder, delete), as the per-file operations use them.
// Each gives a result code of the sync and retries a refused token itself.

#include <cstdint>

#include "SyncRecords.h"

class ServerFileOperations {
 public:
  virtual ~ServerFileOperations() = default;
  virtual std::int32_t UploadFileToServer(CVFileWithAction& item) = 0;
  virtual std::int32_t RenameFileOnServer(CVFileWithAction& item) = 0;
  virtual std::int32_t CreateFolderOnServer(CVFileWithAction& item) = 0;
  virtual std::int32_t DeleteFileOnServer(CVFileWithAction& item) = 0;
  virtual std::int32_t DeleteFolderOnServer(CVFileWithAction& item) = 0;
  // Ends a running operation at once; callable from another thread.
  virtual void StopCurrentAction() = 0;
};
