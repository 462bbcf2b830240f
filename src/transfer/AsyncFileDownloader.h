#pragma once
// AsyncFileDownloader: brings one server file into the local tree through
// DownloadStorageFile.ashx. The body goes into a hidden ".name.cvtemp" file beside
// the target, which a later attempt (or a later run) resumes from its size; a
// gzip body is inflated once all of it is here; the finished file must have the
// expected size before it is moved over the target, and then gets the server's
// modification time and its record in DownloadedFiles.xml.
//
// Synchronous for its caller: DownloadFile returns when the download has ended,
// after at most 3 attempts. Inside, each attempt runs its request on the shared
// queue and the calling thread waits for the attempt's end, looking again every
// 200 ms. Every attempt has a context of its own (request, file handle, id): an
// event of an earlier attempt never reaches a later one, and the file handle is
// closed on every way out.
//
// One download at a time per object; the sync thread owns it. StopDownloading
// may come from any other thread and ends the running transfer at once.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "ASIError.h"
#include "SyncRecords.h"

class ASIFormDataRequest;
class DownloadLanding;
class ASIHTTPRequest;
class Clock;

class AsyncFileDownloader {
 public:
  // downloadCancelReason: how the last attempt ended.
  enum CancelReason : std::int64_t {
    kReasonRunning = 0,          // the attempt has started and not ended
    kReasonSuccess = -1,         // the file is in place with the right size
    kReasonSizeMismatch = 1,     // the finished file has another size than expected
    kReasonNoTokenOrFile = 2,    // no token could be had, or the temporary file was gone
    kReasonException = 3,        // an exception in the finish or a data event
    kReasonBadStatus = 4,        // a status outside 2xx (not 401), or no file to write to
    kReasonRequestFailed = 5,    // the request failed on the way
    kReasonStopped = 6,          // StopDownloading
    kReasonNotAuthorized = 7,    // HTTP 401
  };

  static constexpr int kMaxAttempts = 3;
  static constexpr double kTimeOutSeconds = 30.0;  // between data
  static constexpr std::chrono::milliseconds kPollInterval{200};

  // The clock of the wait for an attempt; the request engine's clock when null.
  explicit AsyncFileDownloader(std::shared_ptr<const Clock> clock = nullptr);
  // Stops a transfer that still runs.
  ~AsyncFileDownloader();
  AsyncFileDownloader(const AsyncFileDownloader&) = delete;
  AsyncFileDownloader& operator=(const AsyncFileDownloader&) = delete;

  // Whole downloads are handed to landing, which moves them into place later
  // with others; without one each lands at once. A download begun where
  // nothing stood lands only while nothing stands there (onlyWherePathFree).
  void SetLanding(DownloadLanding* landing, bool onlyWherePathFree = false) {
    landing_ = landing;
    onlyWherePathFree_ = onlyWherePathFree;
  }

  // The download of the sync: the storage's name from the path (or the upload
  // request), then DownloadFile with it. True when the file is in place.
  [[nodiscard]] bool DownloadFile(const CVFileWithAction& file);
  // Up to 3 attempts with the token of spName. False after the last failed
  // attempt, or at once after StopDownloading or a second refusal of the token.
  [[nodiscard]] bool DownloadFile(const CVFileWithAction& file, const std::string& spName);
  // The key of the file's token: the upload request's session for a file with a
  // server path of its own, else the storage folder's name in nFilePath.
  std::string GetSiteNameForFileWithAction(const CVFileWithAction& file);

  // One attempt with the form request; true when the file is in place.
  [[nodiscard]] bool StartFileDownloadingAsync(const CVFileWithAction& file, const std::string& spName);
  // The same attempt with "token=...&path=..." as a ready-made body of a plain
  // request; the server path always from nFilePath.
  [[nodiscard]] bool StartFileDownloadingAsync2(const CVFileWithAction& file, const std::string& spName);

  // Ends the running transfer: no event of it arrives once this returns, the
  // temporary file stays for a later resume, and DownloadFile makes no further
  // attempt. A stop that comes before the download begins stops it as well.
  // Any thread but the one in DownloadFile.
  void StopDownloading();

  // Gives the file the modification time (seconds since 1970); nothing for an
  // empty path or no date.
  static void ChangeDate(std::optional<std::int64_t> date, const std::string& CreateAndModifyForFile);

  // --- The rules of a request, for the attempt and its tests ---

  // ".name.cvtemp" in the target's folder; "" for a path without a file name.
  static std::string GetFileCVTempForFileLocalPath(const std::string& localPath);
  // The extension of the path's last part, without the dot; "" when there is
  // none (a dot file such as ".profile" has none).
  static std::string FileExtensionForPath(const std::string& localPath);
  // The raw Range value (no "bytes="): "" for a file without an extension
  // (unless openRangeWithoutExtension), "existing-length" for a compressible
  // one (a length, not a last index), "existing-" for any other.
  static std::string RangeValue(const std::string& extension, bool compressible, std::int64_t existing,
                                std::int64_t expectedSize, bool openRangeWithoutExtension = false);

  // --- State, readable from any thread ---

  std::int64_t downloadCancelReason() const { return downloadCancelReason_; }
  // The errno of the last failure of this machine's disk (ENOSPC for a full
  // one) in any attempt of this object; 0 when there was none.
  int lastLocalErrno() const { return lastLocalErrno_; }
  std::int64_t failDownloadsCount() const { return failDownloadsCount_; }
  bool downloadingRuns() const { return downloadingRuns_; }
  bool iconSet() const { return iconSet_; }
  std::string currentFilePath() const;
  // The file of the running DownloadFile; nothing between downloads.
  std::optional<CVFileWithAction> currentFileInfo() const;
  // The failure of the last attempt's request, if it failed on the way.
  std::optional<ASIError> lastRequestError() const;

 private:
  struct Attempt;

  bool RunAttempt(const CVFileWithAction& file, const std::string& spName, bool readyMadeBody);
  std::shared_ptr<ASIHTTPRequest> BuildRequest(const std::string& token, const std::string& serverPath,
                                               const std::string& range, bool compressible,
                                               bool readyMadeBody);
  bool DownloadEmptyFile(const CVFileWithAction& file);
  // The size of a temporary file that this attempt may resume; a file that
  // cannot belong to this version of the server file is removed first.
  std::int64_t ResumableSize(const CVFileWithAction& file, const std::string& temporaryPath);
  void WaitForEnd(Attempt& attempt, ASIHTTPRequest& request);

  // The request's events; they act only on their own attempt, and only until it ends.
  void StartFileDownloading(const std::shared_ptr<Attempt>& attempt);
  void ResponseHeadersReceived(const std::shared_ptr<Attempt>& attempt);
  void ProgressRequest(const std::shared_ptr<Attempt>& attempt, ASIHTTPRequest& request,
                       std::string_view data);
  void FinishFileDownloading(const std::shared_ptr<Attempt>& attempt, ASIHTTPRequest& request);
  void ErrorDownloadFile(const std::shared_ptr<Attempt>& attempt, ASIHTTPRequest& request);
  // Under the attempt's lock: sets the reason, closes the file and wakes the waiter.
  void EndAttemptLocked(Attempt& attempt, std::int64_t reason);
  bool IsCurrent(const Attempt& attempt) const;

  std::shared_ptr<const Clock> clock_;
  DownloadLanding* landing_ = nullptr;
  bool onlyWherePathFree_ = false;

  mutable std::mutex mutex_;  // guards the fields up to the atomics
  std::shared_ptr<ASIFormDataRequest> request_;
  std::shared_ptr<ASIHTTPRequest> request2_;
  std::shared_ptr<Attempt> currentAttempt_;
  std::string currentFilePath_;
  std::optional<CVFileWithAction> currentFileInfo_;
  std::optional<ASIError> lastRequestError_;
  std::uint64_t nextAttemptId_ = 1;

  std::atomic<std::uint64_t> currentAttemptId_{0};
  std::atomic<bool> downloadingRuns_{false};
  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> inDownloadFile_{false};
  std::atomic<bool> iconSet_{false};
  std::atomic<std::int64_t> downloadCancelReason_{kReasonRunning};
  std::atomic<int> lastLocalErrno_{0};
  std::atomic<std::int64_t> failDownloadsCount_{0};
};
