#pragma once
// CVStaticHelpers: stateless helpers that map between local paths, server paths
// and storages, and the places of the client's own files.

#include <cstdint>
#include <string>

class CVStaticHelpers {
 public:
  // The home folder: $HOME, else the password database's entry.
  static std::string HomeFolder();
  // "~/Corvalink", without a final "/".
  static std::string GenerateRootPath();
  // The same path; storages are looked up through this name.
  static std::string GenerateRootPathForStorages();
  // Root + "/.Settings".
  static std::string GenerateSettingsPath();
  // Makes ".Settings" (mode 0700) where it is missing; true when it stands.
  static bool CreateSettingsFolder();
  // Local time of seconds since 1970 as "dd/MM/yyyy HH:mm:ss", as tool tips show it.
  static std::string FormatDateTime(std::int64_t secondsSince1970);
};
