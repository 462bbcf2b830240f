#pragma once
// AsyncFileUploader: one HTTP upload to UploadStorageFile.ashx, and the wait for
// it: either a whole file in one request, or one part of a file with its
// Content-MD5 and Range. The body is always streamed from disk. The request runs
// on the shared queue while the calling thread waits for its end.
//
// Made by AsyncFileMethods for one upload (all parts of one file go through the
// same object) and used by the sync thread only; StopFileUploading may come from
// any other thread and ends the request in flight at once, and every later
// request of this object at its start.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ASIHTTPRequestDelegate.h"

class ASIHTTPRequest;
class Clock;

class AsyncFileUploader : public ASIProgressDelegate {
 public:
  // Statuses of our own, beside the HTTP ones.
  static constexpr int kStatusPartExists = 15;    // the server has this part already
  static constexpr int kStatusStopped = -5;       // stopped before or during the request
  static constexpr int kStatusFileChanged = -101;  // the file is missing or its size changed
  static constexpr int kStatusFailure = 500;

  static constexpr double kTimeOutSeconds = 120.0;  // without any byte moving
  static constexpr int kRetriesOnTimeOut = 2;
  static constexpr std::chrono::milliseconds kPollInterval{200};

  // clock: of the wait; the request engine's when null. shouldRun: the sync's
  // own run flag; a part is not sent while it says no.
  explicit AsyncFileUploader(std::shared_ptr<const Clock> clock = nullptr,
                             std::function<bool()> shouldRun = nullptr);
  ~AsyncFileUploader() override;
  AsyncFileUploader(const AsyncFileUploader&) = delete;
  AsyncFileUploader& operator=(const AsyncFileUploader&) = delete;

  // The whole file in one request with its Length; the HTTP status, -101 when
  // the file is missing or changes size on the way, -5 when stopped.
  int UploadFileToServerAtPath(const std::string& path, const std::string& token, const std::string& servPath);

  // Part WithStep (zero-based) of WithPartSize bytes. 15 without a request when
  // the part's hash is in WithServerMD5. Its hash joins WithLocalMD5 only when
  // the server took the part (2xx) or had it (15), so that the list never names
  // a part the server lacks. -101 when the file is gone; 500 on any failure of
  // our own; else the HTTP status (0 when the request failed on the way).
  int PartialUploadFileToServerAtPath(const std::string& path, const std::string& token,
                                      const std::string& servPath,
                                      const std::vector<std::string>& WithServerMD5,
                                      std::vector<std::string>& WithLocalMD5, std::int64_t WithPartSize,
                                      std::int64_t WithStep);

  // Cancels the request in flight; this object sends nothing afterwards.
  void StopFileUploading();
  // Under mylock: 0 cancels the request (no event comes afterwards), 1 drops it.
  void RunSafeUploadRequestCommand(int command);

  // Upload progress of the running request, from 0 to 1.
  void setDoubleValue(double value) override;

  // The address of a request: the upload handler under the server's base URL
  // (kept percent-decoded, so encoded again here) with the query; token and
  // path are percent-encoded, every reserved character included.
  static std::string UploadURL(const std::string& decodedHandlerURL, const std::string& token,
                               const std::string& servPath, const std::string& sizeFields);
  // Percent-encodes what a URL cannot carry as it is (spaces, "%", bytes
  // beyond ASCII), and leaves its delimiters alone.
  static std::string EncodedURL(const std::string& decodedURL);

  bool uploadInProgress() const;
  bool uploadResult() const;
  std::int32_t responseCode() const { return responseCode_; }
  int percentsUploaded() const { return percentsUploaded_; }
  bool PartUploadMethod() const { return PartUploadMethod_; }
  bool stopped() const { return stopRequested_; }

 private:
  std::shared_ptr<ASIHTTPRequest> NewRequest(const std::string& url) const;
  // Sends the request and waits for its end; the response code, or -5 after a stop.
  int Run(const std::shared_ptr<ASIHTTPRequest>& request);

  // The request's events.
  void StartFileUploading(ASIHTTPRequest& request);
  void FinishFileUploading(ASIHTTPRequest& request);
  void ErrorUploadFile(ASIHTTPRequest& request);

  std::shared_ptr<const Clock> clock_;
  std::function<bool()> shouldRun_;

  std::mutex mylock;  // guards the request object and the stop
  std::shared_ptr<ASIHTTPRequest> uploadFileRequest;
  std::atomic<bool> stopRequested_{false};

  mutable std::mutex stateLock_;  // guards the two flags, with their condition
  std::condition_variable ended_;
  bool uploadInProgress_ = false;
  bool uploadResult_ = false;

  std::atomic<std::int32_t> responseCode_{kStatusFailure};
  std::atomic<int> percentsUploaded_{-1};
  std::atomic<bool> PartUploadMethod_{false};
};
