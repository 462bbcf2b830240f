#pragma once
// CorvalinkWS: the calls of the main service (login, version, device status,
// policy) and the sharing calls of both services. One small operation per server
// method on top of WSCommonMethods.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "RecipientName.h"
#include "ShareReplyParsers.h"

class CorvalinkWS {
 public:
  static constexpr const char* kDeviceType = "macOSdesktop";  // the server knows this value

  // The main login on the service under url; the form depends on the server's
  // version, asked of the same server. The whole reply text or an "err..." text.
  std::string LoginWithUrl(const std::string& user, const std::string& password,
                           const std::string& devSerial, const std::string& url);
  // The same against the configured server.
  std::string Login(const std::string& user, const std::string& withPass, const std::string& withSerial);

  // The reply of GetVersion from the service whose main endpoint is wsUrl, "" on failure.
  std::string GetVersion(const std::string& wsUrl);
  std::string GetVersion();
  // Whether the server under wsUrl takes the login with device name and system.
  bool shouldSendDeviceNameAndSystemInfo(const std::string& wsUrl);
  // Pure decision on a version text: 7+, 6.1+, or 6.0.71+.
  static bool VersionTakesOptions(const std::string& version);

  // The whole reply text of GetDeviceStatus, or an "err..." text.
  std::string GetDeviceStatus(const std::string& token, const std::string& wsUrl);
  // The reply bytes of GetDefaultSettings2.
  std::optional<std::string> GetDefaultSettings2(const std::string& token, const std::string& wsUrl);
  // The reply bytes of GetSharedStorages on share.asmx: the shared storages the user reaches.
  std::optional<std::string> GetSharedStoragesWithToken(const std::string& token);

  // --- Sharing (CorvalinkWSShare.cpp). Synchronous: never on the main thread. ---
  // Validity in hours (first generation) or minutes (ShareItems); this value is no expiry.
  static constexpr long kNoExpiry = 876000;

  // The Documents element of the paths that exist; the second form adds the
  // modification date and the storage type. A path outside every storage is
  // left out, with a line in the log.
  static std::string CreateDocumentsNodeFromLocalFiles(const std::vector<std::string>& files);
  static std::string CreateDocumentsNodeFromLocalFiles2(const std::vector<std::string>& files);

  // First generation, at the main service. The result text, "-200" for a bad
  // status, "err..." after an exception.
  std::string ShareFilesExternalCommon(const std::vector<std::string>& files,
                                       const std::vector<RecipientName>& Recipients, long Validity,
                                       const std::string& Subject, const std::string& Message,
                                       const std::string& Token, int wersionWS, bool OTPState,
                                       bool NotificationAllState, bool ReturnSharedLinks);
  std::string ShareFilesInternalCommon(const std::vector<std::string>& files,
                                       const std::vector<RecipientName>& Recipients, long Validity,
                                       const std::string& Subject, const std::string& Message,
                                       const std::string& Token, int version);
  std::string ShareFilesExternal(const std::vector<std::string>& files, const std::vector<RecipientName>& Recipients,
                                 long Validity, const std::string& Subject, const std::string& Message,
                                 const std::string& Token);
  std::string ShareFilesExternal2(const std::vector<std::string>& files, const std::vector<RecipientName>& Recipients,
                                  long Validity, const std::string& Subject, const std::string& Message,
                                  const std::string& Token, bool OTPState, bool NotificationAllState);
  std::string ShareFilesInternal(const std::vector<std::string>& files, const std::vector<RecipientName>& Recipients,
                                 long Validity, const std::string& Subject, const std::string& Message,
                                 const std::string& Token);
  std::string ShareFilesInternal2(const std::vector<std::string>& files, const std::vector<RecipientName>& Recipients,
                                  long Validity, const std::string& Subject, const std::string& Message,
                                  const std::string& Token);

  // Second generation: ShareItems at the share service; Validity in minutes.
  // The text of ResultCode ("0" when shared), "-200", or "err...".
  using TimePoint = std::chrono::system_clock::time_point;
  std::string ShareFilesInternalViewOnly(const std::vector<std::string>& files,
                                         const std::vector<RecipientName>& Recipients, long Validity,
                                         const std::string& Subject, const std::string& Message,
                                         const std::string& Token, bool NotificationAllState, bool viewOnly,
                                         TimePoint now = std::chrono::system_clock::now());
  std::string ShareFilesExternalViewOnly(const std::vector<std::string>& files,
                                         const std::vector<RecipientName>& Recipients, long Validity,
                                         const std::string& Subject, const std::string& Message,
                                         const std::string& Token, bool OTPState, bool NotificationAllState,
                                         bool viewOnly, TimePoint now = std::chrono::system_clock::now());

  // Extending, ending and re-sending shares.
  std::string ShareFilesExtend(const std::string& ids, long Validity, const std::string& Subject,
                               const std::string& Message, const std::string& Token);
  std::optional<std::string> ShareFilesExtend2ws(const std::string& ShareGroupGuid, long Validity,
                                                 const std::string& Subject, const std::string& Message,
                                                 const std::string& Token);
  std::string ShareFilesExtend2(const std::vector<std::string>& ids, long Validity, const std::string& Subject,
                                const std::string& Message, const std::string& Token);
  bool DeleteSharedLink(const std::string& Token, const std::string& SharedIDs);
  std::optional<std::string> DeleteSharedLink2(const std::string& ShareGroupGuid, const std::string& Token);
  bool ResendEmailShared(const std::string& Token, const std::string& SharedIDs);

  // Users and lists.
  std::string FindUsers(const std::string& query, const std::string& token);
  std::optional<WSUserDataArray> FindUsers2(const std::string& query, const std::string& Token, int pageNum,
                                            bool crossDomain);
  WSUserDataArray GetUsersToShare(const std::string& filter, bool internalOnly, bool externalOnly,
                                  const std::string& token);
  WSFilePropertyArray GetFileList(const std::string& token);
  WSFilePropertyArray GetFileList(const std::string& token, const std::string& Path,
                                  const std::optional<std::string>& ShareId);
  WSFilePropertyArray GetMyFileList(const std::string& token);
  WSFilePropertyArray GetMyFileList(const std::string& token, const std::string& Path,
                                    const std::optional<std::string>& ShareId);
  WSUsageHistoryArray GetUsageHistory(const std::string& token, const std::string& pageNum);

  // --- Upload requests (CorvalinkWSShare.cpp) ---
  // "" when the request was made; else "-200" or the server's error text.
  // Validity in minutes; a file size of 0 is no limit; extensions "," separated.
  std::string CreateUploadRequestWithRecipient(const std::vector<RecipientItem>& recipients, const std::string& Token,
                                               const std::string& WithSession, unsigned long WithValidity,
                                               unsigned long WithFileSize, const std::string& WithFileExtensions,
                                               long WithNumberOfUpload, const std::string& WithSubject,
                                               const std::string& WithOtpRequired,
                                               const std::string& WithMessageUpdate,
                                               const std::string& WithNotification,
                                               const std::string& WithCurrentSettings);
  std::vector<CVUploadRequest> GetUploadRequestsWithToken(const std::string& token);
  // True only for the answer "0;" or "0".
  bool DeleteUploadRequest(const std::string& token, const std::vector<std::string>& WithRequestID);
  bool ResendRequestEmail(const std::string& token, const std::vector<std::string>& SharedIDs);

  // "yyyy-MM-ddTHH:mm:ss" in UTC, to the second.
  static std::string UtcDateText(TimePoint time);

  // What the login tells the server about this machine.
  static std::string OptionsFragment(const std::string& devSerial);
  static std::string DeviceName();
  static std::string SystemVersion();
};
