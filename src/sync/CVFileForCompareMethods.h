#pragma once
// CVFileForCompareMethods: the class operations of CVFileForCompare (a plain
// record): the three-way decision of one server line against the record of the
// last sync and the disk (CheckFile2), the reading of a path from the disk, and
// the path equality the comparison uses. Stateless; any thread.
//
// Two equalities: the "same" path is equal after Unicode normalisation (NFC),
// case-sensitive; an "identical" path is equal byte for byte. The disk may hold a
// name decomposed where the server and the record hold it composed.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "SyncRecords.h"

class CVFileForCompareMethods {
 public:
  // The records of the last sync by their normalised path. Of several records
  // with the same path only the first counts, as in a walk from the front.
  class PathIndex {
   public:
    PathIndex() = default;
    explicit PathIndex(const std::vector<CVFileForCompare>& records);
    // The position of the first record with the same path.
    std::optional<std::size_t> Find(const std::string& path) const;
    bool Contains(const std::string& path) const { return Find(path).has_value(); }
    std::size_t size() const { return first_.size(); }

   private:
    std::unordered_map<std::string, std::size_t> first_;
  };

  // The comparison result (CMP_*) of a server line against the first record of
  // the same path in serverFiles, and the disk. That record gets wasProcessed.
  // A walk over the list; FilterNFQ finds the record through a PathIndex.
  [[nodiscard]] static std::int32_t CheckFile2(const CVFileForCompare& serverFile,
                                               std::vector<CVFileForCompare>& serverFiles);
  // The decision table alone: line, its record (or none), what the disk holds at
  // its path (or none). Marks the record processed. Where the disk holds the
  // other kind than the line (a file became a folder or the reverse), the result
  // is CMP_LocalChanged when only the disk changed, else CMP_ServerNewer: the
  // download then makes room for the server's item.
  [[nodiscard]] static std::int32_t CheckFile2(const CVFileForCompare& serverFile,
                                               CVFileForCompare* record,
                                               const std::optional<CVFileForCompare>& local);

  // The path as it stands on the disk, or nothing when nothing stands there under
  // any normalisation form of the name. A symbolic link is read as itself, never
  // followed. localPath is the path as given.
  static std::optional<CVFileForCompare> CreateCVFileForCompare(const std::string& path);
  // The record of an entry already known to exist (lstat, no link followed);
  // site is taken from siteSource. A vanished entry reads as an empty file.
  static CVFileForCompare ReadEntry(const std::string& path, const std::string& siteSource);

  // NFC form of a path; ASCII and text that is not UTF-8 come back as they are.
  static std::string NormalizedPath(const std::string& path);
  // NFD form, for looking a composed name up on a disk that holds it decomposed.
  static std::string DecomposedPath(const std::string& path);
  // Equal after normalisation, case-sensitive.
  static bool IsSamePath(const std::string& a, const std::string& b);
};
