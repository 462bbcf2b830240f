#include "AsyncSharedDownloader.h"

#include "ASIFormDataRequest.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"

namespace {

bool IsGoodStatus(std::int32_t status) { return status >= 200 && status <= 299; }

}  // namespace

bool AsyncSharedDownloader::DownloadFileVersionToPath(const std::string& localPath, const std::string& version,
                                                      const std::string& serverPath, const std::string& token,
                                                      std::int64_t expectedSize) {
  downloadCancelReason_ = kReasonRunning;
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  auto request = ASIFormDataRequest::requestWithURL(handler.downloadFileUrl());
  request->setRequestMethod("POST");
  request->setPostValue(token, "token");
  request->setPostValue(serverPath, "path");
  request->setPostValue(version, "version");
  request->setTimeOutSeconds(kTimeOutSeconds);
  request->setAllowCompressedResponse(false);
  request->setUseSessionPersistence(false);
  request->addRequestHeader("Range", "0-");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) {
      downloadCancelReason_ = kReasonRequestFailed;
      return false;
    }
    request_ = request;
  }

  std::int64_t received = 0;
  bool written = CVStaticHelpers::WriteFileAtomically(
      localPath,
      [&](const CVStaticHelpers::AppendBytes& append) {
        bool appended = true;
        request->setDidReceiveDataSelector([&](ASIHTTPRequest& r, std::string_view data) {
          // The body of a refusal is not the file.
          if (!appended || !IsGoodStatus(r.responseStatusCode())) return;
          appended = append(data);
          if (!appended) r.cancel();
          received += static_cast<std::int64_t>(data.size());
          if (onProgress) onProgress(received);
        });
        request->startSynchronous();
        const std::int32_t status = request->responseStatusCode();
        if (request->error() || !appended) {
          downloadCancelReason_ = appended ? kReasonRequestFailed : kReasonNoFile;
        } else if (!IsGoodStatus(status)) {
          downloadCancelReason_ = status == 401 ? kReasonNotAuthorized : kReasonBadStatus;
        } else if (expectedSize >= 0 && received != expectedSize) {
          downloadCancelReason_ = kReasonSizeMismatch;
        } else {
          return true;
        }
        return false;
      },
      0644);
  if (written) {
    downloadCancelReason_ = kReasonSuccess;
  } else if (downloadCancelReason_ == kReasonRunning) {
    downloadCancelReason_ = kReasonNoFile;
  }
  CVEventLogger::WriteMainLogMessage("DownloadStorageFile: Response Code - " +
                                     std::to_string(request->responseStatusCode()) + " (version " + version +
                                     "), " + localPath + (written ? "" : " -> not saved, reason " +
                                                                           std::to_string(downloadCancelReason_.load())));
  std::lock_guard<std::mutex> lock(mutex_);
  request_.reset();
  return written;
}

void AsyncSharedDownloader::StopDownloading() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  if (request_) request_->cancel();
}
