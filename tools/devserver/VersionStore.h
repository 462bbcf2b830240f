#pragma once
// VersionStore: the earlier contents of a storage's files, kept when a file is
// overwritten or deleted. Lives outside the storage's folder (the folder is what
// the server holds): one folder per file path, named by the MD5 of the path,
// holding the path, and per version its bytes and a small record.
// Thread-safe.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

struct VersionRecord {
  int version = 0;             // 1 for the oldest
  std::int64_t createdMs = 0;  // when the version was kept, ms since 1970 (UTC)
  std::int64_t size = 0;
  std::string owner;  // the user whose change made the version
  std::string path;   // relative to the storage's folder, "/" separated
};

class VersionStore {
 public:
  explicit VersionStore(std::filesystem::path root);

  // Copies the file's present bytes as the next version of relativePath. A copy,
  // not a link: the storage's file may later be rewritten in place.
  VersionRecord Keep(const std::string& relativePath, const std::filesystem::path& file,
                     const std::string& owner);
  // Oldest first; empty when the path has none.
  std::vector<VersionRecord> List(const std::string& relativePath) const;
  std::optional<std::filesystem::path> ContentOf(const std::string& relativePath,
                                                 int version) const;

 private:
  std::filesystem::path FolderOf(const std::string& relativePath) const;
  std::vector<VersionRecord> ListLocked(const std::string& relativePath) const;

  std::filesystem::path root_;
  mutable std::mutex mutex_;
};

}  // namespace devserver
