#pragma once
// DownloadLanding: downloads that have arrived whole under their temporary
// names and wait to be moved into place. A file's data must be durable before
// its rename, and one fdatasync per file makes the disk commit once per file;
// here the writeback of each file starts when it arrives, and one commit of
// the file system carries the data of the whole batch before the renames and
// records of all of them. A batch lands when it is full, old or large, before
// any operation other than a download, when the loop runs out of work, and when
// its owner goes. Until then a file stands under its temporary name with its
// broken record, which a crash leaves to be resumed (nothing left to fetch).
//
// Owned by the per-file operations; filled on the requests' threads (also by
// downloads that run ahead of the loop), landed on the sync thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "SyncRecords.h"

class DownloadLanding {
 public:
  static constexpr std::size_t kMostFiles = 64;
  static constexpr std::int64_t kMostBytes = 64 << 20;
  static constexpr std::chrono::milliseconds kLongestWait{200};

  DownloadLanding() = default;
  ~DownloadLanding();
  DownloadLanding(const DownloadLanding&) = delete;
  DownloadLanding& operator=(const DownloadLanding&) = delete;

  // Takes a finished temporary file, its descriptor open for writing, its size
  // checked, its time set; the descriptor is closed here. A file fetched where
  // nothing stood lands only while nothing stands there (onlyWherePathFree).
  void Add(int fd, const std::string& temporaryPath, const CVFileWithAction& file, bool onlyWherePathFree = false);
  // True when the batch should land before a download of nextSize bytes.
  bool Due(std::int64_t nextSize = 0) const;
  bool empty() const;
  // Moves everything into place: data durable, renamed, recorded. A file that
  // cannot land stays under its temporary name with its broken record (logged).
  // own learns the temporary and final paths of every file of the batch before
  // anything moves, for the watcher; a file added meanwhile waits for the next.
  void Land(const std::function<void(const std::string&)>& own = {});

 private:
  struct Arrived {
    int fd = -1;  // -2: not durable, stays under its temporary name
    std::string temporaryPath;
    CVFileWithAction file;
    bool onlyWherePathFree = false;
  };

  // Closes every descriptor; one whose data could not be made durable is -2.
  static void MakeDurable(std::vector<Arrived>& batch);

  mutable std::mutex mutex_;
  std::vector<Arrived> waiting_;
  std::int64_t bytes_ = 0;
  std::chrono::steady_clock::time_point oldest_;
};
