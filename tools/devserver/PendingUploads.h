#pragma once
// PendingUploads: the parts of a part upload that the server holds until the
// client's FinishPartialUpload assembles them, per file of one storage. They
// live in the storage's state folder, never in the storage's folder: a client
// lists that folder, and a half-sent file is not part of the storage.
//
// One set per path, with the full size and part size its parts announced. A
// part that announces another full size or part size drops the set and starts
// a new one (chosen): the file changed while it was sent, and parts of the
// older content must not be assembled with parts of the newer one. A part at
// an offset the set holds already replaces the one there. Thread-safe.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

struct PendingPart {
  std::int64_t start = 0;
  std::int64_t end = 0;  // exclusive
  std::string md5;       // base64
  std::filesystem::path file;
};

struct PendingSet {
  std::int64_t fullSize = 0;
  std::int64_t partSize = 0;       // bytes
  std::vector<PendingPart> parts;  // by offset
};

class PendingUploads {
 public:
  explicit PendingUploads(std::filesystem::path root);

  // Adopts `received`, a file on the same file system, as the part [start, end)
  // of the path's set; it is moved, not copied. True when an older set with
  // other sizes was dropped for it. Throws on failure.
  bool AddPart(const std::string& relativePath, std::int64_t fullSize, std::int64_t partSize,
               std::int64_t start, std::int64_t end, const std::string& md5,
               const std::filesystem::path& received);
  std::optional<PendingSet> Find(const std::string& relativePath) const;
  // False when the path had no set.
  bool Drop(const std::string& relativePath);

 private:
  std::filesystem::path FolderOf(const std::string& relativePath) const;

  std::filesystem::path root_;
  mutable std::mutex mutex_;
};

}  // namespace devserver
