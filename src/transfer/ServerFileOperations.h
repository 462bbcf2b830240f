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

// Stands in while this build cannot change the server's tree: every call leaves
// its item for a later round (-5) and says why in the log.
class NoServerFileOperations : public ServerFileOperations {
 public:
  std::int32_t UploadFileToServer(CVFileWithAction& item) override;
  std::int32_t RenameFileOnServer(CVFileWithAction& item) override;
  std::int32_t CreateFolderOnServer(CVFileWithAction& item) override;
  std::int32_t DeleteFileOnServer(CVFileWithAction& item) override;
  std::int32_t DeleteFolderOnServer(CVFileWithAction& item) override;
  void StopCurrentAction() override {}

 private:
  static std::int32_t NotYet(const char* operation, const CVFileWithAction& item);
};
