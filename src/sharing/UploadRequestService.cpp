#include "UploadRequestService.h"

#include "ASIHTTPRequest.h"
#include "CVHandler.h"
#include "CVSharepoint.h"
#include "ManagerDownload.h"

std::optional<std::vector<CVFileForCompare>> ServerUploadRequestService::GetFilesListForUser(
    const std::string& guid, const std::string& cacheRoot) {
  // Not put among the configuration's storages: the sync never takes the cache up.
  CVSharepoint site;
  site.Name = guid;
  site.Url = cacheRoot + "/";
  ManagerDownload manager(*ASIHTTPRequest::GetClock());
  return manager.GetFileListFromServerNew("", site, false, true, false);
}

bool ServerUploadRequestService::DownloadFile(const CVFileForCompare& file, const std::string& guid) {
  CVHandler& handler = CVHandler::Instance();
  for (int round = 0; round < 2; ++round) {
    const std::string token = handler.CheckCVToken(guid);
    if (token.empty() || token.rfind("err", 0) == 0) return false;
    if (downloader.DownloadUploadRequestFileWithPath(file.localPath, file.storagePath, token,
                                                     {file.size, file.modifiedTime})) {
      return true;
    }
    if (downloader.downloadCancelReason() != AsyncSharedDownloader::kReasonNotAuthorized) return false;
    handler.RemoveCVToken(guid);
  }
  return false;
}
