#pragma once
// DownloadedXMLStaticMethods: the rewrite of DownloadedFiles.xml, the clean-up of a
// storage's records, and the one lock of the file. Any thread.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "SyncRecords.h"

class DownloadedXMLStaticMethods {
 public:
  // Guards the file's bytes, and is held by every read-change-save cycle of the
  // file so that no thread's change is lost to another's. Recursive: a cycle
  // reads and saves under it. Lives as long as the process.
  static std::recursive_mutex& downloadedFilesLock();

  // How many reads found the file broken since the process began: the records
  // after the fault were lost then, and the comparison rebuilds them.
  static std::uint64_t BrokenReads();
  static void NoteBrokenRead();

  // The same rewrite as ServerXMLParser::saveDownloadedXML.
  static bool SaveDownloadedXMLFile(const std::vector<CVFileForCompare>& array);

  // Drops the records of the folder path and of everything below it, and
  // rewrites the file. "Docs" does not take "Docs2" with it. An empty path, "/" or
  // the root itself drops nothing. False (logged) when the file could not be read or written.
  static bool CleanXMLFromSite(const std::string& path);
};
