#include "AsyncFileUploader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <string_view>

#include "ASIHTTPRequest.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVTextEscaping.h"
#include "Clock.h"
#include "MobileClientWS.h"
#include "SyncListener.h"

namespace {

constexpr const char* kClass = "AsyncFileUploader";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}

bool IsSuccess(int status) { return status >= 200 && status <= 299; }

// The size of a regular file, without following a link; -1 when there is none.
std::int64_t RegularFileSize(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  return static_cast<std::int64_t>(info.st_size);
}

std::string ErrorText(const ASIHTTPRequest& request) {
  auto error = request.error();
  return error ? error->description() : "(null)";
}

}  // namespace

AsyncFileUploader::AsyncFileUploader(std::shared_ptr<const Clock> clock, std::function<bool()> shouldRun)
    : clock_(std::move(clock)), shouldRun_(std::move(shouldRun)) {}

AsyncFileUploader::~AsyncFileUploader() { RunSafeUploadRequestCommand(0); }

bool AsyncFileUploader::uploadInProgress() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return uploadInProgress_;
}

bool AsyncFileUploader::uploadResult() const {
  std::lock_guard<std::mutex> lock(stateLock_);
  return uploadResult_;
}

// --- Addresses ---

std::string AsyncFileUploader::EncodedURL(const std::string& decodedURL) {
  // Characters with a meaning in a URL stay; everything else is escaped.
  return CVTextEscaping::PercentEncoded(decodedURL, ":/?#[]@!$&'()*+,;=");
}

std::string AsyncFileUploader::UploadURL(const std::string& decodedHandlerURL, const std::string& token,
                                         const std::string& servPath, const std::string& sizeFields) {
  return EncodedURL(decodedHandlerURL) + "?token=" + CVTextEscaping::URLEncodedString(token) +
         "&path=" + CVTextEscaping::URLEncodedString(servPath) + sizeFields;
}

std::shared_ptr<ASIHTTPRequest> AsyncFileUploader::NewRequest(const std::string& url) const {
  auto request = ASIHTTPRequest::requestWithURL(url);
  request->setRequestMethod("POST");
  request->setShouldAttemptPersistentConnection(false);
  request->setTimeOutSeconds(kTimeOutSeconds);
  request->setNumberOfTimesToRetryOnTimeout(kRetriesOnTimeOut);
  request->setShouldStreamPostDataFromDisk(true);
  return request;
}

// --- The two kinds of upload ---

int AsyncFileUploader::UploadFileToServerAtPath(const std::string& path, const std::string& token,
                                                const std::string& servPath) {
  responseCode_ = kStatusFailure;
  try {
    const std::int64_t size = RegularFileSize(path);
    if (size < 0) {
      Log("UploadFileToServerAtPath", "No file to upload error for path: " + path);
      return kStatusFileChanged;
    }
    CVHandler::Instance().RegenWsURL();
    auto request = NewRequest(
        UploadURL(CVHandler::Instance().uploadFile(), token, servPath, "&Length=" + std::to_string(size)));
    if (size == 0) {
      request->addRequestHeader("Content-Type", "text/xml; charset=utf-8");
    } else {
      request->appendPostDataFromFile(path);
      // The body is the file as it is now; announced with another length, the
      // server would refuse it anyway.
      if (request->postLength() != size) {
        Log("UploadFileToServerAtPath", "the file changed while the upload was prepared: " + path);
        return kStatusFileChanged;
      }
    }
    const int status = Run(request);
    if (status == kStatusStopped || IsSuccess(status)) return status;
    CVEventLogger::WriteMainLogMessage("UploadStorageFile: Response Code - " + std::to_string(status) + ", " +
                                       request->responseStatusMessage() + ", path: " + path +
                                       ",  Error no partial upload: " + ErrorText(*request));
    return status;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "UploadFileToServerAtPath", failure.what());
    RunSafeUploadRequestCommand(0);
    return kStatusFailure;
  }
}

int AsyncFileUploader::PartialUploadFileToServerAtPath(const std::string& path, const std::string& token,
                                                       const std::string& servPath,
                                                       const std::vector<std::string>& WithServerMD5,
                                                       std::vector<std::string>& WithLocalMD5,
                                                       std::int64_t WithPartSize, std::int64_t WithStep) {
  PartUploadMethod_ = true;
  responseCode_ = kStatusFailure;
  int status = kStatusFailure;
  try {
    const std::int64_t size = RegularFileSize(path);
    if (size < 0) {
      try {
        MobileClientWS().CancelPartialUploadWithToken(token, servPath);
        Log("PartialUploadFileToServerAtPath", "Cancel Partial Upload Successfully");
      } catch (const std::exception&) {
        Log("PartialUploadFileToServerAtPath", "Cancel Partial Upload Error");
      }
      Log("PartialUploadFileToServerAtPath", "No file to upload error");
      PartUploadMethod_ = false;
      return kStatusFileChanged;
    }
    CVHandler::Instance().RegenWsURL();
    const std::string sizeFields =
        "&FullSize=" + std::to_string(size) + "&PartSize=" + std::to_string(WithPartSize / 1024);
    auto request = NewRequest(UploadURL(CVHandler::Instance().uploadFile(), token, servPath, sizeFields));

    // The hash goes to a list of its own first: it joins the caller's only once
    // the server has the part.
    std::vector<std::string> readHashes;
    const std::string hash =
        request->appendPostDataFromFile2(path, WithServerMD5, readHashes, WithPartSize, WithStep);
    if (hash.empty()) {
      Log("PartialUploadFileToServerAtPath", "part " + std::to_string(WithStep) + " could not be read: " + path);
      status = responseCode_;
    } else if (std::find(WithServerMD5.begin(), WithServerMD5.end(), hash) != WithServerMD5.end()) {
      Log("PartialUploadFileToServerAtPath", "This part file is exist in server!");
      WithLocalMD5.push_back(hash);
      status = kStatusPartExists;
    } else {
      request->addRequestHeader("Content-MD5", hash);
      if (shouldRun_ && !shouldRun_()) {
        RunSafeUploadRequestCommand(1);
        status = kStatusFailure;
      } else {
        status = Run(request);
        if (IsSuccess(status)) {
          WithLocalMD5.push_back(hash);
        } else if (status != kStatusStopped) {
          CVEventLogger::WriteMainLogMessage("UploadStorageFile: Response Code - " + std::to_string(status) +
                                             ", Response status code: " +
                                             std::to_string(request->responseStatusCode()) + ", " +
                                             ErrorText(*request) + ", error text:" + request->responseString());
        }
      }
    }
  } catch (const std::exception& failure) {
    // Never "the server has it": that would put a part it lacks into the list.
    CVEventLogger::LogException(kClass, "PartialUploadFileToServerAtPath", failure.what());
    RunSafeUploadRequestCommand(0);
    status = kStatusFailure;
  }
  PartUploadMethod_ = false;
  return status;
}

// --- Running one request ---

int AsyncFileUploader::Run(const std::shared_ptr<ASIHTTPRequest>& request) {
  request->setDidStartSelector([this](ASIHTTPRequest& events) { StartFileUploading(events); });
  request->setDidFinishSelector([this](ASIHTTPRequest& events) { FinishFileUploading(events); });
  request->setDidFailSelector([this](ASIHTTPRequest& events) { ErrorUploadFile(events); });
  request->setUploadProgressDelegate(this);
  percentsUploaded_ = -1;
  {
    std::lock_guard<std::mutex> lock(stateLock_);
    uploadInProgress_ = true;
    uploadResult_ = false;
  }
  {
    std::lock_guard<std::mutex> lock(mylock);
    if (stopRequested_) {
      std::lock_guard<std::mutex> state(stateLock_);
      uploadInProgress_ = false;
      return kStatusStopped;
    }
    uploadFileRequest = request;
  }
  request->startAsynchronous();

  std::shared_ptr<const Clock> clock = clock_ ? clock_ : ASIHTTPRequest::GetClock();
  const auto interval =
      std::max<std::chrono::nanoseconds>(clock->Scaled(kPollInterval), std::chrono::milliseconds(1));
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(stateLock_);
      if (ended_.wait_for(lock, interval, [this] { return !uploadInProgress_; })) break;
    }
    // The last event comes before the request counts as finished: one that
    // ended without telling us failed on the way.
    if (request->isFinished()) {
      std::lock_guard<std::mutex> lock(stateLock_);
      if (uploadInProgress_) {
        responseCode_ = request->responseStatusCode();
        uploadInProgress_ = false;
      }
      break;
    }
  }
  // Nothing of this request reaches the next one.
  request->clearDelegatesAndCancel();
  RunSafeUploadRequestCommand(1);
  if (stopRequested_) return kStatusStopped;
  return responseCode_;
}

void AsyncFileUploader::StopFileUploading() {
  {
    std::lock_guard<std::mutex> lock(mylock);
    stopRequested_ = true;
  }
  RunSafeUploadRequestCommand(0);
  std::lock_guard<std::mutex> lock(stateLock_);
  uploadInProgress_ = false;
  ended_.notify_all();
}

void AsyncFileUploader::RunSafeUploadRequestCommand(int command) {
  std::shared_ptr<ASIHTTPRequest> request;
  {
    std::lock_guard<std::mutex> lock(mylock);
    request = uploadFileRequest;
    if (command == 1) uploadFileRequest.reset();
  }
  // Outside mylock: the cancel waits for an event in flight.
  if (command == 0 && request) request->clearDelegatesAndCancel();
}

// --- Events ---

void AsyncFileUploader::StartFileUploading(ASIHTTPRequest&) {
  std::lock_guard<std::mutex> lock(stateLock_);
  uploadResult_ = false;
  uploadInProgress_ = true;
}

void AsyncFileUploader::FinishFileUploading(ASIHTTPRequest& request) {
  const int status = request.responseStatusCode();
  Log("FinishFileUploading", "status " + std::to_string(status));
  std::lock_guard<std::mutex> lock(stateLock_);
  responseCode_ = status;
  uploadResult_ = IsSuccess(status);
  uploadInProgress_ = false;
  ended_.notify_all();
}

void AsyncFileUploader::ErrorUploadFile(ASIHTTPRequest& request) {
  CVEventLogger::WriteMainLogMessage("Upload File Error: " + ErrorText(request));
  std::lock_guard<std::mutex> lock(stateLock_);
  responseCode_ = request.responseStatusCode();
  uploadResult_ = false;
  uploadInProgress_ = false;
  ended_.notify_all();
}

void AsyncFileUploader::setDoubleValue(double value) {
  const int percent = static_cast<int>(std::clamp(value, 0.0, 1.0) * 100.0);
  if (percentsUploaded_.exchange(percent) == percent) return;
  if (percent % 25 == 0) {
    CVEventLogger::WriteMainLogMessage("upload progress: " + std::to_string(percent) + "%");
  }
  if (PartUploadMethod_) {
    SyncListener::SendFilePercentsChangedNotificationForPartUpload(percent);
  } else {
    SyncListener::SendFilePercentsChangedNotification(percent);
  }
}
