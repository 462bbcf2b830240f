#pragma once
// DownloadedFilesStore: the record of the last sync (DownloadedFiles.xml) as one
// compact copy in memory, indexed by path, with its changes made durable through
// the journal beside the file (CVJournaledStateFile). The named changes of
// AsyncFileCommonPart and DownloadedXMLStaticMethods and the reads of
// ServerXMLParser all come here, so that a change costs a lookup and one
// journal entry instead of a read and a rewrite of the whole file.
//
// One per process; any thread. Its lock is DownloadedXMLStaticMethods::
// downloadedFilesLock(), which a caller may hold around several calls.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CVJournaledStateFile.h"
#include "CVStaticHelpers.h"
#include "LiveSlots.h"
#include "SyncRecords.h"

class DownloadedFilesStore : public CVJournaledStateFile {
 public:
  static DownloadedFilesStore& Instance();

  // The records in file order, each with its site and wasProcessed false.
  // Nothing when there is no record file (and no change yet), or when it cannot
  // be read; state tells which.
  std::optional<std::vector<CVFileForCompare>> Records(StateFileRead& state);
  // The first record whose localPath is path byte for byte.
  std::optional<CVFileForCompare> Find(const std::string& path);
  // The first record of the same path after Unicode normalisation.
  std::optional<CVFileForCompare> FindSame(const std::string& path);
  // How the file read; Unreadable forbids every change.
  StateFileRead ReadState();

  // The changes; each false (logged by the caller) when the file cannot be read.
  // action 0 writes, 1 removes (a folder with everything below it), 2 moves the
  // record of oldFilePath to nFilePath; now is the status change time.
  bool Change(const CVFileWithAction& file, bool isBroken, std::int32_t action, std::int64_t now);
  // Moves the record of oldPath, and for a folder everything below it, to newPath.
  bool Rename(const std::string& oldPath, const std::string& newPath, bool isFolder);
  // Status -1 (seen) on every record of path.
  bool SetNothingStatus(const std::string& path, std::int64_t now);
  // Drops the records of folder and everything below it.
  bool RemoveBelow(const std::string& folder);
  // Replaces every record and writes the file at once.
  bool ReplaceAll(const std::vector<CVFileForCompare>& records);

 protected:
  std::string Path() const override;
  StateFileRead ReadFile() override;
  bool ApplyEntry(CVStateJournal::Reader& entry) override;
  bool WriteFile() override;

 private:
  // One record, without what is derived or never stored.
  struct Slot {
    std::string path;
    std::int64_t modifiedTime = 0;
    std::int64_t statusChangeTime = 0;
    std::int64_t size = 0;
    std::int32_t fileStatus = 0;
    bool broken = false;
    bool isFolder = false;
  };
  // Indexed by path, and by the normalised form where it differs from the path.
  struct Normalised {
    std::string operator()(const std::string& path) const { return CVStaticHelpers::PrecomposedForm(path); }
  };
  using Slots = LiveSlots<Slot, &Slot::path, Normalised>;
  using Index = Slots::Index;

  DownloadedFilesStore();
  // The stored fields of a slot over those of a record, and back; ToRecord adds the site.
  static void FillRecord(const Slot& slot, CVFileForCompare& record);
  static Slot SlotOf(CVFileForCompare record);
  CVFileForCompare ToRecord(const Slot& slot) const;

  // A slot whose path XML can hold; any other is logged and left out.
  void Add(Slot slot);
  void Move(Index at, std::string path);
  std::optional<Index> FindSameIndex(const std::string& path) const;

  // The operations, applied to the content alone.
  bool ApplyChange(std::int32_t action, const std::string& nFilePath, const std::string& oldFilePath,
                   bool isFolder, std::int64_t size, std::int64_t modified, bool isBroken, std::int64_t now);
  bool ApplyRename(const std::string& oldPath, const std::string& newPath, bool isFolder);
  bool ApplySetNothing(const std::string& path, std::int64_t now);
  bool ApplyRemoveBelow(const std::string& folder);

  Slots slots_;  // in file order
};
