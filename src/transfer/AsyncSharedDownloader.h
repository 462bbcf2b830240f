#pragma once
// AsyncSharedDownloader: fetches one file that is not part of a synced storage,
// so far an old version of a storage's file, to a place the user chose. The
// body goes into a temporary file beside the target, which replaces the target
// by a rename only once it is whole: a failed download leaves an existing
// target as it was. Synchronous for its caller, who runs it on a worker;
// StopDownloading may come from any other thread.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class ASIHTTPRequest;

class AsyncSharedDownloader {
 public:
  // downloadCancelReason after a run.
  enum CancelReason : std::int64_t {
    kReasonRunning = 0,
    kReasonSuccess = -1,        // the file is in place
    kReasonNoFile = 2,          // status good, but the file could not be written whole
    kReasonSizeMismatch = 3,    // the body's length differs from the size the server listed
    kReasonBadStatus = 4,       // a status outside 200 to 299
    kReasonRequestFailed = 5,   // the request failed on the way or was stopped
    kReasonNotAuthorized = 7,   // HTTP 401: the token was refused
  };
  static constexpr double kTimeOutSeconds = 60.0;

  // Called on the downloading thread with the bytes received so far.
  std::function<void(std::int64_t received)> onProgress;

  // DownloadStorageFile.ashx with the fields "token", "path" and "version" into
  // localPath. expectedSize: the version's size as listed, -1 when not known.
  // True when the file is in place.
  [[nodiscard]] bool DownloadFileVersionToPath(const std::string& localPath, const std::string& version,
                                               const std::string& serverPath, const std::string& token,
                                               std::int64_t expectedSize = -1);
  void StopDownloading();
  std::int64_t downloadCancelReason() const { return downloadCancelReason_; }

 private:
  std::mutex mutex_;
  std::shared_ptr<ASIHTTPRequest> request_;
  std::atomic<bool> stopped_{false};
  std::atomic<std::int64_t> downloadCancelReason_{kReasonRunning};
};
