// Share service methods beyond the login: GetSharedStorages, the storages the
// user reaches that are shared.

#include "MethodTable.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace devserver {
namespace {

std::string Element(const std::string& name, const std::string& text) {
  return "<" + name + ">" + EscapeXmlText(text) + "</" + name + ">";
}

// The value of one child of the Options record; "" when it is missing.
std::string OptionText(const SoapCall& call, const std::string& child) {
  if (const auto* options = call.Find("Options")) {
    for (const auto& [name, text] : options->children) {
      if (name == child) return text;
    }
  }
  return "";
}

// Options{Token, ByRecipient, Detailed, CalculateFolderSize, RefreshCache, Path,
// NewErrorCodes}. The other options change nothing here (chosen): every shared
// storage is listed, with its location. A storage counts as shared when it is
// open to every user or to more than one (chosen). Errors come as ResultCode
// alone, in the new error codes: "-1" for a bad token.
SoapReply GetSharedStorages(ServerState& state, const SoapCall& call) {
  const auto owner = state.TokenUser(OptionText(call, "Token"));
  if (!owner || owner->kind != TokenKind::Main) {
    return SoapReply::Xml(Element("ResultCode", "-1"));
  }
  std::string storages;
  const auto& configured = state.options().storages;
  for (std::size_t i = 0; i < configured.size(); ++i) {
    const auto* storage = state.storages().Find(configured[i].name);
    if (!storage || !storage->ServesUser(owner->user)) continue;
    const auto& users = storage->config().users;
    if (!users.empty() && users.size() < 2) continue;
    // The position among the configured storages: stable for the server's run.
    storages += "<SharedStorage>" + Element("SharedStorageId", std::to_string(i + 1)) +
                Element("StorageName", storage->name()) + Element("StorageUrl", storage->location()) +
                Element("StorageType", storage->type()) + "</SharedStorage>";
  }
  return SoapReply::Xml(Element("ResultCode", "0") + "<SharedStorages>" + storages + "</SharedStorages>");
}

}  // namespace

void AddShareMethods(MethodTable& table) {
  table.Add(Endpoint::Share, "GetSharedStorages", GetSharedStorages);
}

}  // namespace devserver
