#include "AsyncFileCommonPart.h"

#include <algorithm>
#include <exception>
#include <mutex>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "NewFilesParser.h"
#include "NewFilesStore.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "AsyncFileCommonPart";

const char kUnreadableRecord[] = "DownloadedFiles.xml cannot be read; it is left as it is";
const char kUnreadableQueue[] = "NewFiles.xml cannot be read; it is left as it is";

// A storage's folder from its folder or its name, without a final "/"; "" when
// it would be the root itself, which no storage operation may mean.
std::string StorageFolder(const std::string& path) {
  const std::string root = CVStaticHelpers::GenerateRootPath();
  std::string folder;
  if (path == root || path.compare(0, root.size() + 1, root + "/") == 0) {
    folder = path;
  } else {
    std::size_t start = path.find_first_not_of('/');
    folder = root + "/" + (start == std::string::npos ? "" : path.substr(start));
  }
  while (!folder.empty() && folder.back() == '/') folder.pop_back();
  return folder == root ? "" : folder;
}

bool ChangeNewFilesForPath(const std::string& nFilePath, bool isFolder, std::int32_t action) {
  try {
    if (NewFilesStore::Instance().Change(nFilePath, isFolder, action)) return true;
    CVEventLogger::LogException(kClassName, "ChangeNewFiles", kUnreadableQueue);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "ChangeNewFiles", exception.what());
    return false;
  }
}

}  // namespace

std::string AsyncFileCommonPart::TemporaryNameForPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::string suffix = ".cvtemp";
  if (name.size() < suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
    name += suffix;
  }
  if (name.front() != '.') name.insert(0, ".");
  return slash == std::string::npos ? name : folder + "/" + name;
}

bool AsyncFileCommonPart::ChangeDownloadedFiles(const CVFileWithAction& file, bool isBroken, std::int32_t action) {
  // A download for an upload request lands outside the storages: nothing to remember.
  if (file.fileAction == FWA_DownloadForUploadRequest) return true;
  try {
    if (DownloadedFilesStore::Instance().Change(file, isBroken, action, StateFileSupport::NowSeconds())) return true;
    CVEventLogger::LogException(kClassName, "ChangeDownloadedFiles", kUnreadableRecord);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "ChangeDownloadedFiles", exception.what());
    return false;
  }
}

bool AsyncFileCommonPart::WriteToDownloadedFiles(const CVFileWithAction& file, bool isBroken) {
  return ChangeDownloadedFiles(file, isBroken, 0);
}

bool AsyncFileCommonPart::RemoveFromDownloadedFiles(const CVFileWithAction& file) {
  return ChangeDownloadedFiles(file, false, 1);
}

bool AsyncFileCommonPart::WriteRenameOperationToDownloadedFiles(const CVFileWithAction& file) {
  try {
    if (DownloadedFilesStore::Instance().Rename(file.oldFilePath, file.nFilePath, file.isFolder)) return true;
    CVEventLogger::LogException(kClassName, "WriteRenameOperationToDownloadedFiles", kUnreadableRecord);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "WriteRenameOperationToDownloadedFiles", exception.what());
    return false;
  }
}

bool AsyncFileCommonPart::FileExistInDownloadFile(const CVFileWithAction& file) {
  try {
    DownloadedFilesStore& store = DownloadedFilesStore::Instance();
    if (store.ReadState() == StateFileRead::Unreadable) return true;
    return store.Find(file.nFilePath).has_value();
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "FileExistInDownloadFile", exception.what());
    return true;
  }
}

bool AsyncFileCommonPart::SetNothingStatusForFile(const std::string& FileURL) {
  try {
    if (DownloadedFilesStore::Instance().SetNothingStatus(FileURL, StateFileSupport::NowSeconds())) return true;
    CVEventLogger::LogException(kClassName, "SetNothingStatusForFile", kUnreadableRecord);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "SetNothingStatusForFile", exception.what());
    return false;
  }
}

std::vector<NFQ_File> AsyncFileCommonPart::GetAllFilesFromNewFiles() {
  try {
    NewFilesParser parser;
    return parser.readNewFiles().value_or(std::vector<NFQ_File>{});
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "GetAllFilesFromNewFiles", exception.what());
    return {};
  }
}

bool AsyncFileCommonPart::ChangeNewFiles(const CVFileWithAction& file, std::int32_t action) {
  return ChangeNewFilesForPath(file.nFilePath, file.isFolder, action);
}

bool AsyncFileCommonPart::ChangeNewFiles(const NFQ_File& file, std::int32_t action) {
  return ChangeNewFilesForPath(file.nFilePath, file.isFolder, action);
}

bool AsyncFileCommonPart::RemoveFromNewFiles(const CVFileWithAction& file) { return ChangeNewFiles(file, 1); }

bool AsyncFileCommonPart::RemoveFromNewFiles(const NFQ_File& file) { return ChangeNewFiles(file, 1); }

bool AsyncFileCommonPart::RemoveItemNewFilesForSite(const std::string& path) {
  try {
    const std::string folder = StorageFolder(path);
    if (folder.empty()) {
      CVEventLogger::LogException(kClassName, "RemoveItemNewFilesForSite", "no storage folder given: \"" + path + "\"");
      return false;
    }
    if (NewFilesStore::Instance().RemoveBelow(folder)) return true;
    CVEventLogger::LogException(kClassName, "RemoveItemNewFilesForSite", kUnreadableQueue);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "RemoveItemNewFilesForSite", exception.what());
    return false;
  }
}

bool AsyncFileCommonPart::RenameSiteOld(const std::string& old, const std::string& InNewSite) {
  try {
    const std::string oldFolder = StorageFolder(old);
    const std::string newFolder = StorageFolder(InNewSite);
    if (oldFolder.empty() || newFolder.empty()) {
      CVEventLogger::LogException(kClassName, "RenameSiteOld",
                                  "no storage folder given: \"" + old + "\" to \"" + InNewSite + "\"");
      return false;
    }
    if (NewFilesStore::Instance().MoveBelow(oldFolder, newFolder)) return true;
    CVEventLogger::LogException(kClassName, "RenameSiteOld", kUnreadableQueue);
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "RenameSiteOld", exception.what());
    return false;
  }
}

std::string AsyncFileCommonPart::BuildPathComponent(const std::string& base, const std::string& With) {
  bool baseEndsWithSlash = !base.empty() && base.back() == '/';
  bool tailBeginsWithSlash = !With.empty() && With.front() == '/';
  if (!baseEndsWithSlash && !tailBeginsWithSlash && !With.empty()) return base + "/" + With;
  if (baseEndsWithSlash && With.empty()) return base.substr(0, base.size() - 1);
  return base + With;
}
