#pragma once
// FakeFileService: the server side of the file calls and of UploadStorageFile.ashx
// behind the request engine's transport seam, in memory. It answers the logins,
// the probe, the system configuration, GetHashes, GetFileInfo, the partial upload
// calls and the tree changes; keeps files and pending parts by server path;
// checks each part's Content-MD5 and Range; and records every request, so that
// tests see what the client really sent. Tests change its answers through
// replies queued per method and a hook on the upload handler.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "HTTPTransport.h"

struct UploadRecord {
  std::map<std::string, std::string> query;  // decoded values
  std::string rawQuery;                      // as sent
  ASIHeaderFields headers;
  std::string body;
  std::int64_t rangeStart = -1;  // of a part, -1 for a one-request upload
};

struct SoapRecord {
  std::string endpoint;  // "CorvalinkMobile.asmx", ...
  std::string method;
  std::string envelope;
  std::string Parameter(const std::string& name) const;  // unescaped
};

class FakeFileService : public HTTPTransport {
 public:
  // What the upload hook may answer besides an HTTP status.
  static constexpr int kHandle = 0;      // let the server handle the request
  static constexpr int kStopped = -1;    // wait until the client stops the exchange
  using UploadHook = std::function<int(const UploadRecord& upload)>;

  HTTPExchangeResult Perform(HTTPExchange& exchange) override;

  // --- Setting the server up ---
  void SetVersion(const std::string& version);
  void SetPartSizeKb(std::int64_t kilobytes);
  void PutFile(const std::string& serverPath, const std::string& content, std::int64_t modified = 1'600'000'000);
  void PutPendingPart(const std::string& serverPath, std::int64_t offset, const std::string& bytes);
  // The next call of the method answers this result text instead of running.
  void ReplyNext(const std::string& method, const std::string& result);
  // Every token handed out so far stops working.
  void RefuseTokens();
  void OnUpload(UploadHook hook);

  // --- What happened ---
  std::optional<std::string> File(const std::string& serverPath) const;
  std::vector<UploadRecord> Uploads() const;
  std::vector<SoapRecord> Calls(const std::string& method) const;
  int Count(const std::string& method) const;
  // Blocks until an upload is held by the hook (kStopped); false on the time-out.
  bool WaitForHeldUpload(std::chrono::milliseconds timeout);

  static std::string Base64MD5(const std::string& bytes);

 private:
  struct Part {
    std::int64_t offset;
    std::string bytes;
  };
  std::string Soap(const std::string& endpoint, const SoapRecord& call);
  std::string SoapLocked(const std::string& endpoint, const SoapRecord& call);
  int Upload(UploadRecord& upload);
  bool ValidToken(const std::string& token) const;

  mutable std::mutex mutex_;
  std::condition_variable held_;
  int heldUploads_ = 0;
  std::string version_ = "6.1.0.0";
  std::int64_t partSizeKb_ = 1;
  std::map<std::string, std::pair<std::string, std::int64_t>> files_;  // content, modified
  std::map<std::string, std::vector<Part>> pending_;
  std::map<std::string, std::int64_t> announcedSize_;
  std::map<std::string, std::deque<std::string>> replies_;
  std::set<std::string> tokens_;
  int issued_ = 0;
  UploadHook hook_;
  std::vector<UploadRecord> uploads_;
  std::vector<SoapRecord> calls_;
};
