#pragma once
// HeldBackNames: the items that stay on one side because the other cannot hold
// their names: a local item whose name the server's storage refuses or takes
// for another item's (a case clash), or a server item whose name is too long
// for this file system. Each comes with its reason and, where one helps, a name
// the user could rename it to. Kept in ".Settings/HeldBackNames.xml", rewritten
// atomically at each change and read back at start, so that the command line's
// `status` can list them from the file whether a client runs or not
// (ReadFile). Process-wide; any thread.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct HeldBackName {
  std::string localPath;
  std::string reason;      // for the user: why the item stays where it is
  std::string suggestion;  // a name the item could take, "" when none would help
  bool fromServer = false;  // a server item this computer cannot hold
  std::int64_t since = 0;   // seconds since 1970
};

class HeldBackNames {
 public:
  static HeldBackNames& Instance();
  // Tests start from an empty store that has not read its file.
  static void ResetForTests();
  // Root + "/.Settings/HeldBackNames.xml".
  static std::string FilePath();
  // The entries as the file holds them, in their order; empty when there is
  // none or it cannot be read (logged).
  static std::vector<HeldBackName> ReadFile();

  // One line for the user: what stays where, why, and what would help.
  static std::string Describe(const HeldBackName& name);

  // Takes the file's entries (the store reads it on first use too).
  void Load();
  // Adds the entry, or updates the one of its path. True when the path was not
  // held back for this reason before: the user is to be told.
  bool Hold(HeldBackName name);
  // Drops the entries of path and of everything below it; true when there were any.
  bool Release(const std::string& path);
  // The entry that holds path back: its own, or a folder's above it.
  std::optional<HeldBackName> Find(const std::string& path);
  std::vector<HeldBackName> All();

 private:
  HeldBackNames() = default;
  void EnsureLoaded();
  // Writes the entries; false (logged) when the file stays as it was.
  bool Save(const std::vector<HeldBackName>& names);

  std::mutex lock_;  // held across each change and its save, so saves keep the order of changes
  bool loaded_ = false;
  std::vector<HeldBackName> names_;
};
