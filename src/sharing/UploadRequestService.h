#pragma once
// UploadRequestService: the server calls of the upload request view, behind one
// interface so that its rules run without a server. ServerUploadRequestService
// is the real one. Every call blocks; the view makes them on workers.

#include <optional>
#include <string>
#include <vector>

#include "AsyncSharedDownloader.h"
#include "CorvalinkWS.h"
#include "SharingService.h"
#include "SyncRecords.h"

class UploadRequestService {
 public:
  virtual ~UploadRequestService() = default;
  virtual std::string CheckConnectionAndGetWSToken() = 0;
  virtual std::vector<CVUploadRequest> GetUploadRequestsWithToken(const std::string& token) = 0;
  virtual bool DeleteUploadRequest(const std::string& token, const std::vector<std::string>& ids) = 0;
  virtual bool ResendRequestEmail(const std::string& token, const std::vector<std::string>& ids) = 0;
  // What came in through the request (its guid), each with its place under
  // cacheRoot; nothing when the server gave no usable list.
  virtual std::optional<std::vector<CVFileForCompare>> GetFilesListForUser(const std::string& guid,
                                                                          const std::string& cacheRoot) = 0;
  // One file of the request into file.localPath.
  virtual bool DownloadFile(const CVFileForCompare& file, const std::string& guid) = 0;
};

class ServerUploadRequestService : public UploadRequestService {
 public:
  std::string CheckConnectionAndGetWSToken() override { return session_.CheckConnectionAndGetWSToken(); }
  std::vector<CVUploadRequest> GetUploadRequestsWithToken(const std::string& token) override {
    return ws_.GetUploadRequestsWithToken(token);
  }
  bool DeleteUploadRequest(const std::string& token, const std::vector<std::string>& ids) override {
    return ws_.DeleteUploadRequest(token, ids);
  }
  bool ResendRequestEmail(const std::string& token, const std::vector<std::string>& ids) override {
    return ws_.ResendRequestEmail(token, ids);
  }
  // The server listing of a storage named after the request, located at the
  // cache: the request's own token (kept under its guid) lists its folder.
  std::optional<std::vector<CVFileForCompare>> GetFilesListForUser(const std::string& guid,
                                                                  const std::string& cacheRoot) override;
  bool DownloadFile(const CVFileForCompare& file, const std::string& guid) override;

  AsyncSharedDownloader downloader;

 private:
  ServerSharingService session_;
  CorvalinkWS ws_;
};
