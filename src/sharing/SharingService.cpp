#include "SharingService.h"

#include <algorithm>

#include "CVEventLogger.h"
#include "CVHandler.h"

std::string ServerSharingService::CheckConnectionAndGetWSToken() {
  CVHandler& handler = CVHandler::Instance();
  for (int round = 0; round < 2; ++round) {
    std::string status = handler.GetDeviceStatusAutoReloginIfIncorrectToken();
    handler.setDevStatus(status);
    if (status == "1;A") return handler.UsableCVToken(CVHandler::kMainTokenKey);
    if (!status.empty() && status.rfind("-1;", 0) != 0) {
      CVEventLogger::WriteMainLogMessage("Sharing - CheckConnectionAndGetWSToken -> device status: " + status);
      return "";
    }
    handler.RemoveCVToken(CVHandler::kMainTokenKey);
    handler.CheckCVToken(CVHandler::kMainTokenKey);
  }
  return "";
}

WSUserDataArray ServerSharingService::GetUsersToShare(const std::string& filter, const std::string& token) {
  return ws_.GetUsersToShare(filter, true, false, token);
}

std::string ServerSharingService::ShareFilesInternalViewOnly(const std::vector<std::string>& files,
                                                             const std::vector<RecipientName>& recipients,
                                                             long validity, const std::string& subject,
                                                             const std::string& message, const std::string& token,
                                                             bool notifyAll, bool viewOnly) {
  return ws_.ShareFilesInternalViewOnly(files, recipients, validity, subject, message, token, notifyAll, viewOnly);
}

std::string ServerSharingService::ShareFilesExternalViewOnly(const std::vector<std::string>& files,
                                                             const std::vector<RecipientName>& recipients,
                                                             long validity, const std::string& subject,
                                                             const std::string& message, const std::string& token,
                                                             bool otp, bool notifyAll, bool viewOnly) {
  return ws_.ShareFilesExternalViewOnly(files, recipients, validity, subject, message, token, otp, notifyAll,
                                        viewOnly);
}

std::string ServerSharingService::ShareFilesInternal(const std::vector<std::string>& files,
                                                     const std::vector<RecipientName>& recipients, long validity,
                                                     const std::string& subject, const std::string& message,
                                                     const std::string& token) {
  return ws_.ShareFilesInternal(files, recipients, validity, subject, message, token);
}

std::string ServerSharingService::ShareFilesExternal(const std::vector<std::string>& files,
                                                     const std::vector<RecipientName>& recipients, long validity,
                                                     const std::string& subject, const std::string& message,
                                                     const std::string& token) {
  return ws_.ShareFilesExternal(files, recipients, validity, subject, message, token);
}

std::string ServerSharingService::FindUsers(const std::string& query, const std::string& token) {
  return ws_.FindUsers(query, token);
}

std::string ServerSharingService::CreateUploadRequestWithRecipient(const UploadRequest& request) {
  return ws_.CreateUploadRequestWithRecipient(
      request.recipients, request.token, request.session, static_cast<unsigned long>(std::max(0L, request.validity)),
      static_cast<unsigned long>(std::max<std::int64_t>(0, request.sizeLimit)), request.extensions,
      request.numberOfUploads, request.subject, request.otp, request.message, request.notifyAll, "false");
}
