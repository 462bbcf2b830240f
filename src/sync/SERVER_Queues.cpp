#include "SERVER_Queues.h"

#include "CVEventLogger.h"

void SERVER_Queues::Fill_NFQ_ForStorage(const std::string& storageName) {
  CVEventLogger::WriteMainLogMessage("Fill_NFQ_ForStorage (Start)");
  siteOffline = false;
  {
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    NFSQ_ServerQueue.clear();
  }
  // Without a server listing nothing can be compared: the storage counts as
  // offline, which never deletes anything locally.
  CVEventLogger::WriteMainLogMessage("Fill_NFQ_ForStorage: the server listing is not part of "
                                     "this build; storage \"" + storageName + "\" is passed over");
  siteOffline = true;
}

void SERVER_Queues::FilterNFQ(const std::string& storageName) {
  CVEventLogger::WriteMainLogMessage("FilterNFQ: no comparison in this build for storage \"" +
                                     storageName + "\"");
}

void SERVER_Queues::ClearServerQueues() {
  {
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    NFSQ_ServerQueue.clear();
  }
  std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
  SQ_ServerQueue.clear();
}

std::size_t SERVER_Queues::ServerQueueSize() {
  std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
  return SQ_ServerQueue.size();
}
