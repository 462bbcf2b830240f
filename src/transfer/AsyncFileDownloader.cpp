#include "AsyncFileDownloader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "ASIDataDecompressor.h"
#include "ASIFormDataRequest.h"
#include "ASIHTTPRequest.h"
#include "AsyncFileCommonPart.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "Clock.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "MyParser.h"
#include "DownloadLanding.h"
#include "DownloadedFilesStore.h"
#include "SyncListener.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kClass = "AsyncFileDownloader";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}

bool IsSuccess(std::int32_t status) { return status >= 200 && status <= 299; }

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// What stands at a path, without following a link.
struct PathState {
  bool exists = false;
  bool regular = false;
  bool link = false;
  std::int64_t size = 0;
  mode_t mode = 0;
};

PathState Inspect(const std::string& path) {
  PathState state;
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return state;
  state.exists = true;
  state.regular = S_ISREG(info.st_mode);
  state.link = S_ISLNK(info.st_mode);
  state.size = static_cast<std::int64_t>(info.st_size);
  state.mode = info.st_mode;
  return state;
}

// A failure of this machine's file system, with its errno (a full disk, say).
std::system_error SystemFailure(const std::string& what, const std::string& path) {
  return std::system_error(errno, std::generic_category(), what + " '" + path + "'");
}

void WriteAll(int fd, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) throw SystemFailure("Failed to write file at path", path);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::optional<std::int64_t> ContentLength(const ASIHeaderFields& headers) {
  std::string text = headers.valueForKey("Content-Length");
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 18) {
    return std::nullopt;
  }
  return std::stoll(text);
}

std::string ErrorText(const std::optional<ASIError>& error) {
  return error ? error->description() : "(null)";
}

// The main log's picture of a data request that came back with a bad status.
void WriteMainLogForDataRequest(ASIHTTPRequest& request, const std::string& withMethodName,
                                const std::string& withFilePath) {
  CVEventLogger::WriteMainLogMessage(withMethodName + ": Response Code - " +
                                     std::to_string(request.responseStatusCode()) + ", " + withFilePath +
                                     " \nmessage: " + request.responseString() +
                                     "\nerror message:" + ErrorText(request.error()) +
                                     "\nstatusMessage:" + request.responseStatusMessage());
}

// A replaced file keeps the permissions its owner gave it; a new one gets the
// usual ones of a new file.
void KeepModeOfTarget(int fd, const std::string& target) {
  PathState existing = Inspect(target);
  if (existing.regular) ::fchmod(fd, existing.mode & 0777);
}

// The modification time goes on before the move, so that the file never shows
// the time of the download under its own name.
void SetModificationTime(int fd, std::int64_t seconds) {
  struct timespec times[2] {};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(seconds);
  times[1].tv_nsec = 0;
  ::futimens(fd, times);
}

}  // namespace

// One attempt: what its events may touch. The request's events reach it through
// a weak pointer and act only while it is the downloader's current attempt and
// has not ended.
struct AsyncFileDownloader::Attempt {
  std::uint64_t id = 0;
  CVFileWithAction file;
  std::string temporaryPath;
  std::int64_t startOffset = 0;  // where this attempt's body begins in the temporary file

  std::mutex progressLock;  // guards everything below
  std::condition_variable endedCondition;
  int fileHandle = -1;
  std::string downloadedData;  // a compressed body until all of it is here
  std::int64_t bytesWritten = 0;
  bool ended = false;
  std::int64_t reason = kReasonRunning;
  std::string localFailure;  // what failed on this machine's disk, if anything
  int localErrno = 0;

  ~Attempt() { CloseFile(); }
  void NoteFailure(const std::exception& exception) {
    localFailure = exception.what();
    if (const auto* system = dynamic_cast<const std::system_error*>(&exception)) {
      localErrno = system->code().value();
    }
  }
  void CloseFile() {
    if (fileHandle >= 0) ::close(fileHandle);
    fileHandle = -1;
  }
};

AsyncFileDownloader::AsyncFileDownloader(std::shared_ptr<const Clock> clock) : clock_(std::move(clock)) {}

AsyncFileDownloader::~AsyncFileDownloader() {
  std::shared_ptr<ASIFormDataRequest> form;
  std::shared_ptr<ASIHTTPRequest> plain;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    form = request_;
    plain = request2_;
  }
  if (form || plain) StopDownloading();
}

// --- Rules ---

std::string AsyncFileDownloader::GetFileCVTempForFileLocalPath(const std::string& localPath) {
  return MyParser::GetFileCVTempForFileLocalPath(localPath);
}

std::string AsyncFileDownloader::FileExtensionForPath(const std::string& localPath) {
  std::size_t slash = localPath.rfind('/');
  std::string name = slash == std::string::npos ? localPath : localPath.substr(slash + 1);
  std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return name.substr(dot + 1);
}

std::string AsyncFileDownloader::RangeValue(const std::string& extension, bool compressible,
                                            std::int64_t existing, std::int64_t expectedSize,
                                            bool openRangeWithoutExtension) {
  if (extension.empty() && !openRangeWithoutExtension) return "";
  if (!extension.empty() && compressible) {
    const std::int64_t rest = std::max<std::int64_t>(0, expectedSize - existing);
    return std::to_string(existing) + "-" + std::to_string(rest);
  }
  return std::to_string(existing) + "-";
}

void AsyncFileDownloader::ChangeDate(std::optional<std::int64_t> date,
                                     const std::string& CreateAndModifyForFile) {
  if (!date || CreateAndModifyForFile.empty()) return;
  struct timespec times[2] {};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(*date);
  times[1].tv_nsec = 0;
  if (::utimensat(AT_FDCWD, CreateAndModifyForFile.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    Log("ChangeDate", "the modification time stays as it was for " + CreateAndModifyForFile + ": " +
                          std::strerror(errno));
  }
}

// --- State ---

std::string AsyncFileDownloader::currentFilePath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentFilePath_;
}

std::optional<CVFileWithAction> AsyncFileDownloader::currentFileInfo() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentFileInfo_;
}

std::optional<ASIError> AsyncFileDownloader::lastRequestError() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastRequestError_;
}

bool AsyncFileDownloader::IsCurrent(const Attempt& attempt) const {
  return currentAttemptId_.load() == attempt.id;
}

// --- The download ---

std::string AsyncFileDownloader::GetSiteNameForFileWithAction(const CVFileWithAction& file) {
  // A file of an upload request lies outside the storages; its token is kept
  // under the request's session.
  if (!file.urServerPath.empty()) return file.sessionGuid;
  return CVStaticHelpers::GetSiteNameForLocalPath(file.nFilePath);
}

bool AsyncFileDownloader::DownloadFile(const CVFileWithAction& file) {
  iconSet_ = false;
  return DownloadFile(file, GetSiteNameForFileWithAction(file));
}

bool AsyncFileDownloader::DownloadFile(const CVFileWithAction& file, const std::string& spName) {
  CVEventLogger::LogMethodRun(kClass, "DownloadFile");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    currentFileInfo_ = file;
  }
  downloadingRuns_ = false;
  iconSet_ = true;
  failDownloadsCount_ = 0;
  inDownloadFile_ = true;

  bool result = false;
  const std::string temporaryPath = GetFileCVTempForFileLocalPath(file.nFilePath);
  if (temporaryPath.empty() || temporaryPath == file.nFilePath) {
    // A name of the temporary form would download into itself, and a failed
    // size check would then delete it.
    Log("DownloadFile", "not downloaded, the name is that of a temporary download: " + file.nFilePath);
    failDownloadsCount_ = kMaxAttempts;
  }
  int refusedTokens = 0;
  while (failDownloadsCount_ <= kMaxAttempts - 1) {
    try {
      if (stopRequested_) {
        downloadCancelReason_ = kReasonStopped;
        break;
      }
      std::error_code error;
      const fs::path folder = fs::path(file.nFilePath).parent_path();
      if (!folder.empty() && !fs::is_directory(folder, error)) {
        fs::create_directories(folder, error);
        if (error || !fs::is_directory(folder)) {
          CVEventLogger::WriteMainLogMessage("WARNING!!! DownloadFile folder check, don't created folder.");
        }
      }

      if (StartFileDownloadingAsync(file, spName)) {
        // A file waiting to land has its time already, under its temporary name.
        // A file fetched where nothing stood may find the user's file there now.
        if (!landing_ || (!onlyWherePathFree_ && fs::exists(file.nFilePath, error))) {
          ChangeDate(file.dateModified, file.nFilePath);
        }
        failDownloadsCount_ = 0;
        result = true;
        break;
      }

      const std::int64_t reason = downloadCancelReason_;
      switch (reason) {
        case kReasonSizeMismatch:
        case kReasonNoTokenOrFile:
        case kReasonRequestFailed: {
          // The next attempt starts from byte 0.
          if (Inspect(temporaryPath).exists) fs::remove(temporaryPath, error);
          AsyncFileCommonPart::RemoveFromDownloadedFiles(file);
          break;
        }
        case kReasonNotAuthorized:
          CVHandler::Instance().RemoveCVToken(spName);
          ++refusedTokens;
          break;
        default:
          break;
      }
      if (reason == kReasonStopped || stopRequested_) break;
      if (refusedTokens >= 2) {
        // A new token was refused as well: one repeat, never more.
        ++failDownloadsCount_;
        break;
      }
    } catch (const std::exception& exception) {
      CVEventLogger::LogException(kClass, "DownloadFile", exception.what());
    }
    ++failDownloadsCount_;
  }

  {
    std::lock_guard<std::mutex> lock(mutex_);
    currentFileInfo_.reset();
  }
  // A stop counts for the download it came in or before; this one has seen it.
  stopRequested_ = false;
  inDownloadFile_ = false;
  CVEventLogger::LogMethodEnd(kClass, "DownloadFile");
  return result;
}

bool AsyncFileDownloader::StartFileDownloadingAsync(const CVFileWithAction& file, const std::string& spName) {
  bool done = RunAttempt(file, spName, false);
  if (!inDownloadFile_) stopRequested_ = false;  // an attempt of its own has seen its stop
  return done;
}

bool AsyncFileDownloader::StartFileDownloadingAsync2(const CVFileWithAction& file,
                                                     const std::string& spName) {
  bool done = RunAttempt(file, spName, true);
  if (!inDownloadFile_) stopRequested_ = false;
  return done;
}

bool AsyncFileDownloader::DownloadEmptyFile(const CVFileWithAction& file) {
  // Made under the temporary name and moved into place, like any download.
  const std::string temporaryPath = GetFileCVTempForFileLocalPath(file.nFilePath);
  if (Inspect(temporaryPath).link) ::unlink(temporaryPath.c_str());
  int fd = ::open(temporaryPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) throw SystemFailure("Failed to create file at path", temporaryPath);
  KeepModeOfTarget(fd, file.nFilePath);
  SetModificationTime(fd, file.dateModified);
  ::fsync(fd);
  ::close(fd);
  std::error_code error;
  fs::rename(temporaryPath, file.nFilePath, error);
  if (error) {
    std::error_code ignored;
    fs::remove(temporaryPath, ignored);
    throw std::runtime_error("Failed to move file from '" + temporaryPath + "' to '" + file.nFilePath +
                             "': " + error.message());
  }
  AsyncFileCommonPart::WriteToDownloadedFiles(file, false);
  downloadCancelReason_ = kReasonSuccess;
  return true;
}

std::int64_t AsyncFileDownloader::ResumableSize(const CVFileWithAction& file,
                                                const std::string& temporaryPath) {
  PathState temporary = Inspect(temporaryPath);
  if (!temporary.exists) return 0;
  if (temporary.link) {
    // Never one of ours; the link goes, whatever it points at stays.
    ::unlink(temporaryPath.c_str());
    return 0;
  }
  if (!temporary.regular) return 0;  // the attempt fails on it and leaves it be

  // Bytes of another version of the file would be spliced with this one's
  // without the size check noticing: resume only what the record of the broken
  // download says belongs to this size and time.
  bool sameVersion = file.fileAction == FWA_DownloadForUploadRequest;
  if (!sameVersion) {
    DownloadedFilesStore& store = DownloadedFilesStore::Instance();
    auto record = store.Find(file.nFilePath);
    if (!record) record = store.Find(temporaryPath);
    sameVersion = record && record->brokeDownload && record->size == file.fileSize &&
                  record->modifiedTime == file.dateModified;
  }
  if (sameVersion && temporary.size <= file.fileSize) return temporary.size;

  Log("ResumableSize",
      "the temporary file is not of this version of the file, the download starts over: " + temporaryPath);
  std::error_code error;
  fs::remove(temporaryPath, error);
  return 0;
}

std::shared_ptr<ASIHTTPRequest> AsyncFileDownloader::BuildRequest(const std::string& token,
                                                                  const std::string& serverPath,
                                                                  const std::string& range, bool compressible,
                                                                  bool readyMadeBody) {
  const std::string url = CVHandler::Instance().downloadFileUrl();
  std::shared_ptr<ASIHTTPRequest> request;
  if (readyMadeBody) {
    request = ASIHTTPRequest::requestWithURL(url);
    request->addRequestHeader("Content-type", "application/x-www-form-urlencoded");
    request->appendPostData("token=" + token + "&path=" + CVTextEscaping::URLEncodedString(serverPath));
  } else {
    auto form = ASIFormDataRequest::requestWithURL(url);
    form->setPostValue(token, "token");
    form->setPostValue(serverPath, "path");
    request = form;
  }
  request->setRequestMethod("POST");
  request->setTimeOutSeconds(kTimeOutSeconds);
  request->setUseSessionPersistence(false);
  request->setAllowCompressedResponse(compressible);
  if (compressible) request->addRequestHeader("Accept-Encoding", "gzip");
  // Raw, as the server reads it: no "bytes=", and sent even when empty.
  request->addRequestHeader("Range", range);
  // The body comes to the data event and goes to the temporary file from there;
  // the request itself is given no file to write.
  return request;
}

bool AsyncFileDownloader::RunAttempt(const CVFileWithAction& file, const std::string& spName,
                                     bool readyMadeBody) {
  const char* method = readyMadeBody ? "StartFileDownloadingAsync2" : "StartFileDownloadingAsync";
  downloadCancelReason_ = kReasonRunning;
  std::shared_ptr<Attempt> attempt;
  std::shared_ptr<ASIHTTPRequest> request;
  try {
    if (!file.isFolder && file.fileSize == 0) return DownloadEmptyFile(file);

    std::string token = spName.empty() ? "" : CVHandler::Instance().CheckCVToken(spName);
    if (token.empty() || StartsWith(token, "err")) {
      Log(method, "no token for " + (spName.empty() ? std::string("(no storage)") : spName) + ": " + token);
      downloadCancelReason_ = kReasonNoTokenOrFile;
      return false;
    }
    const std::string serverPath = !readyMadeBody && !file.urServerPath.empty()
                                       ? file.urServerPath
                                       : CVStaticHelpers::serverPathFromLocalPath(file.nFilePath);
    if (serverPath.empty()) {
      Log(method, "no storage holds " + file.nFilePath);
      return false;
    }
    CVHandler::Instance().RegenWsURL();

    const std::string temporaryPath = GetFileCVTempForFileLocalPath(file.nFilePath);
    const std::int64_t existing = ResumableSize(file, temporaryPath);
    const std::string extension = FileExtensionForPath(file.nFilePath);
    const bool compressible = !extension.empty() && CVHandler::Instance().isFileNeedToBeCompressed(extension);
    const std::string range = RangeValue(extension, compressible, existing, file.fileSize, readyMadeBody);
    request = BuildRequest(token, serverPath, range, compressible, readyMadeBody);

    attempt = std::make_shared<Attempt>();
    attempt->file = file;
    attempt->temporaryPath = temporaryPath;
    // A request for the whole file writes from the first byte.
    attempt->startOffset = range.empty() ? 0 : existing;

    std::weak_ptr<Attempt> weak = attempt;
    request->setDidStartSelector([this, weak](ASIHTTPRequest&) {
      if (auto current = weak.lock()) StartFileDownloading(current);
    });
    request->setDidReceiveResponseHeadersSelector([this, weak](ASIHTTPRequest&, const ASIHeaderFields&) {
      if (auto current = weak.lock()) ResponseHeadersReceived(current);
    });
    request->setDidReceiveDataSelector([this, weak](ASIHTTPRequest& events, std::string_view data) {
      if (auto current = weak.lock()) ProgressRequest(current, events, data);
    });
    request->setDidFinishSelector([this, weak](ASIHTTPRequest& events) {
      if (auto current = weak.lock()) FinishFileDownloading(current, events);
    });
    request->setDidFailSelector([this, weak](ASIHTTPRequest& events) {
      if (auto current = weak.lock()) ErrorDownloadFile(current, events);
    });

    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopRequested_) {
        downloadCancelReason_ = kReasonStopped;
        request->clearDelegatesAndCancel();
        return false;
      }
      attempt->id = nextAttemptId_++;
      currentAttempt_ = attempt;
      currentAttemptId_ = attempt->id;
      if (readyMadeBody) {
        request2_ = request;
      } else {
        request_ = std::static_pointer_cast<ASIFormDataRequest>(request);
      }
      currentFilePath_ = temporaryPath;
      lastRequestError_.reset();
      downloadingRuns_ = true;
    }
    request->startAsynchronous();
    WaitForEnd(*attempt, *request);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, method, exception.what());
    if (!attempt) return false;
  }

  // The attempt is over; its request goes with it, so that nothing of it reaches
  // the next attempt. This waits for an event still being delivered.
  if (request) request->clearDelegatesAndCancel();
  std::int64_t reason = kReasonException;
  std::string localFailure;
  {
    std::lock_guard<std::mutex> lock(attempt->progressLock);
    if (!attempt->ended) EndAttemptLocked(*attempt, kReasonException);
    attempt->CloseFile();
    reason = attempt->reason;
    localFailure = attempt->localFailure;
    if (attempt->localErrno != 0) lastLocalErrno_ = attempt->localErrno;
  }
  const std::optional<ASIError> error = request ? request->error() : std::nullopt;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (currentAttempt_ == attempt) {
      currentAttempt_.reset();
      currentAttemptId_ = 0;
      request_.reset();
      request2_.reset();
    }
    lastRequestError_ = error;
  }
  downloadingRuns_ = false;
  downloadCancelReason_ = reason;

  if (reason != kReasonSuccess) {
    Log(method, "Download error: " + std::to_string(error ? error->code() : 0) +
                    " description:" + ErrorText(error));
    if (!localFailure.empty()) Log(method, "the file could not be written here: " + localFailure);
  }
  Log(method, std::string("Result download files: ") + (reason == kReasonSuccess ? "1" : "0"));
  return reason == kReasonSuccess;
}

void AsyncFileDownloader::WaitForEnd(Attempt& attempt, ASIHTTPRequest& request) {
  std::shared_ptr<const Clock> clock = clock_ ? clock_ : ASIHTTPRequest::GetClock();
  const auto interval =
      std::max<std::chrono::nanoseconds>(clock->Scaled(kPollInterval), std::chrono::milliseconds(1));
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(attempt.progressLock);
      if (attempt.ended) return;
      attempt.endedCondition.wait_for(lock, interval);
      if (attempt.ended) return;
    }
    // The request's last event is delivered before it counts as finished: an
    // attempt still open now was told nothing of the end.
    if (request.isFinished()) {
      std::lock_guard<std::mutex> lock(attempt.progressLock);
      if (!attempt.ended) {
        Log("WaitForEnd", "the request ended without an event for " + attempt.file.nFilePath);
        EndAttemptLocked(attempt, stopRequested_ ? kReasonStopped : kReasonRequestFailed);
      }
      return;
    }
  }
}

void AsyncFileDownloader::EndAttemptLocked(Attempt& attempt, std::int64_t reason) {
  if (attempt.ended) return;
  attempt.reason = reason;
  attempt.ended = true;
  attempt.CloseFile();
  attempt.downloadedData.clear();
  attempt.downloadedData.shrink_to_fit();
  if (IsCurrent(attempt)) {
    downloadCancelReason_ = reason;
    downloadingRuns_ = false;
  }
  attempt.endedCondition.notify_all();
}

void AsyncFileDownloader::StopDownloading() {
  std::shared_ptr<Attempt> attempt;
  std::shared_ptr<ASIFormDataRequest> form;
  std::shared_ptr<ASIHTTPRequest> plain;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopRequested_ = true;
    attempt = currentAttempt_;
    form = request_;
    plain = request2_;
  }
  // No lock of ours is held here: the cancel waits for an event in flight.
  if (form) form->clearDelegatesAndCancel();
  if (plain) plain->clearDelegatesAndCancel();
  if (attempt) {
    std::lock_guard<std::mutex> lock(attempt->progressLock);
    if (!attempt->ended) {
      Log("StopDownloading", "stopped, the temporary file stays: " + attempt->temporaryPath);
      EndAttemptLocked(*attempt, kReasonStopped);
    }
  }
  downloadingRuns_ = false;
}

// --- Events of the request ---

void AsyncFileDownloader::StartFileDownloading(const std::shared_ptr<Attempt>& attempt) {
  if (!IsCurrent(*attempt)) return;
  std::lock_guard<std::mutex> lock(attempt->progressLock);
  if (attempt->ended) return;
  try {
    downloadingRuns_ = true;
    attempt->downloadedData.clear();
    const std::string& path = attempt->temporaryPath;
    if (!Inspect(path).exists) {
      int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
      if (fd < 0) {
        Log("StartFileDownloading", std::string("Failed to create file at path '") + path + "': " +
                                        std::strerror(errno));
        EndAttemptLocked(*attempt, kReasonBadStatus);
        return;
      }
      attempt->fileHandle = fd;
      // From here until the finish the record says the download is broken.
      AsyncFileCommonPart::WriteToDownloadedFiles(attempt->file, true);
      IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(path);
    }
    if (attempt->fileHandle < 0) {
      attempt->fileHandle = ::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
      if (attempt->fileHandle < 0) {
        Log("StartFileDownloading", std::string("Failed to open file at path '") + path + "': " +
                                        std::strerror(errno));
        EndAttemptLocked(*attempt, kReasonBadStatus);
        return;
      }
    }
    struct stat info {};
    if (::fstat(attempt->fileHandle, &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::int64_t>(info.st_size) < attempt->startOffset) {
      Log("StartFileDownloading", "the temporary file changed under the download: " + path);
      EndAttemptLocked(*attempt, kReasonBadStatus);
      return;
    }
    if (static_cast<std::int64_t>(info.st_size) > attempt->startOffset &&
        ::ftruncate(attempt->fileHandle, static_cast<off_t>(attempt->startOffset)) != 0) {
      throw SystemFailure("Failed to truncate file at path", path);
    }
    if (::lseek(attempt->fileHandle, static_cast<off_t>(attempt->startOffset), SEEK_SET) < 0) {
      throw SystemFailure("Failed to seek in file at path", path);
    }
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "StartFileDownloading", exception.what());
    attempt->NoteFailure(exception);
    EndAttemptLocked(*attempt, kReasonException);
  }
}

void AsyncFileDownloader::ResponseHeadersReceived(const std::shared_ptr<Attempt>& attempt) {
  if (!IsCurrent(*attempt)) return;
  std::lock_guard<std::mutex> lock(attempt->progressLock);
  if (attempt->ended) return;
  attempt->downloadedData.clear();
  if (attempt->bytesWritten == 0 || attempt->fileHandle < 0) return;
  // The engine runs the exchange again (a retry on a new connection): the body
  // comes again from its start, so what this attempt wrote goes.
  try {
    if (::ftruncate(attempt->fileHandle, static_cast<off_t>(attempt->startOffset)) != 0 ||
        ::lseek(attempt->fileHandle, static_cast<off_t>(attempt->startOffset), SEEK_SET) < 0) {
      throw SystemFailure("Failed to truncate file at path", attempt->temporaryPath);
    }
    attempt->bytesWritten = 0;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "ResponseHeadersReceived", exception.what());
    attempt->NoteFailure(exception);
    EndAttemptLocked(*attempt, kReasonException);
  }
}

namespace {

// Inflates the whole compressed body into the file; the length of the
// compressed bytes, for the progress.
std::int64_t WriteInflated(int fd, std::string& compressed, std::int64_t& bytesWritten,
                           const std::string& path) {
  std::string problem;
  std::string inflated = ASIDataDecompressor::uncompressData(compressed, &problem);
  if (!problem.empty()) throw std::runtime_error("Decompression of the response failed: " + problem);
  WriteAll(fd, inflated, path);
  bytesWritten += static_cast<std::int64_t>(inflated.size());
  const auto length = static_cast<std::int64_t>(compressed.size());
  compressed.clear();
  compressed.shrink_to_fit();
  return length;
}

}  // namespace

void AsyncFileDownloader::ProgressRequest(const std::shared_ptr<Attempt>& attempt, ASIHTTPRequest& request,
                                          std::string_view data) {
  if (!IsCurrent(*attempt)) return;
  std::int64_t amount = 0;
  {
    std::lock_guard<std::mutex> lock(attempt->progressLock);
    if (attempt->ended) return;
    // The body of a refusal is no part of the file; the finish decides what the
    // status means.
    if (!IsSuccess(request.responseStatusCode())) return;
    if (attempt->fileHandle < 0) {
      EndAttemptLocked(*attempt, kReasonBadStatus);
      return;
    }
    try {
      if (request.isResponseCompressed()) {
        // Inflated in one piece once all of it is here; without a length that is
        // the finish.
        attempt->downloadedData.append(data);
        std::optional<std::int64_t> length = ContentLength(request.responseHeaders());
        if (!length || static_cast<std::int64_t>(attempt->downloadedData.size()) < *length) return;
        amount = WriteInflated(attempt->fileHandle, attempt->downloadedData, attempt->bytesWritten,
                               attempt->temporaryPath);
      } else {
        WriteAll(attempt->fileHandle, data, attempt->temporaryPath);
        attempt->bytesWritten += static_cast<std::int64_t>(data.size());
        amount = static_cast<std::int64_t>(data.size());
      }
    } catch (const std::exception& exception) {
      CVEventLogger::LogException(kClass, "ProgressRequest", exception.what());
      attempt->NoteFailure(exception);
      EndAttemptLocked(*attempt, kReasonException);
      return;
    }
  }
  // Outside the lock: a listener may stop the download from here.
  if (amount > 0) SyncListener::SendFileAmountChangedNotification(amount);
}

void AsyncFileDownloader::FinishFileDownloading(const std::shared_ptr<Attempt>& attempt,
                                                ASIHTTPRequest& request) {
  if (!IsCurrent(*attempt)) return;
  std::int64_t amount = 0;
  {
    std::lock_guard<std::mutex> lock(attempt->progressLock);
    if (attempt->ended) return;
    const CVFileWithAction& file = attempt->file;
    const std::string& temporaryPath = attempt->temporaryPath;
    const std::int32_t status = request.responseStatusCode();
    if (!IsSuccess(status)) {
      try {
        WriteMainLogForDataRequest(request, "DownloadStorageFile (FinishFileDownloading):", file.nFilePath);
        attempt->CloseFile();
        std::error_code error;
        if (Inspect(temporaryPath).exists) fs::remove(temporaryPath, error);
        EndAttemptLocked(*attempt, status == 401 ? kReasonNotAuthorized : kReasonBadStatus);
      } catch (const std::exception& exception) {
        CVEventLogger::LogException(kClass, "FinishFileDownloading", exception.what());
        EndAttemptLocked(*attempt, kReasonBadStatus);
      }
      return;
    }
    try {
      if (attempt->fileHandle >= 0) {
        if (!attempt->downloadedData.empty()) {
          amount = WriteInflated(attempt->fileHandle, attempt->downloadedData, attempt->bytesWritten,
                                 temporaryPath);
        }
        KeepModeOfTarget(attempt->fileHandle, file.nFilePath);
        SetModificationTime(attempt->fileHandle, file.dateModified);
        struct stat written {};
        if (landing_ && ::fstat(attempt->fileHandle, &written) == 0 &&
            static_cast<std::int64_t>(written.st_size) == file.fileSize) {
          // Whole: it lands with others, its data made durable with theirs.
          landing_->Add(attempt->fileHandle, temporaryPath, file, onlyWherePathFree_);
          attempt->fileHandle = -1;
          EndAttemptLocked(*attempt, kReasonSuccess);
        }
        if (attempt->fileHandle >= 0 && ::fsync(attempt->fileHandle) != 0) {
          throw SystemFailure("Failed to write file at path", temporaryPath);
        }
        attempt->CloseFile();
      }
      const PathState finished = Inspect(temporaryPath);
      if (attempt->ended) {
        // Handed to the landing.
      } else if (!finished.exists || !finished.regular) {
        Log("FinishFileDownloading", "the temporary file is gone: " + temporaryPath);
        EndAttemptLocked(*attempt, kReasonNoTokenOrFile);
      } else if (finished.size != file.fileSize) {
        // Checked before the move: a wrong download never takes the place of the
        // file that is there, only its temporary file goes.
        Log("FinishFileDownloading", "size " + std::to_string(finished.size) + " instead of " +
                                         std::to_string(file.fileSize) + ", not moved: " + file.nFilePath);
        std::error_code error;
        fs::remove(temporaryPath, error);
        EndAttemptLocked(*attempt, kReasonSizeMismatch);
      } else {
        fs::rename(temporaryPath, file.nFilePath);
        // The rename is made durable with the record's next commit, many files at once.
        DownloadedFilesStore::Instance().NoteFolder(fs::path(file.nFilePath).parent_path().string());
        AsyncFileCommonPart::WriteToDownloadedFiles(file, false);
        EndAttemptLocked(*attempt, kReasonSuccess);
      }
    } catch (const std::exception& exception) {
      CVEventLogger::LogException(kClass, "FinishFileDownloading", exception.what());
      attempt->NoteFailure(exception);
      EndAttemptLocked(*attempt, kReasonException);
    }
  }
  if (amount > 0) SyncListener::SendFileAmountChangedNotification(amount);
}

void AsyncFileDownloader::ErrorDownloadFile(const std::shared_ptr<Attempt>& attempt,
                                            ASIHTTPRequest& request) {
  if (!IsCurrent(*attempt)) return;
  std::lock_guard<std::mutex> lock(attempt->progressLock);
  if (attempt->ended) return;
  const std::int32_t status = request.responseStatusCode();
  CVEventLogger::WriteMainLogMessage("DownloadStorageFile: Response Code - " + std::to_string(status) +
                                     " (ErrorDownloadFile), " + attempt->file.nFilePath);
  EndAttemptLocked(*attempt, status == 401 ? kReasonNotAuthorized : kReasonRequestFailed);
}
