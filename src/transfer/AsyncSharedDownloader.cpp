#include "AsyncSharedDownloader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "ASIFormDataRequest.h"
#include "ASIHTTPRequest.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "Clock.h"
#include "MyParser.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kClass = "AsyncSharedDownloader";
constexpr std::chrono::milliseconds kPollInterval{200};

bool IsSuccess(std::int32_t status) { return status >= 200 && status <= 299; }

void StampTime(int fd, std::optional<std::int64_t> seconds) {
  if (!seconds) return;
  struct timespec times[2] {};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(*seconds);
  ::futimens(fd, times);
}

}  // namespace

// One download: what the request's events may touch, until it ends.
struct AsyncSharedDownloader::Run {
  std::string target, temporaryPath;
  Expected expected;
  std::int64_t startOffset = 0;
  std::mutex progressLock;  // guards everything below
  std::condition_variable endedCondition;
  int fd = -1;
  std::int64_t written = 0;
  bool ended = false;
  std::int64_t reason = kReasonRunning;

  ~Run() { Close(); }
  void Close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

AsyncSharedDownloader::AsyncSharedDownloader(std::shared_ptr<const Clock> clock) : clock_(std::move(clock)) {}

AsyncSharedDownloader::~AsyncSharedDownloader() { StopDownloading(); }

std::string AsyncSharedDownloader::currentFilePath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentFilePath_;
}

std::string AsyncSharedDownloader::currentSharedFilePath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentSharedFilePath_;
}

bool AsyncSharedDownloader::DownloadSharingWithPath(const std::string& localPath, const std::string& sharedId,
                                                    bool isItSharedIn, const std::optional<std::string>& sharedPath,
                                                    const std::string& token, const Expected& expected) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  std::vector<std::pair<std::string, std::string>> fields{{"token", token}, {"shareId", sharedId}};
  if (sharedPath) fields.emplace_back("path", *sharedPath);
  return Download(isItSharedIn ? handler.getFileUrl() : handler.getMyFileUrl(), localPath, fields, expected);
}

bool AsyncSharedDownloader::DownloadSharing(const std::string& localPath, const std::string& sharedId,
                                            bool isItSharedIn, const std::string& token, const Expected& expected) {
  return DownloadSharingWithPath(localPath, sharedId, isItSharedIn, std::nullopt, token, expected);
}

bool AsyncSharedDownloader::DownloadFileVersionToPath(const std::string& localPath, const std::string& version,
                                                      const std::string& serverPath, const std::string& token,
                                                      std::int64_t expectedSize) {
  CVHandler::Instance().RegenWsURL();
  Expected expected;
  if (expectedSize >= 0) expected.size = expectedSize;
  return Download(CVHandler::Instance().downloadFileUrl(), localPath,
                  {{"token", token}, {"path", serverPath}, {"version", version}}, expected);
}

bool AsyncSharedDownloader::DownloadUploadRequestFileWithPath(const std::string& localPath,
                                                              const std::string& serverPath,
                                                              const std::string& WithToken, const Expected& expected) {
  CVHandler::Instance().RegenWsURL();
  return Download(CVHandler::Instance().downloadFileUrl(), localPath, {{"token", WithToken}, {"path", serverPath}},
                  expected);
}

bool AsyncSharedDownloader::Download(const std::string& url, const std::string& localPath,
                                     const std::vector<std::pair<std::string, std::string>>& fields,
                                     const Expected& expected) {
  CVEventLogger::LogMethodRun(kClass, "Download");
  // A stop counts from here on; one before this download was for an earlier one.
  stopRequested_ = false;
  downloadCancelReason_ = kReasonRunning;
  auto run = std::make_shared<Run>();
  run->target = localPath;
  run->expected = expected;
  run->temporaryPath = MyParser::GetFileCVTempForFileLocalPath(localPath);
  std::shared_ptr<ASIFormDataRequest> request;
  try {
    if (run->temporaryPath.empty() || run->temporaryPath == localPath) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " -> not a file name: " + localPath);
      downloadCancelReason_ = kReasonNoFile;
      return false;
    }
    // A broken download of this very file resumes; anything else there goes.
    struct stat info {};
    if (::lstat(run->temporaryPath.c_str(), &info) == 0) {
      const bool resumable = S_ISREG(info.st_mode) && expected.size && expected.modified &&
                             info.st_mtim.tv_sec == *expected.modified &&
                             static_cast<std::int64_t>(info.st_size) < *expected.size;
      if (resumable) {
        run->startOffset = static_cast<std::int64_t>(info.st_size);
      } else {
        std::error_code error;
        fs::remove(run->temporaryPath, error);
      }
    }
    run->fd = ::open(run->temporaryPath.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (run->fd < 0 || ::ftruncate(run->fd, run->startOffset) != 0 ||
        ::lseek(run->fd, run->startOffset, SEEK_SET) < 0) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " -> cannot write " + run->temporaryPath + ": " +
                                         std::strerror(errno));
      downloadCancelReason_ = kReasonException;
      return false;
    }

    request = ASIFormDataRequest::requestWithURL(url);
    for (const auto& [key, value] : fields) request->setPostValue(value, key);
    request->setRequestMethod("POST");
    request->setTimeOutSeconds(kTimeOutSeconds);
    request->setAllowCompressedResponse(false);
    request->setUseSessionPersistence(false);
    // Raw, as the server reads it: no "bytes=".
    request->addRequestHeader("Range", std::to_string(run->startOffset) + "-");
    Run* events = run.get();
    request->setDidReceiveResponseHeadersSelector([events](ASIHTTPRequest&, const ASIHeaderFields&) {
      // The engine may run the exchange again on a new connection: the body starts over.
      std::lock_guard<std::mutex> lock(events->progressLock);
      if (events->ended || events->written == 0) return;
      if (::ftruncate(events->fd, events->startOffset) == 0 && ::lseek(events->fd, events->startOffset, SEEK_SET) >= 0) {
        events->written = 0;
      }
    });
    request->setDidReceiveDataSelector(
        [this, events](ASIHTTPRequest& r, std::string_view data) { Received(*events, r, data); });
    request->setDidFinishSelector([this, events](ASIHTTPRequest& r) { FinishSharedFileDownloading(*events, r); });
    request->setDidFailSelector([this, events](ASIHTTPRequest& r) { ErrorSharedFileDownload(*events, r); });
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopRequested_.exchange(false)) {
        downloadCancelReason_ = kReasonStopped;
        StampTime(run->fd, expected.modified);
        return false;
      }
      request_ = request;
      run_ = run;
      currentFilePath_ = localPath;
      currentSharedFilePath_ = run->temporaryPath;
      downloadingRuns_ = true;
    }
    request->startAsynchronous();
    Wait(*run, *request);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "Download", exception.what());
  }
  // Waits for an event still being delivered; none comes after this.
  if (request) request->clearDelegatesAndCancel();
  std::int64_t reason = kReasonException;
  {
    std::lock_guard<std::mutex> lock(run->progressLock);
    if (!run->ended) EndLocked(*run, kReasonException);
    reason = run->reason;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    request_.reset();
    run_.reset();
  }
  stopRequested_ = false;
  downloadingRuns_ = false;
  downloadCancelReason_ = reason;
  CVEventLogger::LogMethodEnd(kClass, "Download");
  return reason == kReasonSuccess;
}

void AsyncSharedDownloader::Wait(Run& run, ASIHTTPRequest& request) {
  std::shared_ptr<const Clock> clock = clock_ ? clock_ : ASIHTTPRequest::GetClock();
  const auto interval = std::max<std::chrono::nanoseconds>(clock->Scaled(kPollInterval), std::chrono::milliseconds(1));
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(run.progressLock);
      if (run.endedCondition.wait_for(lock, interval, [&run] { return run.ended; })) return;
    }
    // Asked without the run's lock: the request delivers its events under its
    // own lock and they take the run's, so the other order would deadlock.
    if (request.isFinished()) {
      // Its last event comes before it counts as finished: none came.
      std::lock_guard<std::mutex> lock(run.progressLock);
      EndLocked(run, stopRequested_ ? kReasonStopped : kReasonRequestFailed);
      return;
    }
  }
}

// Under progressLock. A run that does not end in place keeps its temporary file
// stamped with the server's time, so that the next run may resume it.
void AsyncSharedDownloader::EndLocked(Run& run, std::int64_t reason) {
  if (run.ended) return;
  if (run.fd >= 0 && reason != kReasonSuccess) StampTime(run.fd, run.expected.modified);
  run.Close();
  run.reason = reason;
  run.ended = true;
  downloadingRuns_ = false;
  run.endedCondition.notify_all();
}

void AsyncSharedDownloader::Received(Run& run, ASIHTTPRequest& request, std::string_view data) {
  std::int64_t total = 0;
  {
    std::lock_guard<std::mutex> lock(run.progressLock);
    if (run.ended || !IsSuccess(request.responseStatusCode())) return;
    while (!data.empty()) {
      const ssize_t written = ::write(run.fd, data.data(), data.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        CVEventLogger::WriteMainLogMessage(std::string(kClass) + " -> cannot write " + run.temporaryPath + ": " +
                                           std::strerror(errno));
        EndLocked(run, kReasonException);
        return;
      }
      data.remove_prefix(static_cast<std::size_t>(written));
      run.written += written;
    }
    total = run.startOffset + run.written;
  }
  if (onProgress) onProgress(total);
}

void AsyncSharedDownloader::FinishSharedFileDownloading(Run& run, ASIHTTPRequest& request) {
  std::lock_guard<std::mutex> lock(run.progressLock);
  if (run.ended) return;
  const std::int32_t status = request.responseStatusCode();
  CVEventLogger::WriteMainLogMessage("Get(My)File: Response Code - " + std::to_string(status) +
                                     " (FinishSharedFileDownloading), " + run.target);
  std::error_code error;
  if (!IsSuccess(status)) {
    run.Close();
    fs::remove(run.temporaryPath, error);
    EndLocked(run, status == 401 ? kReasonNotAuthorized : kReasonBadStatus);
    return;
  }
  try {
    struct stat info {};
    if (run.fd < 0 || ::fstat(run.fd, &info) != 0 || ::lstat(run.temporaryPath.c_str(), &info) != 0) {
      EndLocked(run, kReasonNoFile);
      return;
    }
    if (run.expected.size && static_cast<std::int64_t>(info.st_size) != *run.expected.size) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " -> size " + std::to_string(info.st_size) +
                                         " instead of " + std::to_string(*run.expected.size) + ", not moved: " +
                                         run.target);
      run.Close();
      fs::remove(run.temporaryPath, error);
      EndLocked(run, kReasonSizeMismatch);
      return;
    }
    StampTime(run.fd, run.expected.modified);
    if (::fsync(run.fd) != 0) throw std::system_error(errno, std::generic_category(), "fsync " + run.temporaryPath);
    run.Close();
    fs::rename(run.temporaryPath, run.target);
    EndLocked(run, kReasonSuccess);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "FinishSharedFileDownloading", exception.what());
    EndLocked(run, kReasonException);
  }
}

void AsyncSharedDownloader::ErrorSharedFileDownload(Run& run, ASIHTTPRequest& request) {
  std::lock_guard<std::mutex> lock(run.progressLock);
  if (run.ended) return;
  CVEventLogger::WriteMainLogMessage("Get(My)File: Response Code - " + std::to_string(request.responseStatusCode()) +
                                     " (ErrorSharedFileDownload), " + run.target);
  EndLocked(run, kReasonRequestFailed);
}

void AsyncSharedDownloader::StopDownloading() {
  std::shared_ptr<ASIHTTPRequest> request;
  std::shared_ptr<Run> run;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopRequested_ = true;
    request = request_;
    run = run_;
  }
  if (!request) return;
  request->clearDelegatesAndCancel();
  std::lock_guard<std::mutex> lock(run->progressLock);
  EndLocked(*run, kReasonStopped);
}
