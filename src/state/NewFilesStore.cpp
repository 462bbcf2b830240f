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

void NewFilesStore::Clear() {
  slots_.clear();
  byPath_.clear();
  live_ = 0;
  sharedKeys_ = false;
}

void NewFilesStore::IndexSlot(Index at) {
  auto [found, added] = byPath_.try_emplace(std::string_view(slots_[at].record.nFilePath), at);
  if (added) return;
  sharedKeys_ = true;
  if (found->second > at) found->second = at;
}

void NewFilesStore::Add(NFQ_File record) {
  slots_.push_back(Slot{std::move(record), true});
  ++live_;
  IndexSlot(static_cast<Index>(slots_.size() - 1));
}

void NewFilesStore::Kill(Index at) {
  Slot& slot = slots_[at];
  if (!slot.live) return;
  const std::string path = slot.record.nFilePath;
  slot.live = false;
  --live_;
  if (auto found = byPath_.find(path); found != byPath_.end() && found->second == at) {
    byPath_.erase(found);
    if (sharedKeys_) {
      for (Index next = at + 1; next < slots_.size(); ++next) {
        if (slots_[next].live && slots_[next].record.nFilePath == path) {
          byPath_.emplace(std::string_view(slots_[next].record.nFilePath), next);
          break;
        }
      }
    }
  }
  slot.record = NFQ_File{};
}

void NewFilesStore::SetPath(Index at, std::string path) {
  NFQ_File record = slots_[at].record;
  record.nFilePath = std::move(path);
  // Killed and added in its place keeps the index of both paths right.
  Kill(at);
  slots_[at] = Slot{std::move(record), true};
  ++live_;
  IndexSlot(at);
}

bool NewFilesStore::ApplyChange(const std::string& nFilePath, bool isFolder, std::int32_t action) {
  auto found = byPath_.find(nFilePath);
  if (action == 1) {
    if (found == byPath_.end()) return false;
    Kill(found->second);
    return true;
  }
  if (action != 0) return false;
  if (found == byPath_.end()) {
    NFQ_File record;
    record.nFilePath = nFilePath;
    record.isFolder = isFolder;
    Add(std::move(record));
    return true;
  }
  NFQ_File& record = slots_[found->second].record;
  if (record.isFolder == isFolder) return false;
  record.isFolder = isFolder;
  return true;
}

bool NewFilesStore::ApplyRemoveBelow(const std::string& folder) {
  bool changed = false;
  for (Index at = 0; at < slots_.size(); ++at) {
    if (slots_[at].live && StateFileSupport::IsSameOrBelow(slots_[at].record.nFilePath, folder)) {
      Kill(at);
      changed = true;
    }
  }
  return changed;
}

bool NewFilesStore::ApplyMoveBelow(const std::string& oldFolder, const std::string& newFolder) {
  bool changed = false;
  for (Index at = 0; at < slots_.size(); ++at) {
    const std::string& path = slots_[at].record.nFilePath;
    if (!slots_[at].live || !StateFileSupport::IsSameOrBelow(path, oldFolder)) continue;
    std::string tail = path.substr(oldFolder.size());
    if (!tail.empty() && tail.front() == '/') tail.erase(0, 1);
    SetPath(at, AsyncFileCommonPart::BuildPathComponent(newFolder, tail));
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
  Clear();
  StateFileRead state = StateFileRead::Missing;
  if (auto records = NewFilesParser::ReadFile(state)) {
    for (auto& record : *records) Add(std::move(record));
  }
  return state;
}

bool NewFilesStore::WriteFile() {
  if (live_ != slots_.size()) {
    std::deque<Slot> kept;
    for (auto& slot : slots_) {
      if (slot.live) kept.push_back(std::move(slot));
    }
    Clear();
    for (auto& slot : kept) Add(std::move(slot.record));
  }
  std::size_t next = 0;
  return NewFilesParser::WriteFile(
      [&]() -> const NFQ_File* { return next == slots_.size() ? nullptr : &slots_[next++].record; });
}

std::optional<std::vector<NFQ_File>> NewFilesStore::Records(StateFileRead& state) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  state = EnsureLoaded();
  if (state == StateFileRead::Missing && (live_ > 0 || changedSinceFold())) state = StateFileRead::Whole;
  if (state == StateFileRead::Missing || state == StateFileRead::Unreadable) return std::nullopt;
  std::vector<NFQ_File> records;
  records.reserve(live_);
  for (const auto& slot : slots_) {
    if (slot.live) records.push_back(slot.record);
  }
  return records;
}

bool NewFilesStore::ReplaceAll(const std::vector<NFQ_File>& records) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  EnsureLoaded();
  Clear();
  for (const auto& record : records) Add(record);
  return FoldLocked(/*overUnreadable=*/true);
}

bool NewFilesStore::Change(const std::string& nFilePath, bool isFolder, std::int32_t action) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (EnsureLoaded() == StateFileRead::Unreadable) return false;
  if (!ApplyChange(nFilePath, isFolder, action)) return true;
  CVStateJournal::Entry entry;
  entry.Number(kChange).Text(nFilePath).Number(isFolder ? 1 : 0).Number(action);
  return Record(entry);
}

bool NewFilesStore::RemoveBelow(const std::string& folder) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (EnsureLoaded() == StateFileRead::Unreadable) return false;
  if (!ApplyRemoveBelow(folder)) return true;
  CVStateJournal::Entry entry;
  entry.Number(kRemoveBelow).Text(folder);
  return Record(entry);
}

bool NewFilesStore::MoveBelow(const std::string& oldFolder, const std::string& newFolder) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (EnsureLoaded() == StateFileRead::Unreadable) return false;
  if (!ApplyMoveBelow(oldFolder, newFolder)) return true;
  CVStateJournal::Entry entry;
  entry.Number(kMoveBelow).Text(oldFolder).Text(newFolder);
  return Record(entry);
}
