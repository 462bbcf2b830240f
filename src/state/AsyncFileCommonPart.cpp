#include "AsyncFileCommonPart.h"

#include <algorithm>
#include <exception>
#include <mutex>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedXMLStaticMethods.h"
#include "NewFilesParser.h"
#include "ServerXMLParser.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "AsyncFileCommonPart";

using DownloadedLock = std::lock_guard<std::recursive_mutex>;

// The records for a change. False when the file stands but cannot be read: a
// save then would replace records nobody has seen.
bool ReadDownloaded(const char* method, std::vector<CVFileForCompare>& files) {
  ServerXMLParser parser;
  auto read = parser.readDownloadedFiles();
  if (parser.lastRead() == StateFileRead::Unreadable) {
    CVEventLogger::LogException(kClassName, method, "DownloadedFiles.xml cannot be read; it is left as it is");
    return false;
  }
  files = read.value_or(std::vector<CVFileForCompare>{});
  return true;
}

bool ReadNew(const char* method, std::vector<NFQ_File>& files) {
  NewFilesParser parser;
  auto read = parser.readNewFiles();
  if (parser.lastRead() == StateFileRead::Unreadable) {
    CVEventLogger::LogException(kClassName, method, "NewFiles.xml cannot be read; it is left as it is");
    return false;
  }
  files = read.value_or(std::vector<NFQ_File>{});
  return true;
}

std::string WithSlash(const std::string& path) {
  return !path.empty() && path.back() == '/' ? path : path + "/";
}

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
    std::lock_guard<std::recursive_mutex> lock(NewFilesParser::newFilesLock());
    std::vector<NFQ_File> files;
    if (!ReadNew("ChangeNewFiles", files)) return false;
    auto found = std::find_if(files.begin(), files.end(),
                              [&](const NFQ_File& record) { return record.nFilePath == nFilePath; });
    if (action == 1) {
      if (found != files.end()) files.erase(found);
    } else if (action == 0) {
      if (found == files.end()) found = files.insert(files.end(), NFQ_File{});
      found->nFilePath = nFilePath;
      found->isFolder = isFolder;
    }
    return NewFilesParser::saveNewFilesXML(files);
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
    DownloadedLock lock(DownloadedXMLStaticMethods::downloadedFilesLock());
    std::vector<CVFileForCompare> files;
    if (!ReadDownloaded("ChangeDownloadedFiles", files)) return false;

    const std::string& searchPath = action == 2 ? file.oldFilePath : file.nFilePath;
    const std::string temporaryName = TemporaryNameForPath(searchPath);
    auto found = std::find_if(files.begin(), files.end(), [&](const CVFileForCompare& record) {
      return record.localPath == searchPath || record.localPath == temporaryName;
    });

    switch (action) {
      case 0: {
        bool isNew = found == files.end();
        if (isNew) found = files.insert(files.end(), CVFileForCompare{});
        found->fileStatus = isNew ? 0 : 1;
        found->statusChangeTime = StateFileSupport::NowSeconds();
        found->localPath = file.nFilePath;
        found->size = file.fileSize;
        found->modifiedTime = file.dateModified;
        found->wasProcessed = false;
        found->isFolder = file.isFolder;
        found->brokeDownload = isBroken;
        break;
      }
      case 1:
        if (found != files.end()) {
          files.erase(found);
          if (file.isFolder) {
            std::erase_if(files, [&](const CVFileForCompare& record) {
              return StateFileSupport::IsSameOrBelow(record.localPath, file.nFilePath);
            });
          }
        }
        break;
      case 2:
        if (found != files.end()) found->localPath = file.nFilePath;
        break;
      default:
        break;
    }
    return ServerXMLParser::saveDownloadedXML(files);
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
    DownloadedLock lock(DownloadedXMLStaticMethods::downloadedFilesLock());
    std::vector<CVFileForCompare> files;
    if (!ReadDownloaded("WriteRenameOperationToDownloadedFiles", files)) return false;
    auto found = std::find_if(files.begin(), files.end(),
                              [&](const CVFileForCompare& record) { return record.localPath == file.oldFilePath; });
    if (found != files.end() && !file.oldFilePath.empty()) {
      found->localPath = file.nFilePath;
      if (file.isFolder) {
        const std::string oldFolder = WithSlash(file.oldFilePath);
        const std::string newFolder = WithSlash(file.nFilePath);
        for (auto& record : files) {
          if (record.localPath.compare(0, oldFolder.size(), oldFolder) == 0) {
            record.localPath = newFolder + record.localPath.substr(oldFolder.size());
          }
        }
      }
    }
    return ServerXMLParser::saveDownloadedXML(files);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "WriteRenameOperationToDownloadedFiles", exception.what());
    return false;
  }
}

bool AsyncFileCommonPart::FileExistInDownloadFile(const CVFileWithAction& file) {
  try {
    ServerXMLParser parser;
    auto files = parser.readDownloadedFiles();
    if (parser.lastRead() == StateFileRead::Unreadable) return true;
    if (!files) return false;
    return std::any_of(files->begin(), files->end(),
                       [&](const CVFileForCompare& record) { return record.localPath == file.nFilePath; });
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "FileExistInDownloadFile", exception.what());
    return true;
  }
}

bool AsyncFileCommonPart::SetNothingStatusForFile(const std::string& FileURL) {
  try {
    DownloadedLock lock(DownloadedXMLStaticMethods::downloadedFilesLock());
    std::vector<CVFileForCompare> files;
    if (!ReadDownloaded("SetNothingStatusForFile", files)) return false;
    const std::int64_t now = StateFileSupport::NowSeconds();
    for (auto& record : files) {
      if (record.localPath != FileURL) continue;
      record.fileStatus = -1;
      record.statusChangeTime = now;
    }
    return ServerXMLParser::saveDownloadedXML(files);
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
    std::lock_guard<std::recursive_mutex> lock(NewFilesParser::newFilesLock());
    std::vector<NFQ_File> files;
    if (!ReadNew("RemoveItemNewFilesForSite", files)) return false;
    std::erase_if(files, [&](const NFQ_File& record) { return StateFileSupport::IsSameOrBelow(record.nFilePath, folder); });
    return NewFilesParser::saveNewFilesXML(files);
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
    std::lock_guard<std::recursive_mutex> lock(NewFilesParser::newFilesLock());
    std::vector<NFQ_File> files;
    if (!ReadNew("RenameSiteOld", files)) return false;
    for (auto& record : files) {
      if (!StateFileSupport::IsSameOrBelow(record.nFilePath, oldFolder)) continue;
      std::string tail = record.nFilePath.substr(oldFolder.size());
      if (!tail.empty() && tail.front() == '/') tail.erase(0, 1);
      record.nFilePath = BuildPathComponent(newFolder, tail);
    }
    return NewFilesParser::saveNewFilesXML(files);
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
