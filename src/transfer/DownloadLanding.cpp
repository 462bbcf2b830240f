#include "DownloadLanding.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "AsyncFileCommonPart.h"
#include "CrashPoint.h"
#include "CVEventLogger.h"
#include "DownloadedFilesStore.h"

namespace fs = std::filesystem;

DownloadLanding::~DownloadLanding() { Land(); }

void DownloadLanding::Add(int fd, const std::string& temporaryPath, const CVFileWithAction& file,
                          bool onlyWherePathFree) {
  // The writeback starts now, so that the commit at landing finds the data on its way.
  ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
  std::lock_guard<std::mutex> lock(mutex_);
  if (waiting_.empty()) oldest_ = std::chrono::steady_clock::now();
  waiting_.push_back(Arrived{fd, temporaryPath, file, onlyWherePathFree});
  bytes_ += file.fileSize;
}

bool DownloadLanding::Due(std::int64_t nextSize) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (waiting_.empty()) return false;
  return waiting_.size() >= kMostFiles || bytes_ + nextSize > kMostBytes ||
         std::chrono::steady_clock::now() - oldest_ >= kLongestWait;
}

bool DownloadLanding::empty() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return waiting_.empty();
}

void DownloadLanding::MakeDurable(std::vector<Arrived>& batch) {
  // An fdatasync per file flushes the disk's cache once per file (milliseconds
  // each). Instead every file's data is written out and waited for, and one
  // syncfs commits the metadata of all of them and flushes the cache once.
  auto drop = [](Arrived& arrived, const char* what) {
    CVEventLogger::WriteMainLogMessage("DownloadLanding - Land -> the data of " + arrived.temporaryPath +
                                       " could not be made durable (" + what + "): " + std::strerror(errno) +
                                       "; it waits for the next pass");
    ::close(arrived.fd);
    arrived.fd = -2;
  };
  bool whole = batch.size() > 1;
  for (auto& arrived : batch) {
    if (whole && ::sync_file_range(arrived.fd, 0, 0,
                                   SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER) != 0) {
      drop(arrived, "written out");
    }
  }
  int any = -1;
  for (const auto& arrived : batch) {
    if (arrived.fd >= 0) any = arrived.fd;
  }
  if (whole && any >= 0 && ::syncfs(any) != 0) {
    CVEventLogger::WriteMainLogMessage(std::string("DownloadLanding - Land -> one commit for the batch failed (") +
                                       std::strerror(errno) + "); each file is committed on its own");
    whole = false;
  }
  for (auto& arrived : batch) {
    if (arrived.fd < 0) continue;
    if (!whole && ::fdatasync(arrived.fd) != 0) {
      drop(arrived, "committed");
      continue;
    }
    ::close(arrived.fd);
    arrived.fd = -1;
  }
}

void DownloadLanding::Land(const std::function<void(const std::string&)>& own) {
  std::vector<Arrived> batch;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    batch.swap(waiting_);
    bytes_ = 0;
  }
  if (batch.empty()) return;
  if (own) {
    for (const auto& arrived : batch) {
      own(arrived.temporaryPath);
      own(arrived.file.nFilePath);
    }
  }
  MakeDurable(batch);
  for (const auto& arrived : batch) {
    if (arrived.fd == -2) continue;
    CrashPoint("download-temp-written");
    std::error_code error;
    if (!arrived.onlyWherePathFree) {
      fs::rename(arrived.temporaryPath, arrived.file.nFilePath, error);
    } else if (::renameat2(AT_FDCWD, arrived.temporaryPath.c_str(), AT_FDCWD, arrived.file.nFilePath.c_str(),
                           RENAME_NOREPLACE) != 0) {
      // Something came to the path since the download began: it is compared next pass, never replaced.
      error = std::error_code(errno, std::generic_category());
    }
    if (error) {
      CVEventLogger::WriteMainLogMessage("DownloadLanding - Land -> " + arrived.temporaryPath +
                                         " could not be moved into place: " + error.message() +
                                         "; it waits for the next pass");
      continue;
    }
    CrashPoint("download-moved");
    // The rename is made durable with the record's next commit, many files at once.
    DownloadedFilesStore::Instance().NoteFolder(fs::path(arrived.file.nFilePath).parent_path().string());
    AsyncFileCommonPart::WriteToDownloadedFiles(arrived.file, false);
  }
}
