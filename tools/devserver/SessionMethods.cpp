// Session methods: logins of the three kinds, the version, the device status and
// the system configuration.

#include "MethodTable.h"
#include "ResultTexts.h"
#include "ServerState.h"

namespace devserver {
namespace {

std::string MainLogin(ServerState& state, const std::string& username,
                      const std::string& password) {
  // Failures are counted per name, as a directory counts them before it locks.
  if (state.IsLoginLocked(username)) return kAccountLocked;
  const auto* user = state.FindUser(username);
  if (!user || user->password != password) {
    state.Log("login of '" + username + "' refused (" + std::to_string(state.LoginFailures(username) + 1) +
              " in a row)");
    return state.NoteLoginFailure(username) ? kAccountLocked : kLoginFailed;
  }
  state.NoteLoginSuccess(username);
  // A main token is the bare GUID, with no "0;" before it.
  return state.tokens().Issue(user->name, TokenKind::Main);
}

std::optional<TokenInfo> MainTokenUser(ServerState& state, const SoapCall& call,
                                       const std::string& param) {
  auto info = state.TokenUser(call.Text(param));
  if (!info || info->kind != TokenKind::Main) return std::nullopt;
  return info;
}

// Login, the older form on the main service: the device's fields as parameters.
SoapReply LoginOlder(ServerState& state, const SoapCall& call) {
  return SoapReply::Text(MainLogin(state, call.Text("Username"), call.Text("Password")));
}

// Login, the newer form on the share service: the device's fields in Options.
SoapReply LoginNewer(ServerState& state, const SoapCall& call) {
  // A server older than 6.0.71 has no such method; answering it as such keeps a
  // client that ignores the version from passing against this server.
  if (!state.HasNewerLogin()) {
    return SoapReply::ClientFault("Server did not recognize the method 'Login'.");
  }
  return SoapReply::Text(MainLogin(state, call.Text("Username"), call.Text("Password")));
}

SoapReply GetVersion(ServerState& state, const SoapCall&) {
  return SoapReply::Text(state.versionReply());
}

SoapReply GetDeviceStatus(ServerState& state, const SoapCall& call) {
  const auto owner = MainTokenUser(state, call, "Token");
  return SoapReply::Text(owner ? state.DeviceStatusFor(owner->user) : kInvalidToken);
}

// The policy: a document of its own, carried as the result's text.
SoapReply GetDefaultSettings2(ServerState& state, const SoapCall& call) {
  const auto owner = MainTokenUser(state, call, "Token");
  return SoapReply::Text(owner ? state.PolicyFor(owner->user) : kInvalidToken);
}

// Login on the mobile service: a storage token for one storage location. The
// credentials checked are the storage's own when it has them, else the
// account's; a mismatch is "-2;", kept apart from "-1;" (a bad main token),
// which makes the client log in again on the main service.
SoapReply LoginStorage(ServerState& state, const SoapCall& call) {
  const auto owner = MainTokenUser(state, call, "CVToken");
  if (!owner) return SoapReply::Text(kInvalidToken);
  const auto target = state.storages().Resolve(owner->user, call.Text("StorageUrl"));
  if (!target) return SoapReply::Text(kNotFound);
  const Storage& storage = *target->storage;
  const UserAccount* expected =
      storage.config().credentials ? &*storage.config().credentials : state.FindUser(owner->user);
  if (!expected || call.Text("Username") != expected->name ||
      call.Text("Password") != expected->password) {
    return SoapReply::Text(kStorageLoginFailed);
  }
  return SoapReply::Text("0;" +
                         state.tokens().Issue(owner->user, TokenKind::Storage, storage.name()));
}

// LoginEx: a token for an upload request of the user.
SoapReply LoginEx(ServerState& state, const SoapCall& call) {
  const auto owner = MainTokenUser(state, call, "CVToken");
  if (!owner) return SoapReply::Text(kInvalidToken);
  const auto guid = call.Text("ExternalGuid");
  const auto requestUser = state.UploadRequestUser(guid);
  if (!requestUser || *requestUser != owner->user) return SoapReply::Text(kUploadRequestNotFound);
  return SoapReply::Text("0;" + state.tokens().Issue(owner->user, TokenKind::UploadRequest, guid));
}

// Five fields: "0;0;<extensions>;<part size in KB>;0". The client reads the
// extensions from field 2 and the part size from field 3.
SoapReply GetSystemConfig(ServerState& state, const SoapCall& call) {
  if (!state.TokenUser(call.Text("Token"))) return SoapReply::Text(kInvalidToken);
  const auto& options = state.options();
  return SoapReply::Text("0;0;" + options.compressedTypes + ";" +
                         std::to_string(options.partSizeKb) + ";0");
}

}  // namespace

void AddSessionMethods(MethodTable& table) {
  table.Add(Endpoint::Main, "Login", LoginOlder);
  table.Add(Endpoint::Share, "Login", LoginNewer);
  table.Add(Endpoint::Main, "GetVersion", GetVersion);
  table.Add(Endpoint::Main, "GetDeviceStatus", GetDeviceStatus);
  table.Add(Endpoint::Main, "GetDefaultSettings2", GetDefaultSettings2);
  table.Add(Endpoint::Mobile, "Login", LoginStorage);
  table.Add(Endpoint::Mobile, "LoginEx", LoginEx);
  table.Add(Endpoint::Mobile, "GetSystemConfig", GetSystemConfig);
}

}  // namespace devserver
