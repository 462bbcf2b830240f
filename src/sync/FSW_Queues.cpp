#include "FSW_Queues.h"

#include "CVEventLogger.h"

void FSW_Queues::AddFSWPath(const std::string& path, bool isFolder, const std::string& renameTo,
                            std::int32_t eventFlag) {
  NFQ_File entry;
  entry.oldFilePath = path;
  entry.nFilePath = renameTo;
  entry.isFolder = isFolder;
  entry.fileAction = eventFlag;
  std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
  NF_Queue.push_back(std::move(entry));
}

void FSW_Queues::FilterCurrentQueue() {
  CVEventLogger::WriteMainLogMessage(
      "FSW_Queues - FilterCurrentQueue -> the local change filter is not part of this build; "
      "raw events stay queued");
}

std::size_t FSW_Queues::RawCount() {
  std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
  return NF_Queue.size();
}

std::size_t FSW_Queues::FilteredCount() {
  std::lock_guard<std::mutex> lock(FSW_FQ_Lock);
  return FQ_FilteredQueue.size();
}
