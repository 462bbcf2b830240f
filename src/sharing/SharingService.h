#pragma once
// SharingService: the server calls the share window makes, behind one interface so
// that the window's rules can run without a server. ServerSharingService is the
// real one: the session of CVHandler and the calls of CorvalinkWS. Every call
// blocks; the window makes them on a worker.

#include <string>
#include <vector>

#include "CorvalinkWS.h"
#include "RecipientName.h"
#include "ShareReplyParsers.h"

class SharingService {
 public:
  virtual ~SharingService() = default;

  // The main token once the device's status is "1;A", in at most two rounds;
  // "" when none can be had.
  virtual std::string CheckConnectionAndGetWSToken() = 0;
  // Internal users only.
  virtual WSUserDataArray GetUsersToShare(const std::string& filter, const std::string& token) = 0;
  virtual std::string ShareFilesInternalViewOnly(const std::vector<std::string>& files,
                                                 const std::vector<RecipientName>& recipients, long validity,
                                                 const std::string& subject, const std::string& message,
                                                 const std::string& token, bool notifyAll, bool viewOnly) = 0;
  virtual std::string ShareFilesExternalViewOnly(const std::vector<std::string>& files,
                                                 const std::vector<RecipientName>& recipients, long validity,
                                                 const std::string& subject, const std::string& message,
                                                 const std::string& token, bool otp, bool notifyAll,
                                                 bool viewOnly) = 0;

  // The first generation: validity in hours; the server's reply as it stands.
  virtual std::string ShareFilesInternal(const std::vector<std::string>& files,
                                         const std::vector<RecipientName>& recipients, long validity,
                                         const std::string& subject, const std::string& message,
                                         const std::string& token) = 0;
  virtual std::string ShareFilesExternal(const std::vector<std::string>& files,
                                         const std::vector<RecipientName>& recipients, long validity,
                                         const std::string& subject, const std::string& message,
                                         const std::string& token) = 0;
  // "1;1;" and pairs of address and name, "1;0" when none was found, or a failure.
  virtual std::string FindUsers(const std::string& query, const std::string& token) = 0;

  // What an upload request asks for.
  struct UploadRequest {
    std::vector<RecipientItem> recipients;
    std::string token, session, extensions, subject, otp, message, notifyAll;
    long validity = 0;
    std::int64_t sizeLimit = 0;
    long numberOfUploads = -1;
  };
  // "" when created, "-1;" or "code;message" when not.
  virtual std::string CreateUploadRequestWithRecipient(const UploadRequest& request) = 0;
};

class ServerSharingService : public SharingService {
 public:
  std::string CheckConnectionAndGetWSToken() override;
  WSUserDataArray GetUsersToShare(const std::string& filter, const std::string& token) override;
  std::string ShareFilesInternalViewOnly(const std::vector<std::string>& files,
                                         const std::vector<RecipientName>& recipients, long validity,
                                         const std::string& subject, const std::string& message,
                                         const std::string& token, bool notifyAll, bool viewOnly) override;
  std::string ShareFilesExternalViewOnly(const std::vector<std::string>& files,
                                         const std::vector<RecipientName>& recipients, long validity,
                                         const std::string& subject, const std::string& message,
                                         const std::string& token, bool otp, bool notifyAll, bool viewOnly) override;
  std::string ShareFilesInternal(const std::vector<std::string>& files, const std::vector<RecipientName>& recipients,
                                 long validity, const std::string& subject, const std::string& message,
                                 const std::string& token) override;
  std::string ShareFilesExternal(const std::vector<std::string>& files, const std::vector<RecipientName>& recipients,
                                 long validity, const std::string& subject, const std::string& message,
                                 const std::string& token) override;
  std::string FindUsers(const std::string& query, const std::string& token) override;
  std::string CreateUploadRequestWithRecipient(const UploadRequest& request) override;

 private:
  CorvalinkWS ws_;
};
