#pragma once
// CVStorageNames: the one check of a storage's name, and the one way a storage's
// folder leaves the storages root. A storage's name becomes a folder directly
// below ~/Corvalink, so the policy, the storage sheet, the command line and the
// file manager commands all judge a name here, and nothing else may trash a
// storage folder: a name that slipped past would point somewhere else.

#include <optional>
#include <string>

class CVStorageNames {
 public:
  static constexpr std::size_t kMaxNameBytes = 255;

  // Why the name cannot be a storage's, or nothing when it can: not empty, no
  // "/" or NUL, not "." or "..", no leading ".", not one of the client's own
  // folders ("Shared In", "Shared Out", "External user uploads") in any case, at
  // most 255 bytes.
  static std::optional<std::string> Problem(const std::string& name);
  static bool IsValid(const std::string& name) { return !Problem(name); }

  // True for the names of the client's own folders beside the storages, in any case.
  static bool IsReservedName(const std::string& name);

  // Moves the folder of the storage to the Trash. Only a real folder (not a link)
  // standing directly below the storages root is moved; when the Trash refuses it,
  // it goes to ~/Corvalink/.previous-account-<yyyy-MM-dd>/ (or that name with
  // " (N)"), so that it is never taken for a storage again. True when nothing of
  // it is left under the storage's name; false (logged) otherwise.
  static bool RemoveStorageFolder(const std::string& name);
};
