#include "CVJournaledStateFile.h"

#include <algorithm>
#include <exception>

#include "CrashPoint.h"
#include "CVEventLogger.h"

CVJournaledStateFile::CVJournaledStateFile(const char* className, std::recursive_mutex& lock)
    : lock_(lock), className_(className) {}

CVJournaledStateFile::~CVJournaledStateFile() = default;

StateFileRead CVJournaledStateFile::EnsureLoaded() {
  const std::string path = Path();
  if (loaded_ && path == loadedPath_ && state_ != StateFileRead::Unreadable) {
    if (CVStateJournal::FileVersion::Of(path) == version_) return state_;
    CVEventLogger::WriteMainLogMessage(std::string(className_) + " - EnsureLoaded -> " + path +
                                       " was replaced; it is read again");
  }
  if (!journal_ || path != loadedPath_) journal_ = std::make_unique<CVStateJournal>(path);
  loadedPath_ = path;
  loaded_ = true;
  changed_ = false;
  version_ = CVStateJournal::FileVersion::Of(path);
  state_ = ReadFile();
  // An unreadable file is read again at the next access; its journal waits for it.
  if (state_ == StateFileRead::Unreadable) return state_;

  std::size_t applied = 0;
  const auto entries = journal_->Read(version_);
  for (const auto& bytes : entries) {
    CVStateJournal::Reader entry(bytes);
    try {
      if (ApplyEntry(entry) && entry.ok()) ++applied;
    } catch (const std::exception& exception) {
      CVEventLogger::LogException(className_, "EnsureLoaded", exception.what());
    }
  }
  if (entries.empty()) {
    journal_->Restart(version_);
    return state_;
  }
  // Changes of an earlier run that did not reach the file: folded in now.
  CVEventLogger::WriteMainLogMessage(std::string(className_) + " - EnsureLoaded -> " + std::to_string(applied) +
                                     " of " + std::to_string(entries.size()) + " journal entries applied to " + path);
  changed_ = true;
  FoldLocked();
  return state_;
}

bool CVJournaledStateFile::Record(const CVStateJournal::Entry& entry) {
  changed_ = true;
  // A file that did not read whole is replaced at the first change, as a whole
  // rewrite would have done: from then on it reads whole again.
  if (state_ == StateFileRead::Broken) return FoldLocked();
  if (!journal_ || !journal_->Append(entry)) return FoldLocked();
  CrashPoint("record-journaled");
  if (journal_->entryBytes() > std::max(kFoldFloor, version_.size)) return FoldLocked();
  return true;
}

bool CVJournaledStateFile::FoldLocked(bool overUnreadable) {
  if (state_ == StateFileRead::Unreadable && !overUnreadable) return false;
  if (!WriteFile()) return false;
  CrashPoint("state-file-folded");
  version_ = CVStateJournal::FileVersion::Of(loadedPath_.empty() ? Path() : loadedPath_);
  state_ = StateFileRead::Whole;
  changed_ = false;
  if (journal_) journal_->Restart(version_);
  return true;
}

bool CVJournaledStateFile::Fold() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (!loaded_) return true;
  if (!changed_ && state_ != StateFileRead::Broken) return true;
  return FoldLocked();
}

void CVJournaledStateFile::Commit() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (journal_) journal_->Commit();
}

void CVJournaledStateFile::NoteFolder(const std::string& folder) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  EnsureLoaded();
  if (journal_) journal_->NoteFolder(folder);
}

void CVJournaledStateFile::Forget() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  journal_.reset();
  loaded_ = false;
  loadedPath_.clear();
  changed_ = false;
  state_ = StateFileRead::Missing;
}
