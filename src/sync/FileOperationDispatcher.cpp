#include "FileOperationDispatcher.h"

#include "CVEventLogger.h"

std::int32_t NoFileOperations::PerformNextFileOperation(SmartSync&, CVFileWithAction& item) {
  CVEventLogger::WriteMainLogMessage(std::string("PerformNextFileOperation: ") +
                                     FWAActionName(item.fileAction) + " of " + item.nFilePath +
                                     " is not part of this build");
  return SYNC_RETURN_NO_OPERATION;
}
