// The local scan of the server comparison: what stands in a storage's folder on
// the disk, and how a local name compares with the form the record keeps.

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "CVEventLogger.h"
#include "CVFileForCompareMethods.h"
#include "DownloadedFilesStore.h"
#include "SmartSync.h"

namespace {

constexpr const char* kClass = "SmartSync";

// One entry of a folder, as readdir gave it.
struct Entry {
  std::string path;
  enum class Kind { Folder, File, Link, Other } kind;
};

bool IsSkippedName(const std::string& name) {
  static const std::string dsStore = ".DS_Store";
  if (name.empty() || name.front() == '.') return true;
  return name.size() >= dsStore.size() &&
         name.compare(name.size() - dsStore.size(), dsStore.size(), dsStore) == 0;
}

// The entries of a folder in the file system's order, without the skipped
// names. The folder is closed before the caller descends, so a deep tree never
// holds a handle per level.
std::vector<Entry> ReadFolder(const std::string& folderPath, const char* method) {
  std::vector<Entry> entries;
  DIR* folder = opendir(folderPath.c_str());
  if (!folder) {
    // What cannot be read is not scanned; the scan only ever adds uploads.
    if (errno != ENOENT) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> Cannot read folder " +
                                         folderPath + ": " + std::strerror(errno));
    }
    return entries;
  }
  while (dirent* item = readdir(folder)) {
    std::string name = item->d_name;
    if (IsSkippedName(name)) continue;
    std::string path = folderPath + "/" + name;
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) continue;  // gone since readdir
    Entry::Kind kind = S_ISDIR(info.st_mode)   ? Entry::Kind::Folder
                       : S_ISREG(info.st_mode) ? Entry::Kind::File
                       : S_ISLNK(info.st_mode) ? Entry::Kind::Link
                                               : Entry::Kind::Other;
    if (kind == Entry::Kind::Link) {
      // A link may point anywhere, the storage itself included: never followed.
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method +
                                         " -> Symbolic link skipped: " + path);
      continue;
    }
    if (kind == Entry::Kind::Other) {
      // Pipes, sockets and devices hold no content to sync; reading one could block.
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method +
                                         " -> Special file skipped: " + path);
      continue;
    }
    entries.push_back(Entry{std::move(path), kind});
  }
  closedir(folder);
  return entries;
}

void ReadLocalFilesInto(const std::string& folderPath, std::vector<CVFileForCompare>& result) {
  for (const auto& entry : ReadFolder(folderPath, "readLocalFiles")) {
    result.push_back(SmartSync::CreateCVFileForCompare(entry.path, folderPath));
    if (entry.kind == Entry::Kind::Folder) ReadLocalFilesInto(entry.path, result);
  }
}

void ChildFilesAndFoldersInto(const std::string& folderPath, bool recursive, std::vector<NFQ_File>& result) {
  std::vector<Entry> entries = ReadFolder(folderPath, "GetChildFilesAndFoldersNFQ");
  auto add = [&](const Entry& entry) {
    NFQ_File record;
    record.fileAction = NFQ_Created;
    record.nFilePath = entry.path;
    record.isFolder = entry.kind == Entry::Kind::Folder;
    result.push_back(std::move(record));
  };
  for (const auto& entry : entries) {
    if (entry.kind == Entry::Kind::Folder) add(entry);
  }
  for (const auto& entry : entries) {
    if (entry.kind != Entry::Kind::Folder) add(entry);
  }
  if (!recursive) return;
  for (const auto& entry : entries) {
    if (entry.kind == Entry::Kind::Folder) ChildFilesAndFoldersInto(entry.path, recursive, result);
  }
}

}  // namespace

CVFileForCompare SmartSync::CreateCVFileForCompare(const std::string& path, const std::string& origPath) {
  return CVFileForCompareMethods::ReadEntry(path, origPath);
}

std::vector<CVFileForCompare> SmartSync::readLocalFiles(const std::string& folderPath) {
  std::vector<CVFileForCompare> result;
  try {
    ReadLocalFilesInto(folderPath, result);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "readLocalFiles", exception.what());
  }
  return result;
}

std::vector<NFQ_File> SmartSync::GetChildFilesAndFoldersNFQ(const std::string& folderPath, bool recursive) {
  std::vector<NFQ_File> result;
  try {
    ChildFilesAndFoldersInto(folderPath, recursive, result);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "GetChildFilesAndFoldersNFQ", exception.what());
  }
  return result;
}

std::int32_t SmartSync::CheckFileNameStringState(const std::string& path) {
  try {
    auto record = DownloadedFilesStore::Instance().FindSame(path);
    if (!record) return -1;
    if (record->localPath == path) return 0;
    CVEventLogger::WriteMainLogMessage("precomposed! " + CVFileForCompareMethods::NormalizedPath(path));
    return 1;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "CheckFileNameStringState", exception.what());
  }
  return -1;
}
