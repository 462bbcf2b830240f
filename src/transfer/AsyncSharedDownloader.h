#pragma once
// AsyncSharedDownloader: fetches one file that belongs to no synced storage: a
// file shared with the user (GetFile.ashx) or by the user (GetMyFile.ashx), or
// an old version of a file (DownloadStorageFile.ashx with a version). The body
// goes to a hidden ".name.cvtemp" beside the target, which is moved over the
// target only when it is whole: the target is never removed first, and a wrong
// size never replaces it.
//
// A broken download leaves its temporary file stamped with the server's time of
// the file; the next download of the same target resumes it when that time
// still matches and it is shorter than the file, and starts over otherwise.
//
// Synchronous for its caller, who runs it on a worker: the request runs on the
// engine's queue and the caller waits for its end. One download at a time per
// object; StopDownloading comes from any other thread.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class ASIHTTPRequest;
class Clock;

class AsyncSharedDownloader {
 public:
  // downloadCancelReason after a run.
  enum CancelReason : std::int64_t {
    kReasonRunning = 0,
    kReasonSuccess = -1,       // the temporary file was moved to its place
    kReasonSizeMismatch = 1,   // the whole body has another size than the listing said
    kReasonNoFile = 2,         // status good, but the temporary file does not exist
    kReasonException = 3,      // an exception during the finish, or this disk failed
    kReasonBadStatus = 4,      // a status outside 200 to 299
    kReasonRequestFailed = 5,  // the request failed on the way
    kReasonStopped = 6,        // StopDownloading
    kReasonNotAuthorized = 7,  // HTTP 401: the token was refused
  };
  static constexpr double kTimeOutSeconds = 60.0;

  // What the listing said of the file: its size is checked before the move, and
  // its time goes on the file and decides whether a broken download resumes.
  struct Expected {
    std::optional<std::int64_t> size;
    std::optional<std::int64_t> modified;  // seconds since 1970
  };

  explicit AsyncSharedDownloader(std::shared_ptr<const Clock> clock = nullptr);
  ~AsyncSharedDownloader();
  AsyncSharedDownloader(const AsyncSharedDownloader&) = delete;
  AsyncSharedDownloader& operator=(const AsyncSharedDownloader&) = delete;

  // A shared item (isItSharedIn: shared with the user, else by the user), or
  // with sharedPath a file inside a shared folder. token: the main token.
  [[nodiscard]] bool DownloadSharingWithPath(const std::string& localPath, const std::string& sharedId,
                                             bool isItSharedIn, const std::optional<std::string>& sharedPath,
                                             const std::string& token, const Expected& expected = {});
  [[nodiscard]] bool DownloadSharing(const std::string& localPath, const std::string& sharedId, bool isItSharedIn,
                                     const std::string& token, const Expected& expected = {});
  // An old version of a storage's file, to any local path. expectedSize: the
  // version's size as listed, -1 when not known.
  [[nodiscard]] bool DownloadFileVersionToPath(const std::string& localPath, const std::string& version,
                                               const std::string& serverPath, const std::string& token,
                                               std::int64_t expectedSize = -1);

  // A file that came in through an upload request: its server path with the
  // request's token (DownloadStorageFile.ashx).
  [[nodiscard]] bool DownloadUploadRequestFileWithPath(const std::string& localPath, const std::string& serverPath,
                                                       const std::string& WithToken, const Expected& expected = {});

  // Ends the running download; its temporary file stays for a later resume.
  void StopDownloading();

  // Bytes of the file here so far, on the request's thread.
  std::function<void(std::int64_t received)> onProgress;

  std::int64_t downloadCancelReason() const { return downloadCancelReason_; }
  bool downloadingRuns() const { return downloadingRuns_; }
  std::string currentFilePath() const;
  std::string currentSharedFilePath() const;

 private:
  struct Run;

  bool Download(const std::string& url, const std::string& localPath,
                const std::vector<std::pair<std::string, std::string>>& fields, const Expected& expected);
  void Wait(Run& run, ASIHTTPRequest& request);
  void EndLocked(Run& run, std::int64_t reason);
  void Received(Run& run, ASIHTTPRequest& request, std::string_view data);
  void FinishSharedFileDownloading(Run& run, ASIHTTPRequest& request);
  void ErrorSharedFileDownload(Run& run, ASIHTTPRequest& request);

  std::shared_ptr<const Clock> clock_;
  mutable std::mutex mutex_;
  std::shared_ptr<ASIHTTPRequest> request_;
  std::shared_ptr<Run> run_;
  std::string currentFilePath_;
  std::string currentSharedFilePath_;
  std::atomic<bool> downloadingRuns_{false};
  std::atomic<bool> stopRequested_{false};
  std::atomic<std::int64_t> downloadCancelReason_{kReasonRunning};
};
