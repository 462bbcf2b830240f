#include "NewFilesStore.h"

#include "AsyncFileCommonPart.h"
#include "NewFilesParser.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "NewFilesStore";

enum Operation : std::int64_t { kChange = 1, kRemoveBelow = 2, kMoveBelow = 3 };

}  // namespace

NewFilesStore::NewFilesStore() : CVJournaledStateFile(kClassName, NewFilesParser::newFilesLock()) {}

NewFilesStore& NewFilesStore::Instance() {
  // Lives to the end of the process: threads may still record during exit.
  static NewFilesStore* store = new NewFilesStore();
  return *store;
}

std::string NewFilesStore::Path() const { return NewFilesParser::NewFilesXMLPath(); }

bool NewFilesStore::ApplyChange(const std::string& nFilePath, bool isFolder, std::int32_t action) {
  auto found = slots_.First(nFilePath);
  if (action == 1) {
    if (!found) return false;
    slots_.Kill(*found);
    return true;
  }
  if (action != 0) return false;
  if (!found) {
    NFQ_File record;
    record.nFilePath = nFilePath;
    record.isFolder = isFolder;
    slots_.Add(std::move(record));
    return true;
  }
  NFQ_File& record = slots_[*found];
  if (record.isFolder == isFolder) return false;
  record.isFolder = isFolder;
  return true;
}

bool NewFilesStore::ApplyRemoveBelow(const std::string& folder) {
  bool changed = false;
  for (Index at = 0; at < slots_.size(); ++at) {
    if (slots_.IsLive(at) && StateFileSupport::IsSameOrBelow(slots_[at].nFilePath, folder)) {
      slots_.Kill(at);
      changed = true;
    }
  }
  return changed;
}

bool NewFilesStore::ApplyMoveBelow(const std::string& oldFolder, const std::string& newFolder) {
  bool changed = false;
  for (Index at = 0; at < slots_.size(); ++at) {
    if (!slots_.IsLive(at)) continue;
    const std::string& path = slots_[at].nFilePath;
    if (!StateFileSupport::IsSameOrBelow(path, oldFolder)) continue;
    std::string tail = path.substr(oldFolder.size());
    if (!tail.empty() && tail.front() == '/') tail.erase(0, 1);
    slots_.SetPath(at, AsyncFileCommonPart::BuildPathComponent(newFolder, tail));
    changed = true;
  }
  return changed;
}

bool NewFilesStore::ApplyEntry(CVStateJournal::Reader& entry) {
  switch (entry.Number()) {
    case kChange: {
      const std::string path = entry.Text();
      const bool isFolder = entry.Number() != 0;
      const auto action = static_cast<std::int32_t>(entry.Number());
      return entry.ok() && ApplyChange(path, isFolder, action);
    }
    case kRemoveBelow: {
      const std::string folder = entry.Text();
      return entry.ok() && ApplyRemoveBelow(folder);
    }
    case kMoveBelow: {
      const std::string oldFolder = entry.Text();
      const std::string newFolder = entry.Text();
      return entry.ok() && ApplyMoveBelow(oldFolder, newFolder);
    }
    default:
      return false;
  }
}

StateFileRead NewFilesStore::ReadFile() {
  slots_.Clear();
  StateFileRead state = StateFileRead::Missing;
  if (auto records = NewFilesParser::ReadFile(state)) {
    for (auto& record : *records) slots_.Add(std::move(record));
  }
  return state;
}

bool NewFilesStore::WriteFile() {
  // The file holds the live records alone: the dead slots go now.
  slots_.Compact();
  Index next = 0;
  return NewFilesParser::WriteFile(
      [&]() -> const NFQ_File* { return next == slots_.size() ? nullptr : &slots_[next++]; });
}

std::optional<std::vector<NFQ_File>> NewFilesStore::Records(StateFileRead& state) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  state = EnsureLoaded();
  if (state == StateFileRead::Missing && (slots_.live() > 0 || changedSinceFold())) state = StateFileRead::Whole;
  if (state == StateFileRead::Missing || state == StateFileRead::Unreadable) return std::nullopt;
  std::vector<NFQ_File> records;
  records.reserve(slots_.live());
  slots_.ForEachLive([&](const NFQ_File& record) { records.push_back(record); });
  return records;
}

bool NewFilesStore::ReplaceAll(const std::vector<NFQ_File>& records) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  EnsureLoaded();
  slots_.Clear();
  for (const auto& record : records) slots_.Add(record);
  return FoldLocked(/*overUnreadable=*/true);
}

bool NewFilesStore::Change(const std::string& nFilePath, bool isFolder, std::int32_t action) {
  return ApplyAndRecord([&] { return ApplyChange(nFilePath, isFolder, action); },
                        CVStateJournal::Entry().Number(kChange).Text(nFilePath).Number(isFolder ? 1 : 0).Number(action));
}

bool NewFilesStore::RemoveBelow(const std::string& folder) {
  return ApplyAndRecord([&] { return ApplyRemoveBelow(folder); },
                        CVStateJournal::Entry().Number(kRemoveBelow).Text(folder));
}

bool NewFilesStore::MoveBelow(const std::string& oldFolder, const std::string& newFolder) {
  return ApplyAndRecord([&] { return ApplyMoveBelow(oldFolder, newFolder); },
                        CVStateJournal::Entry().Number(kMoveBelow).Text(oldFolder).Text(newFolder));
}
