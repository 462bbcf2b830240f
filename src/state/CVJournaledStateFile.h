#pragma once
// CVJournaledStateFile: a state file held in memory as one copy, its changes
// made durable through a journal beside it (CVStateJournal), and folded into
// the file in its own format by Fold: at the end of a pass, on quit, when the
// journal has grown as large as the file, and at once after a load that found
// entries (the crash of an earlier run). At rest the file is what a whole
// rewrite after every change would have left.
//
// The memory follows the file: when the file was replaced by someone else (a
// test, a repair, a hand edit while the client ran) the next access reads it
// again, and the journal written for the old file is set aside.
//
// A subclass holds the content and implements the four hooks below; it calls
// every operation of this class under the lock it hands over, which also
// guards its content.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "CVStateJournal.h"
#include "CVStateXMLFile.h"

class CVJournaledStateFile {
 public:
  virtual ~CVJournaledStateFile();
  CVJournaledStateFile(const CVJournaledStateFile&) = delete;
  CVJournaledStateFile& operator=(const CVJournaledStateFile&) = delete;

  // Writes what changed since the last fold into the file, and starts the
  // journal afresh. True when the file is whole and current afterwards.
  bool Fold();
  // Everything changed so far durable now, without a fold.
  void Commit();
  // A folder that a file was renamed into, made durable before the next entry.
  void NoteFolder(const std::string& folder);
  // Forgets the memory and the journal object; the next access reads the file
  // (and its journal) again. For tests and the account's wipe.
  void Forget();

 protected:
  // A journal at least this large is folded, whatever the file's size.
  static constexpr std::int64_t kFoldFloor = 1 << 20;

  CVJournaledStateFile(const char* className, std::recursive_mutex& lock);

  // The file's path now (it follows the home folder).
  virtual std::string Path() const = 0;
  // Replaces the content by what the file holds.
  virtual StateFileRead ReadFile() = 0;
  // Applies one journal entry to the content; false for an entry that does not read.
  virtual bool ApplyEntry(CVStateJournal::Reader& entry) = 0;
  // Writes the whole content into the file; false (logged) when the old file stays.
  virtual bool WriteFile() = 0;

  // Under the lock: the content is that of the file as it stands, with the
  // journal applied. How the file read; Unreadable means the content is empty
  // and nothing may be written.
  StateFileRead EnsureLoaded();
  // Under the lock, after a change was applied to the content: the change made
  // durable (journal, or a fold when the journal cannot take it).
  bool Record(const CVStateJournal::Entry& entry);
  // A named change: under the lock, apply changes the content and says whether
  // it changed anything; entry then makes that durable. False when the file
  // cannot be read or the change did not reach the disk.
  template <typename Apply>
  bool ApplyAndRecord(Apply&& apply, const CVStateJournal::Entry& entry) {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    if (EnsureLoaded() == StateFileRead::Unreadable) return false;
    if (!apply()) return true;  // nothing to change: the file already says so
    return Record(entry);
  }
  // Under the lock: the content replaces the file now; a file that could not be
  // read only when overUnreadable (the caller replaces it knowingly).
  bool FoldLocked(bool overUnreadable = false);
  // Under the lock: how the content stands against the file.
  StateFileRead state() const { return state_; }
  bool changedSinceFold() const { return changed_; }

  std::recursive_mutex& lock_;

 private:
  const char* className_;
  bool loaded_ = false;
  std::string loadedPath_;
  CVStateJournal::FileVersion version_;
  std::unique_ptr<CVStateJournal> journal_;
  StateFileRead state_ = StateFileRead::Missing;
  bool changed_ = false;  // entries since the last fold
};
