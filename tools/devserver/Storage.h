#pragma once
// Storage: one storage location the server offers, kept as a plain folder tree
// on disk, with its location as clients see it (\\devserver\NAME\ for CIFS,
// https://devserver/NAME/ for the other types), its version store and the
// parts of uploads in progress; both live in the storage's state folder.
// StorageSet: all storages, and the resolution of a client's server path to a
// file in one of the user's storages. Nothing a client sends may reach outside
// a storage's folder: "." and ".." components, NUL bytes and symbolic links on
// the way are refused rather than interpreted.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PartHashCache.h"
#include "PendingUploads.h"
#include "ServerOptions.h"
#include "VersionStore.h"

namespace devserver {

// Splits a relative path on "/" and "\", skipping empty components. Nothing for
// a "." or ".." component or a NUL byte.
std::optional<std::vector<std::string>> SplitRelativePath(std::string_view path);
std::string JoinRelativePath(const std::vector<std::string>& components);

// Temporary files of the server that may appear in a storage's folder for a
// moment; listings never show them.
bool IsServerTemporaryName(std::string_view name);

// Storages of the kinds that live on Windows file shares and document libraries
// ("CIFS", "SP", "O365") keep names as those do: compared without case, each
// keeping the case it was made with, and refusing what Windows refuses.
bool KeepsShareNames(const std::string& storageType);
// Why a Windows share refuses name ("" when it takes it): the characters
// \ / : * ? " < > | and control characters, a final dot or space, a device name
// (CON, PRN, AUX, NUL, COM1-9, LPT1-9, in any case, with any extension).
std::string ShareRefusal(std::string_view name);

class Storage {
 public:
  // shareNames: names as a Windows share keeps them (see KeepsShareNames);
  // otherwise as a Linux folder does, case-sensitive and anything goes.
  Storage(StorageConfig config, std::filesystem::path stateFolder, const std::string& locationHost,
          bool shareNames);

  const std::string& name() const { return config_.name; }
  const std::string& type() const { return config_.type; }
  const StorageConfig& config() const { return config_; }
  bool isCifs() const;
  // The separator of this storage's server paths: "\" for CIFS, else "/".
  char separator() const { return isCifs() ? '\\' : '/'; }
  const std::string& location() const { return location_; }
  const std::filesystem::path& folder() const { return config_.folder; }
  const std::filesystem::path& stateFolder() const { return stateFolder_; }
  bool ServesUser(const std::string& user) const;
  bool shareNames() const { return shareNames_; }

  // The local path of checked components, when no symbolic link and no
  // non-folder lies on the way. The entry itself need not exist, but it must
  // not be a symbolic link. With share names a component takes the spelling of
  // the entry that matches it without case. existing: how many components,
  // from the first, name entries that exist.
  std::optional<std::filesystem::path> Resolve(std::vector<std::string>& components,
                                               std::size_t* existing = nullptr) const;
  // With share names: why a component that does not exist yet cannot be made
  // (ShareRefusal); "" when all can.
  std::string NewNameRefusal(const std::vector<std::string>& components, std::size_t existing) const;

  VersionStore& versions() { return versions_; }
  const VersionStore& versions() const { return versions_; }
  PendingUploads& pending() { return pending_; }
  PartHashCache& partHashes() { return partHashes_; }

  // A fresh name in the state folder's temporary area, on the same file system
  // as the pending parts; nothing is created at it.
  std::filesystem::path NewTemporaryPath();

  // Writes a file atomically, parents created; earlier content becomes a version.
  // `modified`: seconds since 1970 to give the file, else now. Throws on failure.
  void WriteFile(const std::string& relativePath, std::string_view content,
                 const std::string& owner, std::optional<std::int64_t> modified = std::nullopt);
  // Moves a prepared file (from NewTemporaryPath) into place atomically, parents
  // created; earlier content becomes a version. Names are the caller's to check
  // (NewNameRefusal): a test may put any name into the folder. The file is taken over: it is
  // gone afterwards, also when this throws. Modified time as for WriteFile.
  void InstallFile(const std::string& relativePath, const std::filesystem::path& prepared,
                   const std::string& owner, std::optional<std::int64_t> modified = std::nullopt);
  // Removes a file or a folder tree; each file removed is kept as a version.
  // False when there is nothing at the path.
  bool Remove(const std::string& relativePath, const std::string& owner);

  enum class MoveOutcome { Moved, SourceMissing, TargetExists, IntoItself, NameRefused };
  // Renames a file or a folder, the target's parents created; times and content
  // stay as they are. With share names a target that differs from the source in
  // case only renames it. Throws for a path that leaves the storage or names its root.
  MoveOutcome Move(const std::string& fromRelative, const std::string& toRelative);

  enum class FolderOutcome { Created, Existed, FileInTheWay, NameRefused };
  // The folder and its missing parents. Throws for a path that leaves the storage.
  FolderOutcome CreateFolder(const std::string& relativePath);

 private:
  std::filesystem::path CheckedPath(const std::string& relativePath, std::vector<std::string>& components,
                                    std::size_t* existing = nullptr) const;
  void KeepTree(const std::filesystem::path& local, const std::string& relative,
                const std::string& owner);

  StorageConfig config_;
  bool shareNames_;
  std::filesystem::path stateFolder_;
  std::string location_;
  VersionStore versions_;
  PendingUploads pending_;
  PartHashCache partHashes_;
  std::mutex writeMutex_;
};

// A client's server path, resolved.
struct ResolvedPath {
  Storage* storage = nullptr;
  std::vector<std::string> components;  // below the storage's folder; empty for its root
  std::string relative;                 // the same joined with "/"
  std::string requested;                // as the client spelled it, joined with "/"
  std::size_t existing = 0;             // leading components that name existing entries
  std::filesystem::path local;
};

class StorageSet {
 public:
  // Creates missing folders. Throws std::invalid_argument for bad settings.
  explicit StorageSet(const ServerOptions& options);

  Storage* Find(const std::string& name) const;
  std::vector<Storage*> ForUser(const std::string& user) const;

  // Resolves against the user's storage locations by case-insensitive prefix,
  // "/" and "\" alike. Nothing for a path outside every location, or one that
  // would leave the storage's folder.
  std::optional<ResolvedPath> Resolve(const std::string& user, std::string_view serverPath) const;

 private:
  std::vector<std::unique_ptr<Storage>> storages_;
};

}  // namespace devserver
