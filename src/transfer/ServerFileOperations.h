#pragma once
// ServerFileOperations: the calls that change the server's tree for one work item
// (upload, rename, create folder, delete), as the per-file operations use them,
// and the test that the server already holds a local file as it stands.
// Each change gives a result code of the sync and retries a refused token itself.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "SyncCodes.h"
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

  // An upload in two steps, so that it can be sent before its turn: SendFile
  // puts the file on the server and writes nothing here; RecordSent, in the
  // item's turn, records it as UploadFileToServer does (a file changed since it
  // went up keeps its own time, and so goes up again).
  struct Sent {
    std::int32_t code = SYNC_RETURN_FAILED;                    // as UploadFileToServer's
    std::optional<std::vector<std::string>> serverInfo;        // GetFileInfo's fields after the upload
    std::optional<std::pair<std::int64_t, std::int64_t>> stamp;  // size and time (ns) of what went up
  };
  virtual Sent SendFile(CVFileWithAction& item) = 0;
  virtual std::int32_t RecordSent(CVFileWithAction& item, const Sent& sent) = 0;
  // Operations of their own, for work beside the loop's: a stop of one does not
  // end the other's. Nothing where they cannot run beside each other.
  virtual std::shared_ptr<ServerFileOperations> Beside() { return nullptr; }
};
