#include "SharedFilesService.h"

#include "CVHandler.h"

std::vector<WSFileProperty> ServerSharedFilesService::GetFileList(bool sharedIn, const std::string& token,
                                                                  const std::string& path,
                                                                  const std::optional<std::string>& shareId) {
  return sharedIn ? ws_.GetFileList(token, path, shareId).GetFilePropertyCollection()
                  : ws_.GetMyFileList(token, path, shareId).GetFilePropertyCollection();
}

bool ServerSharedFilesService::DownloadSharing(const std::string& localPath, const std::string& sharedId,
                                               bool sharedIn, const std::optional<std::string>& sharedPath,
                                               const std::string& token,
                                               const AsyncSharedDownloader::Expected& expected) {
  if (downloader.DownloadSharingWithPath(localPath, sharedId, sharedIn, sharedPath, token, expected)) return true;
  if (downloader.downloadCancelReason() != AsyncSharedDownloader::kReasonNotAuthorized) return false;
  CVHandler::Instance().RemoveCVToken(CVHandler::kMainTokenKey);
  const std::string renewed = CheckConnectionAndGetWSToken();
  return !renewed.empty() &&
         downloader.DownloadSharingWithPath(localPath, sharedId, sharedIn, sharedPath, renewed, expected);
}
