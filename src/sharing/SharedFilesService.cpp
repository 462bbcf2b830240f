#include "SharedFilesService.h"

std::vector<WSFileProperty> ServerSharedFilesService::GetFileList(bool sharedIn, const std::string& token,
                                                                  const std::string& path,
                                                                  const std::optional<std::string>& shareId) {
  return sharedIn ? ws_.GetFileList(token, path, shareId).GetFilePropertyCollection()
                  : ws_.GetMyFileList(token, path, shareId).GetFilePropertyCollection();
}
