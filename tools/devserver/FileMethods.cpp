// File methods of the mobile service that read the tree: GetFileInfo and the
// listing, GetFiles.

#include <algorithm>
#include <filesystem>
#include <vector>

#include "FileAccess.h"
#include "MethodTable.h"
#include "ResultTexts.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace fs = std::filesystem;

namespace devserver {
namespace {

constexpr const char* kUnlistableName = "-10000;A name in the folder cannot be listed";

// The call's target, or the reply that ends the call.
std::variant<FileTarget, SoapReply> Target(ServerState& state, const SoapCall& call) {
  return ResolveCallTarget(state, call.Text("Token"), call.Text("Path"));
}

// xs:boolean, as the service description types the parameter.
std::optional<bool> ParseBoolean(const std::string& text) {
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  return std::nullopt;
}

SoapReply GetFileInfo(ServerState& state, const SoapCall& call) {
  auto target = Target(state, call);
  if (auto* reply = std::get_if<SoapReply>(&target)) return *reply;
  const auto& path = std::get<FileTarget>(target).path;
  if (state.restrictions().Covers(path.storage->name(), path.relative)) {
    return SoapReply::Text(kRestricted);
  }
  const auto entry = StatEntry(path.local);
  if (!entry) return SoapReply::Text(kNotFound);
  // Field 3 is the same number as the listing's field 2.
  return SoapReply::Text(std::string("0;") + (entry->isFolder ? "D" : "F") + ";" +
                         std::to_string(entry->size) + ";" + std::to_string(entry->modified));
}

struct Listing {
  std::vector<std::string> entries;
  const char* failure = nullptr;  // set: no list at all
};

// Appends the entries under `local` in name order, folders before their
// contents. Links and special files are not part of a storage and are left out.
void ListFolder(const fs::path& local, const std::string& listedPrefix, char separator,
                bool recursive, Listing& listing) {
  std::error_code ec;
  std::vector<fs::path> children;
  for (fs::directory_iterator it(local, ec), end; !ec && it != end; it.increment(ec)) {
    children.push_back(it->path());
  }
  if (ec) {
    listing.failure = kListingFailed;
    return;
  }
  std::sort(children.begin(), children.end());
  for (const auto& child : children) {
    const auto name = child.filename().string();
    if (IsServerTemporaryName(name)) continue;
    const auto entry = StatEntry(child);
    if (!entry) continue;
    // A name holding the separator would read back as two components.
    if (name.find(separator) != std::string::npos) {
      listing.failure = kUnlistableName;
      return;
    }
    const auto serverPath = listedPrefix + name;
    listing.entries.push_back(
        "0:" + std::to_string(entry->size) + ":" + std::to_string(entry->modified) + ":" +
        (entry->isFolder ? "D" : "F") + ":0:" + PercentEncode(serverPath, separator));
    if (recursive && entry->isFolder) {
      ListFolder(child, serverPath + separator, separator, recursive, listing);
      if (listing.failure) return;
    }
  }
}

// "0;" and the entries joined by ";", each "0:size:modified:D|F:0:path" with the
// path percent-encoded and beginning with the Path as it was sent. A listing is
// whole or not at all: a client takes a missing entry for a deleted file.
SoapReply GetFiles(ServerState& state, const SoapCall& call) {
  // An upload request's token with no path: the folder of what came in.
  std::string requested = call.Text("Path");
  const auto owner = state.TokenUser(call.Text("Token"));
  if (requested.empty() && owner && owner->kind == TokenKind::UploadRequest) {
    requested = UploadRequestLocation(state, owner->scope);
  }
  auto target = ResolveCallTarget(state, call.Text("Token"), requested);
  if (auto* reply = std::get_if<SoapReply>(&target)) return *reply;
  const auto& path = std::get<FileTarget>(target).path;
  const auto recursive = ParseBoolean(call.Text("IsRecursive"));
  if (!recursive) return SoapReply::ClientFault("IsRecursive is not a boolean.");

  const auto& storageName = path.storage->name();
  // A recursive listing that would have to leave out a restricted folder is
  // refused whole; one level shows the restricted child, and refuses its content.
  if (state.restrictions().Covers(storageName, path.relative) ||
      (*recursive && state.restrictions().HasInside(storageName, path.relative))) {
    return SoapReply::Text(kRestricted);
  }
  const auto entry = StatEntry(path.local);
  if (!entry || !entry->isFolder) return SoapReply::Text(kNotFound);

  const char separator = path.storage->separator();
  std::string prefix = requested;
  if (prefix.empty() || (prefix.back() != '/' && prefix.back() != '\\')) prefix += separator;
  Listing listing;
  ListFolder(path.local, prefix, separator, *recursive, listing);
  if (listing.failure) return SoapReply::Text(listing.failure);

  std::string result = "0;";
  for (std::size_t i = 0; i < listing.entries.size(); ++i) {
    if (i > 0) result += ';';
    result += listing.entries[i];
  }
  return SoapReply::Text(std::move(result));
}

}  // namespace

void AddFileMethods(MethodTable& table) {
  table.Add(Endpoint::Mobile, "GetFileInfo", GetFileInfo);
  table.Add(Endpoint::Mobile, "GetFiles", GetFiles);
}

}  // namespace devserver
