#include "PartHashCache.h"

#include <sys/stat.h>

#include <stdexcept>

namespace devserver {

PartHashCache::Stamp PartHashCache::StampOf(const std::filesystem::path& file) {
  struct stat st {};
  if (::lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    throw std::runtime_error("not a regular file: " + file.string());
  }
  Stamp stamp;
  stamp.inode = st.st_ino;
  stamp.size = static_cast<std::int64_t>(st.st_size);
  stamp.modifiedNs =
      static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
  stamp.changedNs =
      static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1'000'000'000 + st.st_ctim.tv_nsec;
  return stamp;
}

std::vector<FilePart> PartHashCache::Parts(const std::filesystem::path& file,
                                           std::int64_t partSize) {
  const auto before = StampOf(file);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (it->file != file.string() || it->partSize != partSize) continue;
      if (it->stamp == before) {
        entries_.splice(entries_.begin(), entries_, it);
        return entries_.front().parts;
      }
      entries_.erase(it);
      break;
    }
  }
  auto parts = HashFileParts(file, partSize);
  // A file that changed while it was read is answered but not kept.
  if (StampOf(file) == before) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.remove_if(
        [&](const Entry& e) { return e.file == file.string() && e.partSize == partSize; });
    entries_.push_front(Entry{file.string(), partSize, before, parts});
    if (entries_.size() > kMaxEntries) entries_.pop_back();
  }
  return parts;
}

}  // namespace devserver
