// Upload requests: CreateUploadRequest, GetUploadRequests, DeleteUploadRequest,
// ResendRequestEmail; and SimulateExternalUpload, a call of this server alone
// that stands for an outside person sending a file through a request.
//
// Choices where the client leaves the server open (chosen):
// - One request per recipient, all of one call in one session with its own id.
//   A request's files land in UploadRequest/<Session>/<recipient's address> in
//   the owner's first storage; GetFiles with a request's token (LoginEx) and an
//   empty Path lists that folder.
// - Session names and addresses that cannot be one folder name are refused with
//   "-5;Invalid name"; an unknown id in a list is left out, "-6;..." when none is known.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <sstream>

#include "FileAccess.h"
#include "MethodTable.h"
#include "ResultTexts.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace devserver {
namespace {

std::optional<std::string> MainUser(const ServerState& state, const std::string& token) {
  const auto owner = state.TokenUser(token);
  if (!owner || owner->kind != TokenKind::Main) return std::nullopt;
  return owner->user;
}

std::string UtcText(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  return text;
}

std::vector<int> RequestIds(const SoapCall& call) {
  std::vector<int> ids;
  if (const auto* list = call.Find("RequestIDs")) {
    for (const auto& child : list->tree.children) {
      int id = 0;
      if (std::sscanf(child.text.c_str(), "%d", &id) == 1) ids.push_back(id);
    }
  }
  return ids;
}

// Token, Session, Recipients{ExternalRecipient{Fullname, Email, Mobile}},
// Validity (minutes), FileSize, FileExtensions{string}, NumberOfUpload,
// Subject, OtpRequired, Message, SendAllNotifications, UseCurrentSettings.
SoapReply CreateUploadRequest(ServerState& state, const SoapCall& call) {
  const auto owner = MainUser(state, call.Text("Token"));
  if (!owner) return SoapReply::Text(kInvalidToken);
  const Storage* storage = nullptr;
  for (const auto& config : state.options().storages) {
    const auto* candidate = state.storages().Find(config.name);
    if (candidate && candidate->ServesUser(*owner)) {
      storage = candidate;
      break;
    }
  }
  if (!storage) return SoapReply::Text("-6;No storage for the uploads;");
  const auto recipients = call.Find("Recipients");
  if (!recipients || recipients->tree.children.empty()) return SoapReply::Text("-4;No recipient;");
  std::string extensions;
  if (const auto* list = call.Find("FileExtensions")) {
    for (const auto& child : list->tree.children) {
      if (!child.text.empty()) extensions += (extensions.empty() ? "" : ",") + child.text;
    }
  }
  long minutes = 0, uploads = -1;
  std::sscanf(call.Text("Validity").c_str(), "%ld", &minutes);
  std::sscanf(call.Text("NumberOfUpload").c_str(), "%ld", &uploads);
  const auto now = std::chrono::system_clock::now();
  const std::string session = call.Text("Session"), sessionId = NewLowerGuid();
  std::vector<UploadRequestRecord> records;
  for (const auto& r : recipients->tree.children) {
    UploadRequestRecord record;
    record.guid = NewLowerGuid();
    record.owner = *owner;
    record.session = session;
    record.sessionId = sessionId;
    record.recipientName = r.ChildText("Fullname");
    record.recipientEmail = r.ChildText("Email");
    record.recipientMobile = r.ChildText("Mobile");
    record.extensions = extensions;
    record.numberOfUpload = uploads;
    record.fileSize = call.Text("FileSize");
    record.createdAt = UtcText(now);
    record.expireAt = UtcText(now + std::chrono::minutes(minutes));
    record.notification = call.Text("SendAllNotifications");
    record.storage = storage->name();
    const auto folder = SplitRelativePath("UploadRequest/" + session + "/" + record.recipientEmail);
    if (session.empty() || record.recipientEmail.empty() || !folder || folder->size() != 3) {
      return SoapReply::Text("-5;Invalid name;");
    }
    record.folder = JoinRelativePath(*folder);
    records.push_back(record);
  }
  for (const auto& record : state.uploadRequestStore().Add(std::move(records))) {
    state.AddUploadRequest(record.guid, record.owner);
  }
  return SoapReply::Text(kDone);
}

std::string Record(const UploadRequestRecord& r, const std::string& location) {
  return "<UploadRequest>" + XmlElement("RequestId", std::to_string(r.id)) + XmlElement("Session", r.session) +
         XmlElement("Path", location) + XmlElement("PathType", "Storage") + XmlElement("OwnerName", r.owner) +
         XmlElement("OwnerEmail", r.owner) + XmlElement("RecipientName", r.recipientName) +
         XmlElement("RecipientEmail", r.recipientEmail) + XmlElement("RecipientMobile", r.recipientMobile) +
         XmlElement("FileExtensions", r.extensions) + XmlElement("NumberOfUpload", std::to_string(r.numberOfUpload)) +
         XmlElement("FileSize", r.fileSize) + XmlElement("CreatedAt", r.createdAt) +
         XmlElement("ExpireAt", r.expireAt) + XmlElement("guid", r.guid) + XmlElement("SessionId", r.sessionId) +
         XmlElement("NotificationState", r.notification) + "</UploadRequest>";
}

SoapReply GetUploadRequests(ServerState& state, const SoapCall& call) {
  const auto owner = MainUser(state, call.Text("Token"));
  if (!owner) return SoapReply::Text(kInvalidToken);
  std::string records;
  for (const auto& r : state.uploadRequestStore().OwnedBy(*owner)) {
    records += Record(r, UploadRequestLocation(state, r.guid));
  }
  return SoapReply::Xml(records);
}

// "0;" when the call touched one of the owner's requests, else notFound: the
// resend's client reads only "-1;" as a failure, so it hears "-1;" (chosen).
template <typename Change>
SoapReply OnRequests(ServerState& state, const SoapCall& call, Change change,
                     const char* notFound = "-6;Upload request not found;") {
  const auto owner = MainUser(state, call.Text("Token"));
  if (!owner) return SoapReply::Text(kInvalidToken);
  return SoapReply::Text(change(*owner, RequestIds(call)) > 0 ? kDone : notFound);
}

SoapReply DeleteUploadRequest(ServerState& state, const SoapCall& call) {
  return OnRequests(state, call, [&](const std::string& owner, const std::vector<int>& ids) {
    return state.uploadRequestStore().Remove(owner, ids);
  });
}

SoapReply ResendRequestEmail(ServerState& state, const SoapCall& call) {
  return OnRequests(
      state, call,
      [&](const std::string& owner, const std::vector<int>& ids) {
        return state.uploadRequestStore().Resend(owner, ids);
      },
      "-1;Upload request not found;");
}

// RequestId, FileName, Content: the file as an outside person would send it.
// No token: a test stands for someone who has only the request's link.
SoapReply SimulateExternalUpload(ServerState& state, const SoapCall& call) {
  int id = 0;
  std::sscanf(call.Text("RequestId").c_str(), "%d", &id);
  const auto request = state.uploadRequestStore().FindId(id);
  if (!request) return SoapReply::Text(kUploadRequestNotFound);
  auto* storage = state.storages().Find(request->storage);
  const auto name = SplitRelativePath(call.Text("FileName"));
  if (!storage || !name || name->size() != 1) return SoapReply::Text("-5;Invalid name;");
  storage->WriteFile(request->folder + "/" + name->front(), call.Text("Content"), request->recipientEmail,
                     std::nullopt);
  return SoapReply::Text(kDone);
}

}  // namespace

std::string UploadRequestLocation(ServerState& state, const std::string& guid) {
  const auto request = state.uploadRequestStore().FindGuid(guid);
  const auto* storage = request ? state.storages().Find(request->storage) : nullptr;
  if (!storage) return "";
  std::string relative = request->folder;
  if (storage->separator() == '\\') std::replace(relative.begin(), relative.end(), '/', '\\');
  return storage->location() + relative;
}

void AddUploadRequestMethods(MethodTable& table) {
  table.Add(Endpoint::Main, "CreateUploadRequest", CreateUploadRequest);
  table.Add(Endpoint::Main, "GetUploadRequests", GetUploadRequests);
  table.Add(Endpoint::Main, "DeleteUploadRequest", DeleteUploadRequest);
  table.Add(Endpoint::Main, "ResendRequestEmail", ResendRequestEmail);
  table.Add(Endpoint::Main, "SimulateExternalUpload", SimulateExternalUpload);
}

}  // namespace devserver
