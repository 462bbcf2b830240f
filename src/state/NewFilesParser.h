#pragma once
// NewFilesParser: reads and writes ".Settings/NewFiles.xml", the local changes
// that are queued and not yet on the server, one NewFile per NFQ_File, so that
// they survive a restart. The queue is kept in memory by NewFilesStore: a read
// gives a copy of it, a save replaces it; ReadFile and WriteFile are the file
// itself, for the store. One parser per thread; the file is guarded by newFilesLock().

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVStateXMLFile.h"
#include "SyncRecords.h"

class NewFilesParser {
 public:
  // Settings + "/NewFiles.xml".
  static std::string NewFilesXMLPath();

  // Held by both writers of the file: the filter, around taking its copy of the
  // queue and saving it, and every read-change-save of a single record, so that
  // a removal is not lost to a write of the whole queue. Recursive; lives as long
  // as the process. saveNewFilesXML and readNewFiles take it too.
  static std::recursive_mutex& newFilesLock();

  // Replaces the queue with array and writes the file at once; an empty array
  // gives the root element alone. False (logged) when the old file stays.
  static bool saveNewFilesXML(const std::vector<NFQ_File>& array);

  // The records of the file itself, as readNewFiles describes them.
  static std::optional<std::vector<NFQ_File>> ReadFile(StateFileRead& state);
  // The next record to write, or null at the end.
  using RecordSource = std::function<const NFQ_File*()>;
  // Replaces the file with the records that next gives. False (logged) when the old file stays.
  static bool WriteFile(const RecordSource& next);
  // The records of the file in file order; nothing when it is missing or cannot
  // be read. Creates the root and settings folders where they are missing. A file
  // that does not parse gives the records read before the fault (logged, and the
  // file's bytes kept beside it).
  std::optional<std::vector<NFQ_File>> readNewFiles();
  // How the last readNewFiles went; callers must not save over Unreadable.
  StateFileRead lastRead() const { return lastRead_; }

 private:
  // The document of array; records whose paths cannot stand in XML are left
  // out, each with a line in the log.
  static void WriteNewFilesXML(CVStateXMLFile::Writer& writer, const RecordSource& next);

  StateFileRead lastRead_ = StateFileRead::Missing;
};
