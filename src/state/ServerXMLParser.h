#pragma once
// ServerXMLParser: reads and writes ".Settings/DownloadedFiles.xml", the record of
// what was last in step with the server, one DownloadedFile per CVFileForCompare.
// There is no copy in memory: each read parses the whole file. One parser per
// thread; the file's bytes are guarded by DownloadedXMLStaticMethods::downloadedFilesLock().

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

  // Replaces the file with array, records with deleted set left out. False (logged)
  // when the old file stays.
  static bool saveDownloadedXML(const std::vector<CVFileForCompare>& array);
  // The storage's name of a path below the root: the first folder under it; ""
  // for the root itself or a path outside it.
  static std::string SiteForLocalPath(const std::string& localPath);

 private:
  // The document of array; records whose paths cannot stand in XML are left
  // out, each with a line in the log.
  static void WriteDownloadedXML(CVStateXMLFile::Writer& writer, const std::vector<CVFileForCompare>& array);

  StateFileRead lastRead_ = StateFileRead::Missing;
};
