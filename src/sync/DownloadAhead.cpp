#include "DownloadAhead.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "AsyncFileDownloader.h"
#include "CVEventLogger.h"

namespace fs = std::filesystem;

namespace {
bool SameVersion(const CVFileWithAction& a, const CVFileWithAction& b) {
  return a.nFilePath == b.nFilePath && a.fileSize == b.fileSize && a.dateModified == b.dateModified;
}
}  // namespace

DownloadAhead::DownloadAhead(MakeDownloader make, Fetch fetch) : make_(std::move(make)), fetch_(std::move(fetch)) {}

DownloadAhead::~DownloadAhead() { Finish(); }

bool DownloadAhead::Qualifies(const CVFileWithAction& item) {
  if (item.fileAction != FWA_DownloadFromServer || item.isFolder || item.isFSWAction) return false;
  if (item.fileSize <= 0 || item.fileSize > kLargestFile || !item.urServerPath.empty()) return false;
  struct stat info {};
  if (::lstat(item.nFilePath.c_str(), &info) == 0 || errno != ENOENT) return false;
  const fs::path folder = fs::path(item.nFilePath).parent_path();
  std::error_code error;
  // A folder that does not exist yet comes earlier in the list; its download makes it.
  return !folder.empty() && fs::is_directory(fs::symlink_status(folder, error));
}

void DownloadAhead::Start(const std::vector<CVFileWithAction>& next) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& item : next) {
    if (entries_.size() >= kMostAhead) break;
    const bool known = std::any_of(entries_.begin(), entries_.end(),
                                   [&](const Entry& entry) { return entry.item.nFilePath == item.nFilePath; });
    if (known || !Qualifies(item)) continue;
    auto downloader = make_();
    Fetch fetch = fetch_;
    auto result = std::async(std::launch::async, [fetch, downloader, item] {
      Outcome outcome;
      outcome.arrived = fetch(item, *downloader);
      outcome.localErrno = downloader->lastLocalErrno();
      return outcome;
    });
    entries_.push_back(Entry{item, std::move(downloader), std::move(result)});
  }
}

std::optional<DownloadAhead::Outcome> DownloadAhead::Take(const CVFileWithAction& item) {
  Entry entry;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& running) { return running.item.nFilePath == item.nFilePath; });
    if (found == entries_.end()) return std::nullopt;
    entry = std::move(*found);
    entries_.erase(found);
  }
  if (!SameVersion(entry.item, item)) {
    // The list was built again meanwhile and wants another version.
    entry.downloader->StopDownloading();
    entry.result.wait();
    return std::nullopt;
  }
  return entry.result.get();
}

void DownloadAhead::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : entries_) entry.downloader->StopDownloading();
}

void DownloadAhead::Finish() {
  std::vector<Entry> left;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    left.swap(entries_);
  }
  if (left.empty()) return;
  for (auto& entry : left) entry.downloader->StopDownloading();
  for (auto& entry : left) entry.result.wait();
  CVEventLogger::WriteMainLogMessage("DownloadAhead - Finish -> " + std::to_string(left.size()) +
                                     " download(s) started ahead were not reached; what arrived lands now");
}

std::size_t DownloadAhead::Running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}
