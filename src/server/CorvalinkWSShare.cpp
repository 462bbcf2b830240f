// The calls that share files, change or end a share, find users and list what is
// shared. Simple calls go through the data call of WSCommonMethods; the composed
// ones put their nested elements together here and go through its composed call.
// Every plain value is escaped once, where it is put in; fragments go in raw.

#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "CorvalinkWS.h"
#include "MyParser.h"
#include "WSCommonMethods.h"

namespace {

constexpr const char* kClass = "CorvalinkWS";

std::string Escaped(const std::string& text) { return CVTextEscaping::AddSpecialSymbols(text); }
std::string Leaf(const std::string& name, const std::string& text) {
  return WSCommonMethods::Element(name, Escaped(text));
}
std::string Flag(bool value) { return value ? "true" : "false"; }

std::string WsUrl() {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return handler.wsUrl();
}

std::string ShareServiceUrl() {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return handler.shareUrl();
}

// "-200" and "err..." stand as they are; anything else is the text of element.
std::string ComposedResult(const std::string& raw, const std::string& element) {
  if (raw == WSCommonMethods::kBadStatusReply || raw.rfind("err", 0) == 0) return raw;
  return MyParser::GetParsedStringForNode(element, raw);
}

// A data call gives empty bytes after a broken connection: that is no reply either.
bool NoReply(const std::optional<std::string>& reply) { return !reply || reply->empty(); }

// The text of element in a data call's reply; nothing when there was no reply.
std::optional<std::string> DataResult(const std::optional<std::string>& reply, const std::string& element) {
  if (NoReply(reply)) return std::nullopt;
  return MyParser::GetParsedStringForNode(element, *reply);
}

bool Succeeded(const std::optional<std::string>& result) {
  return result && result->rfind("err", 0) != 0 && result->rfind("-1;", 0) != 0;
}

// The ShareFileInfo elements of the Documents element.
std::string DocumentsContent(const std::vector<std::string>& files, bool second) {
  std::string documents;
  for (const auto& path : files) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) continue;  // gone since it was chosen
    std::string serverPath = CVStaticHelpers::serverPathFromLocalPath(path);
    auto site = CVStaticHelpers::GetSpSiteForLocalPath(path);
    if (serverPath.empty() || !site) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - Documents -> not in a storage, left out: '" +
                                         CVStateXMLFile::PrintableText(path) + "'");
      continue;
    }
    std::string modified = std::to_string(static_cast<long>(info.st_mtim.tv_sec));
    documents += "<ShareFileInfo>" + Leaf("DocumentUrl", serverPath) +
                 Leaf("FileSize", std::to_string(static_cast<long>(info.st_size)));
    if (second) {
      documents += Leaf("LastModifiedDateTime",
                        CorvalinkWS::UtcDateText(std::chrono::system_clock::from_time_t(info.st_mtim.tv_sec)));
    }
    documents += Leaf("LastModifiedUnixTime", modified);
    if (second) documents += Leaf("StorageType", site->StorageType);
    documents += "</ShareFileInfo>";
  }
  return documents;
}

// The ShareItems call of both kinds of recipients.
std::string ShareItems(const std::vector<std::string>& files, const std::vector<RecipientName>& recipients,
                       long validity, const std::string& message, const std::string& token, bool external,
                       bool otp, bool notifyAll, bool viewOnly, CorvalinkWS::TimePoint now) {
  std::string list;
  for (const auto& r : recipients) {
    list += "<ShareRecipientInfo>" + Leaf("UserId", "0");
    if (external) {
      list += Leaf("RecipientId", "0") + Leaf("IsExternal", "true") + Leaf("RecipientType", "User");
    } else {
      list += Leaf("IsExternal", "false") + Leaf("RecipientType", "User") + Leaf("RecipientId", r.recUserId);
    }
    list += Leaf("Fullname", r.recName) + Leaf("Email", r.recEmail) + Leaf("Mobile", r.recMobile) +
            "</ShareRecipientInfo>";
  }
  bool noExpiry = validity == CorvalinkWS::kNoExpiry;
  auto expiry = now + std::chrono::seconds(noExpiry ? 259'200'000L : validity * 60 + 120);
  std::string options = CorvalinkWS::CreateDocumentsNodeFromLocalFiles2(files) +
                        WSCommonMethods::Element("Recipients", list) + Leaf("NumberOfDownload", "0") +
                        Leaf("NewErrorCodes", "true") + Leaf("SendAllNotifications", Flag(notifyAll)) +
                        Leaf("OtpRequired", Flag(external && otp)) +
                        Leaf("Mode", viewOnly ? "ViewOnly" : "Default") + Leaf("DoNotSendEmail", "false") +
                        Leaf("DoNotSendEmails", "false") + Leaf("NoExpiry", Flag(noExpiry)) +
                        Leaf("ExpiryDate", CorvalinkWS::UtcDateText(expiry)) + Leaf("Message", message) +
                        Leaf("Token", token);
  CVEventLogger::CommonLogWriting("View-Only share request: " + options, "");
  auto raw = WSCommonMethods::ProcessComposedRequest({{"Options", options}}, "ShareItems", ShareServiceUrl());
  return ComposedResult(raw, "ResultCode");
}

WSFilePropertyArray FileList(const std::string& method, const std::vector<std::string>& values,
                             const std::vector<std::string>& keys) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest(values, keys, method, WsUrl());
  return WSFilePropertyArray(reply.value_or(""));
}

}  // namespace

std::string CorvalinkWS::UtcDateText(TimePoint time) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return text;
}

std::string CorvalinkWS::CreateDocumentsNodeFromLocalFiles(const std::vector<std::string>& files) {
  return WSCommonMethods::Element("Documents", DocumentsContent(files, false));
}

std::string CorvalinkWS::CreateDocumentsNodeFromLocalFiles2(const std::vector<std::string>& files) {
  return WSCommonMethods::Element("Documents", DocumentsContent(files, true));
}

std::string CorvalinkWS::ShareFilesExternalCommon(const std::vector<std::string>& files,
                                                  const std::vector<RecipientName>& Recipients, long Validity,
                                                  const std::string& Subject, const std::string& Message,
                                                  const std::string& Token, int wersionWS, bool OTPState,
                                                  bool NotificationAllState, bool /*ReturnSharedLinks*/) {
  std::string method = wersionWS >= 2 ? "ShareFilesExternal2" : "ShareFilesExternal";
  std::string list;
  for (const auto& r : Recipients) {
    list += "<ExternalRecipient>" + Leaf("Fullname", r.recName) + Leaf("Email", r.recEmail) +
            Leaf("Mobile", r.recMobile) + "</ExternalRecipient>";
  }
  WSCommonMethods::Parameters body = {{"Documents", DocumentsContent(files, false)},
                                      {"Recipients", list},
                                      {"Validity", std::to_string(Validity)},
                                      {"Subject", Escaped(Subject)},
                                      {"Message", Escaped(Message)},
                                      {"Token", Escaped(Token)}};
  if (wersionWS >= 2) {
    body.emplace_back("SendAllNotifications", Flag(NotificationAllState));
    body.emplace_back("OtpRequired", Flag(OTPState));
  }
  return ComposedResult(WSCommonMethods::ProcessComposedRequest(body, method, WsUrl()), method + "Result");
}

std::string CorvalinkWS::ShareFilesInternalCommon(const std::vector<std::string>& files,
                                                  const std::vector<RecipientName>& Recipients, long Validity,
                                                  const std::string& Subject, const std::string& Message,
                                                  const std::string& Token, int version) {
  std::string method = version >= 2 ? "ShareFilesInternal2" : "ShareFilesInternal";
  std::string list;
  for (const auto& r : Recipients) list += Leaf("string", r.recUserId.empty() ? r.recEmail : r.recUserId);
  WSCommonMethods::Parameters body = {{"Documents", DocumentsContent(files, true)},
                                      {"Recipients", list},
                                      {"Validity", std::to_string(Validity)},
                                      {"Subject", Escaped(Subject)},
                                      {"Message", Escaped(Message)},
                                      {"Token", Escaped(Token)}};
  CVEventLogger::WriteMainLogMessage("Share to internal requested with body: " +
                                     WSCommonMethods::BuildEnvelope(method, body));
  return ComposedResult(WSCommonMethods::ProcessComposedRequest(body, method, WsUrl()), method + "Result");
}

std::string CorvalinkWS::ShareFilesExternal(const std::vector<std::string>& files,
                                            const std::vector<RecipientName>& Recipients, long Validity,
                                            const std::string& Subject, const std::string& Message,
                                            const std::string& Token) {
  return ShareFilesExternalCommon(files, Recipients, Validity, Subject, Message, Token, 1, false, false, false);
}

std::string CorvalinkWS::ShareFilesExternal2(const std::vector<std::string>& files,
                                             const std::vector<RecipientName>& Recipients, long Validity,
                                             const std::string& Subject, const std::string& Message,
                                             const std::string& Token, bool OTPState, bool NotificationAllState) {
  return ShareFilesExternalCommon(files, Recipients, Validity, Subject, Message, Token, 2, OTPState,
                                  NotificationAllState, false);
}

std::string CorvalinkWS::ShareFilesInternal(const std::vector<std::string>& files,
                                            const std::vector<RecipientName>& Recipients, long Validity,
                                            const std::string& Subject, const std::string& Message,
                                            const std::string& Token) {
  return ShareFilesInternalCommon(files, Recipients, Validity, Subject, Message, Token, 1);
}

std::string CorvalinkWS::ShareFilesInternal2(const std::vector<std::string>& files,
                                             const std::vector<RecipientName>& Recipients, long Validity,
                                             const std::string& Subject, const std::string& Message,
                                             const std::string& Token) {
  return ShareFilesInternalCommon(files, Recipients, Validity, Subject, Message, Token, 2);
}

std::string CorvalinkWS::ShareFilesInternalViewOnly(const std::vector<std::string>& files,
                                                    const std::vector<RecipientName>& Recipients, long Validity,
                                                    const std::string& /*Subject*/, const std::string& Message,
                                                    const std::string& Token, bool NotificationAllState,
                                                    bool viewOnly, TimePoint now) {
  return ShareItems(files, Recipients, Validity, Message, Token, false, false, NotificationAllState, viewOnly, now);
}

std::string CorvalinkWS::ShareFilesExternalViewOnly(const std::vector<std::string>& files,
                                                    const std::vector<RecipientName>& Recipients, long Validity,
                                                    const std::string& /*Subject*/, const std::string& Message,
                                                    const std::string& Token, bool OTPState,
                                                    bool NotificationAllState, bool viewOnly, TimePoint now) {
  return ShareItems(files, Recipients, Validity, Message, Token, true, OTPState, NotificationAllState, viewOnly,
                    now);
}

std::string CorvalinkWS::ShareFilesExtend(const std::string& ids, long Validity, const std::string& Subject,
                                          const std::string& Message, const std::string& Token) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest(
      {ids, std::to_string(Validity), Escaped(Subject), Escaped(Message), Escaped(Token)},
      {"ShareIDs", "Validity", "Subject", "Message", "Token"}, "ShareFilesExtend", WsUrl());
  return DataResult(reply, "ShareFilesExtendResult").value_or("");
}

std::optional<std::string> CorvalinkWS::ShareFilesExtend2ws(const std::string& ShareGroupGuid, long Validity,
                                                            const std::string& Subject, const std::string& Message,
                                                            const std::string& Token) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest(
      {Escaped(ShareGroupGuid), std::to_string(Validity), Escaped(Subject), Escaped(Message), Escaped(Token)},
      {"ShareGroupGuid", "Validity", "Subject", "Message", "Token"}, "ShareFilesExtend2", WsUrl());
  return DataResult(reply, "ShareFilesExtend2Result");
}

std::string CorvalinkWS::ShareFilesExtend2(const std::vector<std::string>& ids, long Validity,
                                           const std::string& Subject, const std::string& Message,
                                           const std::string& Token) {
  std::string list;
  for (const auto& id : ids) {
    long value = 0;
    if (std::sscanf(id.c_str(), "%ld", &value) != 1) {
      CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - ShareFilesExtend2 -> not a share id: '" +
                                         CVStateXMLFile::PrintableText(id) + "'");
    }
    list += Leaf("int", std::to_string(static_cast<int>(value)));
  }
  WSCommonMethods::Parameters body = {{"ShareIDs", list},
                                      {"Validity", std::to_string(Validity)},
                                      {"Subject", Escaped(Subject)},
                                      {"Message", Escaped(Message)},
                                      {"Token", Escaped(Token)}};
  return ComposedResult(WSCommonMethods::ProcessComposedRequest(body, "ShareFilesExtend", WsUrl()),
                        "ShareFilesExtendResult");
}

bool CorvalinkWS::DeleteSharedLink(const std::string& Token, const std::string& SharedIDs) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(Token), Escaped(SharedIDs)},
                                                             {"Token", "SharedIDs"}, "DeleteSharedLink", WsUrl());
  return Succeeded(DataResult(reply, "DeleteSharedLinkResult"));
}

std::optional<std::string> CorvalinkWS::DeleteSharedLink2(const std::string& ShareGroupGuid,
                                                          const std::string& Token) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest(
      {Escaped(ShareGroupGuid), Escaped(Token)}, {"ShareGroupGuid", "Token"}, "DeleteSharedLink2", WsUrl());
  return DataResult(reply, "DeleteSharedLink2Result");
}

bool CorvalinkWS::ResendEmailShared(const std::string& Token, const std::string& SharedIDs) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(Token), Escaped(SharedIDs)},
                                                             {"Token", "SharedIDs"}, "ResendEmail", WsUrl());
  return Succeeded(DataResult(reply, "ResendEmailResult"));
}

std::string CorvalinkWS::FindUsers(const std::string& query, const std::string& token) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(query), Escaped(token)},
                                                             {"queryStr", "Token"}, "FindUsers", WsUrl());
  return DataResult(reply, "FindUsersResult").value_or("");
}

std::optional<WSUserDataArray> CorvalinkWS::FindUsers2(const std::string& query, const std::string& Token,
                                                       int pageNum, bool crossDomain) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest(
      {Escaped(query), Escaped(Token), std::to_string(pageNum), Flag(crossDomain)},
      {"queryStr", "Token", "pageNum", "crossDomain"}, "FindUsers2", WsUrl());
  if (NoReply(reply)) return std::nullopt;
  return WSUserDataArray(*reply);
}

WSUserDataArray CorvalinkWS::GetUsersToShare(const std::string& filter, bool internalOnly, bool externalOnly,
                                             const std::string& token) {
  std::string options = Leaf("Token", token) + Leaf("NewErrorCodes", "true") +
                        Leaf("OnlyExternalUsers", Flag(externalOnly)) + Leaf("OnlyInternalUsers", Flag(internalOnly)) +
                        Leaf("FilterInternalDuplicatesEx", "true") + Leaf("FilterQuery", filter);
  auto raw = WSCommonMethods::ProcessComposedRequest({{"Options", options}}, "GetUsersToShare", ShareServiceUrl());
  if (raw == WSCommonMethods::kBadStatusReply || raw.rfind("err", 0) == 0) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - GetUsersToShare -> " + raw);
    return WSUserDataArray("");
  }
  return WSUserDataArray(raw);
}

WSFilePropertyArray CorvalinkWS::GetFileList(const std::string& token) {
  return FileList("GetFileList", {Escaped(token)}, {"Token"});
}

WSFilePropertyArray CorvalinkWS::GetFileList(const std::string& token, const std::string& Path,
                                             const std::optional<std::string>& ShareId) {
  return FileList("GetFileList", {Escaped(token), Escaped(Path), Escaped(ShareId.value_or(""))},
                  {"Token", "Path", "ShareId"});
}

WSFilePropertyArray CorvalinkWS::GetMyFileList(const std::string& token) {
  return FileList("GetMyFileList", {Escaped(token)}, {"Token"});
}

WSFilePropertyArray CorvalinkWS::GetMyFileList(const std::string& token, const std::string& Path,
                                               const std::optional<std::string>& ShareId) {
  return FileList("GetMyFileList", {Escaped(token), Escaped(Path), Escaped(ShareId.value_or(""))},
                  {"Token", "Path", "ShareId"});
}

WSUsageHistoryArray CorvalinkWS::GetUsageHistory(const std::string& token, const std::string& pageNum) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(token), Escaped(pageNum)},
                                                             {"Token", "pageNum"}, "GetUsageHistory", WsUrl());
  return WSUsageHistoryArray(reply.value_or(""));
}

// --- Upload requests ---

namespace {

std::string IntList(const std::vector<std::string>& ids) {
  std::string list;
  for (const auto& id : ids) list += Leaf("int", id);
  return list;
}

}  // namespace

std::string CorvalinkWS::CreateUploadRequestWithRecipient(
    const std::vector<RecipientItem>& recipients, const std::string& Token, const std::string& WithSession,
    unsigned long WithValidity, unsigned long WithFileSize, const std::string& WithFileExtensions,
    long WithNumberOfUpload, const std::string& WithSubject, const std::string& WithOtpRequired,
    const std::string& WithMessageUpdate, const std::string& WithNotification,
    const std::string& WithCurrentSettings) {
  std::string people;
  for (const auto& r : recipients) {
    people += "<ExternalRecipient>" + Leaf("Fullname", r.fullname) + Leaf("Email", r.eMail) +
              Leaf("Mobile", r.mobile) + "</ExternalRecipient>";
  }
  // The empty text splits into one empty piece: one empty <string>.
  std::string extensions;
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = WithFileExtensions.find(',', start);
    extensions += Leaf("string", WithFileExtensions.substr(start, comma - start));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  WSCommonMethods::Parameters body = {{"Token", Escaped(Token)},
                                      {"Session", Escaped(WithSession)},
                                      {"Recipients", people},
                                      {"Validity", std::to_string(WithValidity)},
                                      {"FileSize", WithFileSize == 0 ? "-1" : std::to_string(WithFileSize)},
                                      {"FileExtensions", extensions},
                                      {"NumberOfUpload", std::to_string(WithNumberOfUpload)},
                                      {"Subject", Escaped(WithSubject)},
                                      {"OtpRequired", Escaped(WithOtpRequired)},
                                      {"Message", Escaped(WithMessageUpdate)},
                                      {"SendAllNotifications", Escaped(WithNotification)},
                                      {"UseCurrentSettings", Escaped(WithCurrentSettings)}};
  const std::string raw = WSCommonMethods::ProcessComposedRequest(body, "CreateUploadRequest", WsUrl());
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - CreateUploadRequestWithRecipient -> " + raw);
  // A refused exchange is no request made: the caller says so.
  if (raw == WSCommonMethods::kBadStatusReply) return raw;
  const std::string result = ComposedResult(raw, "CreateUploadRequestResult");
  if (result.empty() || result.front() == '0') return "";
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - CreateUploadRequestWithRecipient -> Upload request error: " +
                                     result);
  return result;
}

std::vector<CVUploadRequest> CorvalinkWS::GetUploadRequestsWithToken(const std::string& token) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(token)}, {"Token"}, "GetUploadRequests", WsUrl());
  if (NoReply(reply)) return {};
  return WSUploadRequestParser(*reply).GetFilePropertyCollection();
}

bool CorvalinkWS::DeleteUploadRequest(const std::string& token, const std::vector<std::string>& WithRequestID) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(token), IntList(WithRequestID)},
                                                             {"Token", "RequestIDs"}, "DeleteUploadRequest", WsUrl());
  const auto result = DataResult(reply, "DeleteUploadRequestResult");
  if (result && (*result == "0;" || *result == "0")) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - DeleteUploadRequest -> " + *result);
    return true;
  }
  CVEventLogger::WriteMainLogMessage(std::string("Error delete upload request result: ") + kClass +
                                     " - DeleteUploadRequest -> '" + result.value_or("") + "'");
  return false;
}

bool CorvalinkWS::ResendRequestEmail(const std::string& token, const std::vector<std::string>& SharedIDs) {
  auto reply = WSCommonMethods::ProcessDataWebServiceRequest({Escaped(token), IntList(SharedIDs)},
                                                             {"Token", "RequestIDs"}, "ResendRequestEmail", WsUrl());
  return Succeeded(DataResult(reply, "ResendRequestEmailResult"));
}
