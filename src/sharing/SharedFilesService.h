#pragma once
// SharedFilesService: the server calls of the shared files view, behind one
// interface so that its rules run without a server. ServerSharedFilesService is
// the real one: the session of CVHandler, the calls of CorvalinkWS and
// AsyncSharedDownloader. Every call blocks; the view makes them on workers.

#include <optional>
#include <string>
#include <vector>

#include "AsyncSharedDownloader.h"
#include "CorvalinkWS.h"
#include "SharingService.h"

class SharedFilesService {
 public:
  virtual ~SharedFilesService() = default;

  // The main token once the device's status is "1;A"; "" when none can be had.
  virtual std::string CheckConnectionAndGetWSToken() = 0;
  // GetFileList (sharedIn) or GetMyFileList; with a share id the entries at path inside that shared folder.
  virtual std::vector<WSFileProperty> GetFileList(bool sharedIn, const std::string& token, const std::string& path,
                                                  const std::optional<std::string>& shareId) = 0;
  virtual bool DeleteSharedLink(const std::string& token, const std::string& sharedIds) = 0;
  virtual bool ResendEmailShared(const std::string& token, const std::string& sharedIds) = 0;
  // Validity in minutes, or CorvalinkWS::kNoExpiry.
  virtual std::string ShareFilesExtend2(const std::vector<std::string>& ids, long validity,
                                        const std::string& token) = 0;
  // One shared file into localPath; sharedPath for a file inside a shared folder.
  virtual bool DownloadSharing(const std::string& localPath, const std::string& sharedId, bool sharedIn,
                               const std::optional<std::string>& sharedPath, const std::string& token,
                               const AsyncSharedDownloader::Expected& expected) = 0;
  // Ends a download that runs; from any thread.
  virtual void StopDownloading() = 0;
};

class ServerSharedFilesService : public SharedFilesService {
 public:
  std::string CheckConnectionAndGetWSToken() override { return session_.CheckConnectionAndGetWSToken(); }
  std::vector<WSFileProperty> GetFileList(bool sharedIn, const std::string& token, const std::string& path,
                                          const std::optional<std::string>& shareId) override;
  bool DeleteSharedLink(const std::string& token, const std::string& sharedIds) override {
    return ws_.DeleteSharedLink(token, sharedIds);
  }
  bool ResendEmailShared(const std::string& token, const std::string& sharedIds) override {
    return ws_.ResendEmailShared(token, sharedIds);
  }
  std::string ShareFilesExtend2(const std::vector<std::string>& ids, long validity,
                                const std::string& token) override {
    return ws_.ShareFilesExtend2(ids, validity, "", "", token);
  }
  // A refused token is dropped and the download repeated once with a new one.
  bool DownloadSharing(const std::string& localPath, const std::string& sharedId, bool sharedIn,
                       const std::optional<std::string>& sharedPath, const std::string& token,
                       const AsyncSharedDownloader::Expected& expected) override;
  void StopDownloading() override { downloader.StopDownloading(); }

  AsyncSharedDownloader downloader;

 private:
  ServerSharingService session_;
  CorvalinkWS ws_;
};
