#pragma once
// PartHashCache: the part hashes of a storage's files, kept while a file stays
// as it was. The client asks for them up to three times per part it sends, and
// hashing a large file again each time would make a part upload quadratic.
// An entry is good while the file's inode, size and change times are the same.
// Thread-safe; the hashing itself runs outside the lock.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "PartHashes.h"

namespace devserver {

class PartHashCache {
 public:
  // The parts of a regular file; throws std::runtime_error when it cannot be read.
  std::vector<FilePart> Parts(const std::filesystem::path& file, std::int64_t partSize);

 private:
  struct Stamp {
    ino_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;
    bool operator==(const Stamp&) const = default;
  };
  struct Entry {
    std::string file;
    std::int64_t partSize = 0;
    Stamp stamp;
    std::vector<FilePart> parts;
  };
  static Stamp StampOf(const std::filesystem::path& file);

  static constexpr std::size_t kMaxEntries = 64;
  std::mutex mutex_;
  std::list<Entry> entries_;  // most recently used first
};

}  // namespace devserver
