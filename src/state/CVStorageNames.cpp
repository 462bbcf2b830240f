#include "CVStorageNames.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace fs = std::filesystem;

namespace {
// A folder of that name that nothing stands at yet: "name", then "name (2)"...
std::string FreeName(const std::string& path) {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(path, error))) return path;
  for (int n = 2;; ++n) {
    std::string candidate = path + " (" + std::to_string(n) + ")";
    if (!fs::exists(fs::symlink_status(candidate, error))) return candidate;
  }
}
}  // namespace

bool CVStorageNames::IsReservedName(const std::string& name) {
  std::string lower = CVStaticHelpers::AsciiLower(name);
  return lower == "shared in" || lower == "shared out" || lower == "external user uploads";
}

std::optional<std::string> CVStorageNames::Problem(const std::string& name) {
  if (name.empty()) return "a storage needs a name";
  if (name.size() > kMaxNameBytes) return "a storage name can be at most 255 bytes long";
  if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos) {
    return "a storage name cannot hold \"/\"";
  }
  if (name.front() == '.') return "a storage name cannot start with \".\"";
  if (IsReservedName(name)) return "\"" + name + "\" is the name of a folder of Corvalink Sync itself";
  return std::nullopt;
}

bool CVStorageNames::RemoveStorageFolder(const std::string& name) {
  if (auto problem = Problem(name)) {
    CVEventLogger::WriteMainLogMessage("RemoveStorageFolder: \"" + name + "\" is not a storage name (" + *problem +
                                       "); nothing is moved");
    return false;
  }
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  const std::string folder = root + "/" + name;
  struct stat info {};
  if (lstat(folder.c_str(), &info) != 0) return true;  // nothing stands there
  if (!S_ISDIR(info.st_mode)) {
    CVEventLogger::WriteMainLogMessage("RemoveStorageFolder: " + folder + " is not a folder; it is left as it is");
    return false;
  }
  if (CVStaticHelpers::MoveFileToTrash(folder)) return true;

  // The Trash refused it (another file system without a trash, a full disk):
  // out of the way, but never away.
  std::error_code error;
  const std::string keep = root + "/.previous-account-" + CVEventLogger::DayText();
  fs::create_directories(keep, error);
  const std::string target = FreeName(keep + "/" + name);
  fs::rename(folder, target, error);
  if (error) {
    CVEventLogger::LogException("CVStorageNames", "RemoveStorageFolder",
                                "moving " + folder + " to " + target + " failed: " + error.message());
    return false;
  }
  CVEventLogger::WriteMainLogMessage("RemoveStorageFolder: the Trash refused " + folder + "; it was moved to " +
                                     target);
  return true;
}
