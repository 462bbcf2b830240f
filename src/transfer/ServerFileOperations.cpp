#include "ServerFileOperations.h"

#include <string>

#include "CVEventLogger.h"

std::int32_t NoServerFileOperations::NotYet(const char* operation, const CVFileWithAction& item) {
  CVEventLogger::WriteMainLogMessage(std::string("AsyncFileMethods - ") + operation + " -> " +
                                     item.nFilePath +
                                     ": changing the server's tree is not part of this build yet");
  return SYNC_RETURN_LOCKED;
}

std::int32_t NoServerFileOperations::UploadFileToServer(CVFileWithAction& item) {
  return NotYet("UploadFileToServer", item);
}
std::int32_t NoServerFileOperations::RenameFileOnServer(CVFileWithAction& item) {
  return NotYet("RenameFileOnServer", item);
}
std::int32_t NoServerFileOperations::CreateFolderOnServer(CVFileWithAction& item) {
  return NotYet("CreateFolderOnServer", item);
}
std::int32_t NoServerFileOperations::DeleteFileOnServer(CVFileWithAction& item) {
  return NotYet("DeleteFileOnServer", item);
}
std::int32_t NoServerFileOperations::DeleteFolderOnServer(CVFileWithAction& item) {
  return NotYet("DeleteFolderOnServer", item);
}
