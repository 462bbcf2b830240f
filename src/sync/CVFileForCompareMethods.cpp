#include "CVFileForCompareMethods.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "CVStaticHelpers.h"
#include "ServerXMLParser.h"

namespace {

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
}


CVFileForCompare FromStat(const std::string& path, const struct stat& info, const std::string& siteSource) {
  CVFileForCompare record;
  record.localPath = path;
  record.isFolder = S_ISDIR(info.st_mode);
  record.site = ServerXMLParser::SiteForLocalPath(siteSource);
  if (!record.isFolder) {
    record.size = static_cast<std::int64_t>(info.st_size);
    record.modifiedTime = static_cast<std::int64_t>(info.st_mtim.tv_sec);  // whole seconds, truncated
  }
  record.wasProcessed = false;
  return record;
}

}  // namespace

CVFileForCompareMethods::PathIndex::PathIndex(const std::vector<CVFileForCompare>& records) {
  first_.reserve(records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    first_.try_emplace(NormalizedPath(records[i].localPath), i);  // the first one stays
  }
}

std::optional<std::size_t> CVFileForCompareMethods::PathIndex::Find(const std::string& path) const {
  auto found = first_.find(NormalizedPath(path));
  if (found == first_.end()) return std::nullopt;
  return found->second;
}

std::string CVFileForCompareMethods::NormalizedPath(const std::string& path) {
  return CVStaticHelpers::PrecomposedForm(path);
}

std::string CVFileForCompareMethods::DecomposedPath(const std::string& path) {
  return CVStaticHelpers::DecomposedForm(path);
}

bool CVFileForCompareMethods::IsSamePath(const std::string& a, const std::string& b) {
  if (a == b) return true;
  if (IsAscii(a) && IsAscii(b)) return false;
  return NormalizedPath(a) == NormalizedPath(b);
}

CVFileForCompare CVFileForCompareMethods::ReadEntry(const std::string& path, const std::string& siteSource) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    CVFileForCompare record;
    record.localPath = path;
    record.site = ServerXMLParser::SiteForLocalPath(siteSource);
    return record;
  }
  return FromStat(path, info, siteSource);
}

std::optional<CVFileForCompare> CVFileForCompareMethods::CreateCVFileForCompare(const std::string& path) {
  if (path.empty()) return std::nullopt;
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0) return FromStat(path, info, path);
  if (IsAscii(path)) return std::nullopt;
  // The server's and the record's names come composed; a disk that was filled
  // elsewhere may hold them decomposed, and this file system does not fold them.
  for (const std::string& form : {NormalizedPath(path), DecomposedPath(path)}) {
    if (form != path && lstat(form.c_str(), &info) == 0) return FromStat(path, info, path);
  }
  return std::nullopt;
}

std::int32_t CVFileForCompareMethods::CheckFile2(const CVFileForCompare& serverFile,
                                                 std::vector<CVFileForCompare>& serverFiles) {
  CVFileForCompare* record = nullptr;
  for (auto& candidate : serverFiles) {
    if (IsSamePath(candidate.localPath, serverFile.localPath)) {
      record = &candidate;
      break;
    }
  }
  return CheckFile2(serverFile, record, CreateCVFileForCompare(serverFile.localPath));
}

std::int32_t CVFileForCompareMethods::CheckFile2(const CVFileForCompare& serverFile, CVFileForCompare* record,
                                                 const std::optional<CVFileForCompare>& local) {
  if (record) record->wasProcessed = true;

  if (local && local->isFolder != serverFile.isFolder) {
    // One side replaced a file by a folder or the other way round. Only a local
    // change with the server as recorded goes up; in every other case the
    // server's item takes the name and the download makes room for it.
    const bool localChangedKind = record && record->isFolder == serverFile.isFolder;
    const bool serverAsRecorded =
        localChangedKind && (serverFile.isFolder || (serverFile.size == record->size &&
                                                     serverFile.modifiedTime == record->modifiedTime));
    return serverAsRecorded ? CMP_LocalChanged : CMP_ServerNewer;
  }
  // A record of the other kind stands for an item that no longer is.
  if (record && record->isFolder != serverFile.isFolder) record = nullptr;

  if (serverFile.isFolder) {
    if (!record) return CMP_NeverDownloaded;
    return local ? CMP_Same : CMP_LocalMissing;
  }

  if (!record) return local ? CMP_BothExistUnknown : CMP_NeverDownloaded;
  if (record->brokeDownload) return CMP_NeverDownloaded;

  const bool serverAsRecorded =
      serverFile.size == record->size && serverFile.modifiedTime == record->modifiedTime;
  if (!local) return serverAsRecorded ? CMP_LocalMissing : CMP_ServerChangedLocalMissing;

  // Every writer of a record gives the local file the record's time, so another
  // time means the user touched it, even where the size stayed.
  const bool localTouched = local->modifiedTime != record->modifiedTime;

  if (serverFile.size != record->size) {
    if (record->size == local->size) return localTouched ? CMP_BothChanged : CMP_ServerNewer;
    return CMP_BothChanged;
  }
  if (serverFile.modifiedTime != record->modifiedTime) {
    if (serverFile.size == local->size) return localTouched ? CMP_BothChanged : CMP_ServerNewer;
    return CMP_BothChanged;
  }
  if (serverFile.size == local->size) return localTouched ? CMP_LocalChanged : CMP_Same;
  return CMP_LocalChanged;
}
