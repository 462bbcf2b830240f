// File methods of the mobile service that change the tree: MoveFile,
// DeleteFile, DeleteFolder, CreateFolder, and the versions a change keeps
// (GetVersions, SwitchToVersion). A deleted or replaced file stays as a version.

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "FileAccess.h"
#include "MethodTable.h"
#include "ResultTexts.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace devserver {
namespace {

constexpr const char* kRootRefused = "-5;The storage's root cannot be changed";
constexpr const char* kIsFolder = "-5;The path is a folder";
constexpr const char* kIsFile = "-5;The path is a file";
constexpr const char* kIntoItself = "-5;A folder cannot move into itself";

std::variant<FileTarget, SoapReply> Target(ServerState& state, const SoapCall& call,
                                           const char* param = "Path") {
  return ResolveCallTarget(state, call.Text("Token"), call.Text(param));
}

bool Restricted(ServerState& state, const ResolvedPath& path, bool withContent) {
  const auto& storage = path.storage->name();
  return state.restrictions().Covers(storage, path.relative) ||
         (withContent && state.restrictions().HasInside(storage, path.relative));
}

// A move stays within its storage (chosen): across storages there is no
// such file for the server.
SoapReply MoveFile(ServerState& state, const SoapCall& call) {
  auto from = Target(state, call, "CurrentFileName");
  if (auto* reply = std::get_if<SoapReply>(&from)) return *reply;
  auto to = Target(state, call, "NewFileName");
  if (auto* reply = std::get_if<SoapReply>(&to)) return *reply;
  const auto& source = std::get<FileTarget>(from).path;
  const auto& target = std::get<FileTarget>(to).path;
  if (source.storage != target.storage) return SoapReply::Text(kNotFound);
  if (source.components.empty() || target.components.empty()) {
    return SoapReply::Text(kRootRefused);
  }
  if (Restricted(state, source, true) || Restricted(state, target, false)) {
    return SoapReply::Text(kRestricted);
  }
  // The target as the client spelled it: a share may take it as a change of case.
  switch (source.storage->Move(source.relative, target.requested)) {
    case Storage::MoveOutcome::Moved:
      return SoapReply::Text(kDone);
    case Storage::MoveOutcome::SourceMissing:
      return SoapReply::Text(kNotFound);
    case Storage::MoveOutcome::TargetExists:
      return SoapReply::Text(kTargetExists);
    case Storage::MoveOutcome::IntoItself:
      return SoapReply::Text(kIntoItself);
    case Storage::MoveOutcome::NameRefused:
      return SoapReply::Text(kNameRefused);
  }
  return SoapReply::Text(kNotFound);
}

// Removes a file (wantFolder false) or a folder tree; what goes is kept as versions.
SoapReply Delete(ServerState& state, const SoapCall& call, bool wantFolder) {
  auto found = Target(state, call);
  if (auto* reply = std::get_if<SoapReply>(&found)) return *reply;
  const auto& target = std::get<FileTarget>(found);
  const auto& path = target.path;
  if (path.components.empty()) return SoapReply::Text(kRootRefused);
  if (Restricted(state, path, wantFolder)) return SoapReply::Text(kRestricted);
  const auto entry = StatEntry(path.local);
  if (!entry) return SoapReply::Text(kNotFound);
  // A delete of the other kind is refused rather than done: the client treats
  // "-6;" as done, and the item would stay.
  if (entry->isFolder != wantFolder) return SoapReply::Text(wantFolder ? kIsFile : kIsFolder);
  if (!path.storage->Remove(path.relative, target.owner.user)) return SoapReply::Text(kNotFound);
  return SoapReply::Text(kDone);
}

SoapReply DeleteFile(ServerState& state, const SoapCall& call) {
  return Delete(state, call, false);
}

SoapReply DeleteFolder(ServerState& state, const SoapCall& call) {
  return Delete(state, call, true);
}

// "0;" also when the folder exists; a file in its place is the Windows error
// the client knows from a rename onto an existing name.
SoapReply CreateFolder(ServerState& state, const SoapCall& call) {
  auto found = Target(state, call);
  if (auto* reply = std::get_if<SoapReply>(&found)) return *reply;
  const auto& path = std::get<FileTarget>(found).path;
  if (Restricted(state, path, false)) return SoapReply::Text(kRestricted);
  switch (path.storage->CreateFolder(path.relative)) {
    case Storage::FolderOutcome::Created:
    case Storage::FolderOutcome::Existed:
      return SoapReply::Text(kDone);
    case Storage::FolderOutcome::FileInTheWay:
      return SoapReply::Text(kTargetExists);
    case Storage::FolderOutcome::NameRefused:
      return SoapReply::Text(kNameRefused);
  }
  return SoapReply::Text(kTargetExists);
}


// StorageVersionInfo records, oldest first. Errors come as the result text
// alone, in which the client finds no record.
SoapReply GetVersions(ServerState& state, const SoapCall& call) {
  auto found = Target(state, call);
  if (auto* reply = std::get_if<SoapReply>(&found)) return *reply;
  const auto& path = std::get<FileTarget>(found).path;
  if (Restricted(state, path, false)) return SoapReply::Text(kRestricted);
  std::string fullPath = path.storage->location() + path.relative;
  for (auto& c : fullPath) {
    if (c == '/' || c == '\\') c = path.storage->separator();
  }
  std::string records;
  for (const auto& version : path.storage->versions().List(path.relative)) {
    records += "<StorageVersionInfo>" + XmlElement("Version", std::to_string(version.version)) +
               XmlElement("Created", MillisecondTimeText(version.createdMs)) +
               XmlElement("Size", std::to_string(version.size)) + XmlElement("Owner", version.owner) +
               XmlElement("FullPath", fullPath) + "</StorageVersionInfo>";
  }
  return SoapReply::Xml(records);
}

// The version's content becomes the file again; the content it replaces is
// kept as a version of its own, so that a switch can be undone.
SoapReply SwitchToVersion(ServerState& state, const SoapCall& call) {
  auto found = Target(state, call);
  if (auto* reply = std::get_if<SoapReply>(&found)) return *reply;
  const auto& target = std::get<FileTarget>(found);
  const auto& path = target.path;
  if (Restricted(state, path, false)) return SoapReply::Text(kRestricted);
  if (const auto entry = StatEntry(path.local); entry && entry->isFolder) {
    return SoapReply::Text(kIsFolder);
  }
  unsigned long long number = 0;
  std::optional<std::filesystem::path> content;
  if (ParseUnsigned(call.Text("Version"), number) && number < 1'000'000'000) {
    content = path.storage->versions().ContentOf(path.relative, static_cast<int>(number));
  }
  if (!content) return SoapReply::Text(kVersionNotFound);
  const auto prepared = path.storage->NewTemporaryPath();
  std::filesystem::copy_file(*content, prepared);
  path.storage->InstallFile(path.relative, prepared, target.owner.user);
  return SoapReply::Text(kDone);
}

}  // namespace

void AddFileChangeMethods(MethodTable& table) {
  table.Add(Endpoint::Mobile, "MoveFile", MoveFile);
  table.Add(Endpoint::Mobile, "DeleteFile", DeleteFile);
  table.Add(Endpoint::Mobile, "DeleteFolder", DeleteFolder);
  table.Add(Endpoint::Mobile, "CreateFolder", CreateFolder);
  table.Add(Endpoint::Mobile, "GetVersions", GetVersions);
  table.Add(Endpoint::Mobile, "SwitchToVersion", SwitchToVersion);
}

}  // namespace devserver
