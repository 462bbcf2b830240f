#pragma once
// NewFilesStore: the stored queue of local changes (NewFiles.xml) as one copy in
// memory, with its changes made durable through the journal beside the file
// (CVJournaledStateFile): the filter writes the whole queue, and each finished
// entry is one journal entry instead of a rewrite of the rest of the queue.
//
// One per process; any thread. Its lock is NewFilesParser::newFilesLock().

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CVJournaledStateFile.h"
#include "LiveSlots.h"
#include "SyncRecords.h"

class NewFilesStore : public CVJournaledStateFile {
 public:
  static NewFilesStore& Instance();

  // The queue in file order; nothing when there is none or it cannot be read.
  std::optional<std::vector<NFQ_File>> Records(StateFileRead& state);
  // Replaces the queue and writes the file at once.
  bool ReplaceAll(const std::vector<NFQ_File>& records);
  // action 0: the path has a record (a new one with the path and isFolder
  // alone); 1: the first record of the path goes. False when the file cannot be read.
  bool Change(const std::string& nFilePath, bool isFolder, std::int32_t action);
  // Drops the records at or below folder.
  bool RemoveBelow(const std::string& folder);
  // Moves the records at or below oldFolder to newFolder.
  bool MoveBelow(const std::string& oldFolder, const std::string& newFolder);

 protected:
  std::string Path() const override;
  StateFileRead ReadFile() override;
  bool ApplyEntry(CVStateJournal::Reader& entry) override;
  bool WriteFile() override;

 private:
  using Slots = LiveSlots<NFQ_File, &NFQ_File::nFilePath>;
  using Index = Slots::Index;

  NewFilesStore();
  bool ApplyChange(const std::string& nFilePath, bool isFolder, std::int32_t action);
  bool ApplyRemoveBelow(const std::string& folder);
  bool ApplyMoveBelow(const std::string& oldFolder, const std::string& newFolder);

  Slots slots_;
};
