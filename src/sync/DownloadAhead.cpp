#include "DownloadAhead.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "AsyncFileDownloader.h"
#include "CVEventLogger.h"

namespace fs = std::filesystem;

DownloadAhead::DownloadAhead(MakeDownloader make, Fetch fetch)
    : work_(
          kMostAhead, std::move(make),
          [fetch = std::move(fetch)](const CVFileWithAction& item, AsyncFileDownloader& downloader) {
            Outcome outcome;
            outcome.arrived = fetch(item, downloader);
            outcome.localErrno = downloader.lastLocalErrno();
            return outcome;
          },
          [](AsyncFileDownloader& downloader) { downloader.StopDownloading(); }) {}

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

void DownloadAhead::Start(const std::vector<CVFileWithAction>& next) { work_.Start(next, Qualifies, false); }

std::optional<DownloadAhead::Outcome> DownloadAhead::Take(const CVFileWithAction& item) {
  auto taken = work_.Take(item, /*sameVersionOnly=*/true);
  if (!taken) return std::nullopt;
  return taken->second;
}

void DownloadAhead::Stop() { work_.Stop(); }

void DownloadAhead::Finish() {
  if (const std::size_t left = work_.Finish()) {
    CVEventLogger::WriteMainLogMessage("DownloadAhead - Finish -> " + std::to_string(left) +
                                       " download(s) started ahead were not reached; what arrived lands now");
  }
}

std::size_t DownloadAhead::Running() const { return work_.Running(); }
