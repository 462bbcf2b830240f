#pragma once
// AsyncFileCommonPart: the named changes to DownloadedFiles.xml (the record of the
// last sync) and to NewFiles.xml (the queued local changes). Each change reads the
// whole file, changes its private copy and writes the whole file back, under the
// file's lock, so that changes from several threads are never lost. Any thread.
// Failures are logged and leave the file as it was; writers return whether the
// file now holds the change.

#include <cstdint>
#include <string>
#include <vector>

#include "SyncRecords.h"

class AsyncFileCommonPart {
 public:
  // --- DownloadedFiles.xml ---

  // The one writer of single records. action 0 writes the file's record (status 0
  // when new, 1 when it was there), 1 removes it (a folder with everything below),
  // 2 moves it from oldFilePath to nFilePath; any other saves the file unchanged.
  // A record is found by nFilePath (oldFilePath for 2) or by the file's temporary
  // download name. An item of a download for an upload request is never recorded.
  static bool ChangeDownloadedFiles(const CVFileWithAction& file, bool isBroken, std::int32_t action);
  // ChangeDownloadedFiles with action 0.
  static bool WriteToDownloadedFiles(const CVFileWithAction& file, bool isBroken);
  // ChangeDownloadedFiles with isBroken false and action 1.
  static bool RemoveFromDownloadedFiles(const CVFileWithAction& file);
  // Moves the record of oldFilePath to nFilePath, and for a folder every record
  // below it; statuses stay. Without a record the file is saved unchanged.
  static bool WriteRenameOperationToDownloadedFiles(const CVFileWithAction& file);
  // True when a record's localPath is nFilePath; also true when the file could
  // not be read, so that nothing is taken for new by mistake.
  static bool FileExistInDownloadFile(const CVFileWithAction& file);
  // Marks the records of FileURL as seen (status -1), so that the activity list
  // no longer shows them.
  static bool SetNothingStatusForFile(const std::string& FileURL);

  // The temporary name of a download of path: ".name.cvtemp" in the same folder.
  static std::string TemporaryNameForPath(const std::string& path);

  // --- NewFiles.xml ---

  // The stored queue; empty when the file is missing or cannot be read.
  static std::vector<NFQ_File> GetAllFilesFromNewFiles();
  // action 0 makes sure the file has a record (a new one with nFilePath and
  // isFolder only), 1 removes the first record of its nFilePath. The file is
  // saved in every case.
  static bool ChangeNewFiles(const CVFileWithAction& file, std::int32_t action);
  static bool ChangeNewFiles(const NFQ_File& file, std::int32_t action);
  // ChangeNewFiles with action 1.
  static bool RemoveFromNewFiles(const CVFileWithAction& file);
  static bool RemoveFromNewFiles(const NFQ_File& file);
  // Drops the records at or below a storage's folder; path is the folder or the
  // storage's name. "Docs" leaves "Docs2" alone.
  static bool RemoveItemNewFilesForSite(const std::string& path);
  // Moves the records at or below the storage folder old to InNewSite (folders or
  // storage names).
  static bool RenameSiteOld(const std::string& old, const std::string& InNewSite);
  // base and With joined by exactly the "/" between them: "/a"+"b" and "/a/"+"b"
  // give "/a/b", "/a/"+"" gives "/a", "/a"+"/b" gives "/a/b".
  static std::string BuildPathComponent(const std::string& base, const std::string& With);
};
