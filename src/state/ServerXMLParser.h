#pragma once
// ServerXMLParser: reads and writes ".Settings/DownloadedFiles.xml", the record of
// what was last in step with the server, one DownloadedFile per CVFileForCompare.
// The record is kept in memory by DownloadedFilesStore: a read gives a copy of
// it, a save replaces it; ReadFile and WriteFile are the file itself, for the
// store. The file's bytes are guarded by DownloadedXMLStaticMethods::downloadedFilesLock().

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "CVStateXMLFile.h"
#include "SyncRecords.h"

class ServerXMLParser {
 public:
  // The records of the file, in file order, each with wasProcessed false and its
  // site derived from localPath. Nothing when the file is missing or cannot be
  // read. Creates the root and settings folders where they are missing. A file
  // that does not parse gives the records read before the fault (logged, and the
  // file's bytes kept beside it).
  std::optional<std::vector<CVFileForCompare>> readDownloadedFiles();
  // How the last readDownloadedFiles went; callers must not save over Unreadable.
  StateFileRead lastRead() const { return lastRead_; }

  // Replaces the record with array, records with deleted set left out, and
  // writes the file at once. False (logged) when the old file stays.
  static bool saveDownloadedXML(const std::vector<CVFileForCompare>& array);

  // The records of the file itself, as readDownloadedFiles describes them.
  static std::optional<std::vector<CVFileForCompare>> ReadFile(StateFileRead& state);
  // The next record to write, or null at the end.
  using RecordSource = std::function<const CVFileForCompare*()>;
  // Replaces the file with the records that next gives. False (logged) when the old file stays.
  static bool WriteFile(const RecordSource& next);
  // The storage's name of a path below the root: the first folder under it; ""
  // for the root itself or a path outside it.
  static std::string SiteForLocalPath(const std::string& localPath);

 private:
  // The document of the records; those whose paths cannot stand in XML are
  // left out, each with a line in the log.
  static void WriteDownloadedXML(CVStateXMLFile::Writer& writer, const RecordSource& next);

  StateFileRead lastRead_ = StateFileRead::Missing;
};
