#include "DownloadedFilesStore.h"

#include <algorithm>

#include "AsyncFileCommonPart.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedXMLStaticMethods.h"
#include "ServerXMLParser.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "DownloadedFilesStore";

enum Operation : std::int64_t { kChange = 1, kRename = 2, kSetNothing = 3, kRemoveBelow = 4 };

std::string WithSlash(const std::string& path) {
  return !path.empty() && path.back() == '/' ? path : path + "/";
}

}  // namespace

DownloadedFilesStore::DownloadedFilesStore()
    : CVJournaledStateFile(kClassName, DownloadedXMLStaticMethods::downloadedFilesLock()) {}

DownloadedFilesStore& DownloadedFilesStore::Instance() {
  // Lives to the end of the process: threads may still record during exit.
  static DownloadedFilesStore* store = new DownloadedFilesStore();
  return *store;
}

std::string DownloadedFilesStore::Path() const { return CVStaticHelpers::GenerateDownloadedXMLPath(); }

// --- Content ---

void DownloadedFilesStore::FillRecord(const Slot& slot, CVFileForCompare& record) {
  record.localPath = slot.path;
  record.modifiedTime = slot.modifiedTime;
  record.statusChangeTime = slot.statusChangeTime;
  record.size = slot.size;
  record.fileStatus = slot.fileStatus;
  record.brokeDownload = slot.broken;
  record.isFolder = slot.isFolder;
}

DownloadedFilesStore::Slot DownloadedFilesStore::SlotOf(CVFileForCompare record) {
  Slot slot;
  slot.path = std::move(record.localPath);
  slot.modifiedTime = record.modifiedTime;
  slot.statusChangeTime = record.statusChangeTime;
  slot.size = record.size;
  slot.fileStatus = record.fileStatus;
  slot.broken = record.brokeDownload;
  slot.isFolder = record.isFolder;
  return slot;
}

CVFileForCompare DownloadedFilesStore::ToRecord(const Slot& slot) const {
  CVFileForCompare record;
  FillRecord(slot, record);
  record.site = ServerXMLParser::SiteForLocalPath(slot.path);
  return record;
}

void DownloadedFilesStore::Add(Slot slot) {
  if (!CVStateXMLFile::IsXMLText(slot.path)) {
    // The file could not hold it: a record of it would live only until the next start.
    CVEventLogger::LogException(kClassName, "saveDownloadedXML",
                                "a path that XML cannot hold is not recorded: " +
                                    CVStateXMLFile::PrintableText(slot.path));
    return;
  }
  slots_.Add(std::move(slot));
}

void DownloadedFilesStore::Move(Index at, std::string path) {
  if (!CVStateXMLFile::IsXMLText(path)) {
    CVEventLogger::LogException(kClassName, "saveDownloadedXML",
                                "a path that XML cannot hold is not recorded: " + CVStateXMLFile::PrintableText(path));
    slots_.Kill(at);
    return;
  }
  slots_.SetPath(at, std::move(path));
}

std::optional<DownloadedFilesStore::Index> DownloadedFilesStore::FindSameIndex(const std::string& path) const {
  const std::string normalised = CVStaticHelpers::PrecomposedForm(path);
  std::optional<Index> first = slots_.First(normalised);
  if (auto other = slots_.FirstOther(normalised)) {
    if (!first || *other < *first) first = other;
  }
  return first;
}

// --- The operations on the content ---

bool DownloadedFilesStore::ApplyChange(std::int32_t action, const std::string& nFilePath,
                                       const std::string& oldFilePath, bool isFolder, std::int64_t size,
                                       std::int64_t modified, bool isBroken, std::int64_t now) {
  const std::string& searchPath = action == 2 ? oldFilePath : nFilePath;
  std::optional<Index> found = slots_.First(searchPath);
  if (auto temporary = slots_.First(AsyncFileCommonPart::TemporaryNameForPath(searchPath))) {
    if (!found || *temporary < *found) found = temporary;
  }
  switch (action) {
    case 0: {
      if (!found) {
        Slot slot;
        slot.path = nFilePath;
        slot.fileStatus = 0;
        slot.statusChangeTime = now;
        slot.size = size;
        slot.modifiedTime = modified;
        slot.isFolder = isFolder;
        slot.broken = isBroken;
        Add(std::move(slot));
        return true;
      }
      Slot& slot = slots_[*found];
      slot.fileStatus = 1;
      slot.statusChangeTime = now;
      slot.size = size;
      slot.modifiedTime = modified;
      slot.isFolder = isFolder;
      slot.broken = isBroken;
      if (slot.path != nFilePath) Move(*found, nFilePath);
      return true;
    }
    case 1:
      if (!found) return false;
      slots_.Kill(*found);
      if (isFolder) {
        for (Index at = 0; at < slots_.size(); ++at) {
          if (slots_.IsLive(at) && StateFileSupport::IsSameOrBelow(slots_[at].path, nFilePath)) slots_.Kill(at);
        }
      }
      return true;
    case 2:
      if (!found) return false;
      if (slots_[*found].path != nFilePath) Move(*found, nFilePath);
      return true;
    default:
      return false;
  }
}

bool DownloadedFilesStore::ApplyRename(const std::string& oldPath, const std::string& newPath, bool isFolder) {
  if (oldPath.empty()) return false;
  std::optional<Index> found = slots_.First(oldPath);
  if (!found) return false;
  Move(*found, newPath);
  if (isFolder) {
    const std::string oldFolder = WithSlash(oldPath);
    const std::string newFolder = WithSlash(newPath);
    for (Index at = 0; at < slots_.size(); ++at) {
      if (!slots_.IsLive(at)) continue;
      const std::string& path = slots_[at].path;
      if (path.compare(0, oldFolder.size(), oldFolder) != 0) continue;
      Move(at, newFolder + path.substr(oldFolder.size()));
    }
  }
  return true;
}

bool DownloadedFilesStore::ApplySetNothing(const std::string& path, std::int64_t now) {
  bool changed = false;
  for (std::optional<Index> at = slots_.First(path); at; at = slots_.Next(*at)) {
    slots_[*at].fileStatus = -1;
    slots_[*at].statusChangeTime = now;
    changed = true;
  }
  return changed;
}

bool DownloadedFilesStore::ApplyRemoveBelow(const std::string& folder) {
  bool changed = false;
  for (Index at = 0; at < slots_.size(); ++at) {
    if (slots_.IsLive(at) && StateFileSupport::IsSameOrBelow(slots_[at].path, folder)) {
      slots_.Kill(at);
      changed = true;
    }
  }
  return changed;
}

bool DownloadedFilesStore::ApplyEntry(CVStateJournal::Reader& entry) {
  switch (entry.Number()) {
    case kChange: {
      const auto action = static_cast<std::int32_t>(entry.Number());
      const std::string nFilePath = entry.Text();
      const std::string oldFilePath = entry.Text();
      const bool isFolder = entry.Number() != 0;
      const std::int64_t size = entry.Number();
      const std::int64_t modified = entry.Number();
      const bool isBroken = entry.Number() != 0;
      const std::int64_t now = entry.Number();
      return entry.ok() && ApplyChange(action, nFilePath, oldFilePath, isFolder, size, modified, isBroken, now);
    }
    case kRename: {
      const std::string oldPath = entry.Text();
      const std::string newPath = entry.Text();
      const bool isFolder = entry.Number() != 0;
      return entry.ok() && ApplyRename(oldPath, newPath, isFolder);
    }
    case kSetNothing: {
      const std::string path = entry.Text();
      const std::int64_t now = entry.Number();
      return entry.ok() && ApplySetNothing(path, now);
    }
    case kRemoveBelow: {
      const std::string folder = entry.Text();
      return entry.ok() && ApplyRemoveBelow(folder);
    }
    default:
      return false;
  }
}

// --- The file ---

StateFileRead DownloadedFilesStore::ReadFile() {
  slots_.Clear();
  StateFileRead state = StateFileRead::Missing;
  auto records = ServerXMLParser::ReadFile(state);
  if (records) {
    for (auto& record : *records) {
      if (!record.deleted) Add(SlotOf(std::move(record)));
    }
  }
  return state;
}

bool DownloadedFilesStore::WriteFile() {
  // The file holds the live records alone: the dead slots go now.
  slots_.Compact();
  Index next = 0;
  CVFileForCompare record;
  return ServerXMLParser::WriteFile([&]() -> const CVFileForCompare* {
    if (next == slots_.size()) return nullptr;
    FillRecord(slots_[next++], record);
    return &record;
  });
}

// --- Public ---

StateFileRead DownloadedFilesStore::ReadState() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  StateFileRead state = EnsureLoaded();
  // Changes not yet in a file that was missing still make a record.
  if (state == StateFileRead::Missing && (slots_.live() > 0 || changedSinceFold())) return StateFileRead::Whole;
  return state;
}

std::optional<std::vector<CVFileForCompare>> DownloadedFilesStore::Records(StateFileRead& state) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  state = ReadState();
  if (state == StateFileRead::Missing || state == StateFileRead::Unreadable) return std::nullopt;
  std::vector<CVFileForCompare> records;
  records.reserve(slots_.live());
  slots_.ForEachLive([&](const Slot& slot) { records.push_back(ToRecord(slot)); });
  return records;
}

std::optional<CVFileForCompare> DownloadedFilesStore::Find(const std::string& path) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  EnsureLoaded();
  auto at = slots_.First(path);
  if (!at) return std::nullopt;
  return ToRecord(slots_[*at]);
}

std::optional<CVFileForCompare> DownloadedFilesStore::FindSame(const std::string& path) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  EnsureLoaded();
  auto at = FindSameIndex(path);
  if (!at) return std::nullopt;
  return ToRecord(slots_[*at]);
}

bool DownloadedFilesStore::Change(const CVFileWithAction& file, bool isBroken, std::int32_t action,
                                  std::int64_t now) {
  CVStateJournal::Entry entry;
  entry.Number(kChange).Number(action).Text(file.nFilePath).Text(file.oldFilePath).Number(file.isFolder ? 1 : 0);
  entry.Number(file.fileSize).Number(file.dateModified).Number(isBroken ? 1 : 0).Number(now);
  return ApplyAndRecord(
      [&] {
        return ApplyChange(action, file.nFilePath, file.oldFilePath, file.isFolder, file.fileSize, file.dateModified,
                           isBroken, now);
      },
      entry);
}

bool DownloadedFilesStore::Rename(const std::string& oldPath, const std::string& newPath, bool isFolder) {
  return ApplyAndRecord([&] { return ApplyRename(oldPath, newPath, isFolder); },
                        CVStateJournal::Entry().Number(kRename).Text(oldPath).Text(newPath).Number(isFolder ? 1 : 0));
}

bool DownloadedFilesStore::SetNothingStatus(const std::string& path, std::int64_t now) {
  return ApplyAndRecord([&] { return ApplySetNothing(path, now); },
                        CVStateJournal::Entry().Number(kSetNothing).Text(path).Number(now));
}

bool DownloadedFilesStore::RemoveBelow(const std::string& folder) {
  return ApplyAndRecord([&] { return ApplyRemoveBelow(folder); },
                        CVStateJournal::Entry().Number(kRemoveBelow).Text(folder));
}

bool DownloadedFilesStore::ReplaceAll(const std::vector<CVFileForCompare>& records) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  // Whatever the file held, it is replaced: not even an unreadable one is read first.
  EnsureLoaded();
  slots_.Clear();
  for (const auto& record : records) {
    if (!record.deleted) Add(SlotOf(record));
  }
  return FoldLocked(/*overUnreadable=*/true);
}
