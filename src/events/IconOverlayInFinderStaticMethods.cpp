#include "IconOverlayInFinderStaticMethods.h"

#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kSettingsFolder = ".Settings";

// Made on first use, never destroyed: writers on other threads may still call
// in while the process ends.
struct PendingRedraws {
  std::mutex lock;
  std::set<std::string> paths;
  bool taken = false;       // the file manager side has asked for them at least once
  bool toldNobody = false;  // the log line about nobody taking them has been written
};

PendingRedraws& Pending() {
  static auto* pending = new PendingRedraws();
  return *pending;
}

void LogError(const char* method, const std::string& description) {
  CVEventLogger::WriteMainLogMessage(std::string("(ERROR)IconOverlayInFinderStaticMethods->") + method +
                                     ":" + description);
}

// The part of path below the storages root, without a final "/"; "" when the
// path has no clone. A "." or ".." part could point the clone anywhere, and the
// settings folder is not a storage.
std::string RelativeToStorages(const std::string& path) {
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  if (root.empty() || path.size() <= root.size() + 1 || path.compare(0, root.size(), root) != 0 ||
      path[root.size()] != '/') {
    return "";
  }
  std::string rest = path.substr(root.size() + 1);
  while (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (rest.empty()) return "";
  std::string_view remaining = rest;
  bool first = true;
  while (!remaining.empty()) {
    std::size_t slash = remaining.find('/');
    std::string_view part = remaining.substr(0, slash);
    if (part == "." || part == "..") return "";
    if (first && part == kSettingsFolder) return "";
    first = false;
    if (slash == std::string_view::npos) break;
    remaining.remove_prefix(slash + 1);
  }
  return rest;
}

bool Exists(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

// The clone folder's parents, with ".Settings" made first so that it gets its
// private mode.
void CreateParentsOf(const fs::path& clone) {
  fs::path parent = clone.parent_path();
  if (fs::is_directory(parent)) return;
  CVStaticHelpers::CreateSettingsFolder();
  fs::create_directories(parent);
}

}  // namespace

std::string IconOverlayInFinderStaticMethods::ClonnedTreeRoot() {
  return CVStaticHelpers::GenerateRootPath() + "/" + kSettingsFolder + "/.Hash";
}

std::string IconOverlayInFinderStaticMethods::GetClonnedFilePath(const std::string& path) {
  std::string relative = RelativeToStorages(path);
  if (relative.empty()) return path;
  return ClonnedTreeRoot() + "/" + relative;
}

bool IconOverlayInFinderStaticMethods::CheckClonnedFileExistence(const std::string& path) {
  if (RelativeToStorages(path).empty()) return false;
  return Exists(GetClonnedFilePath(path));
}

void IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(const std::string& path,
                                                                          const std::string& state,
                                                                          bool isDir) {
  try {
    const std::string content = state == "0" ? "" : state;
    if (RelativeToStorages(path).empty()) return;
    const fs::path clone = GetClonnedFilePath(path);
    CreateParentsOf(clone);
    // A file's clone is written over in place: a new file for each state would
    // cost an inode per change of every file the sync touches.
    std::error_code error;
    const bool fileThere = fs::is_regular_file(fs::symlink_status(clone, error));
    if (Exists(clone) && (isDir || !fileThere)) fs::remove_all(clone);
    if (isDir) {
      fs::create_directories(clone);
      return;
    }
    std::ofstream out(clone, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot create " + clone.string());
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + clone.string());
  } catch (const std::exception& exception) {
    LogError("WriteFileStateToClonnedTreeForPath", exception.what());
  }
}

void IconOverlayInFinderStaticMethods::CreateClonnedFolder(const std::string& path) {
  try {
    if (RelativeToStorages(path).empty()) return;
    const fs::path clone = GetClonnedFilePath(path);
    if (Exists(clone)) return;
    CreateParentsOf(clone);
    fs::create_directories(clone);
  } catch (const std::exception& exception) {
    LogError("CreateClonnedFolder", exception.what());
  }
}

void IconOverlayInFinderStaticMethods::RemoveFromClonnedPathsTree(const std::string& path) {
  try {
    if (RelativeToStorages(path).empty()) return;
    const fs::path clone = GetClonnedFilePath(path);
    if (!Exists(clone)) return;
    fs::remove_all(clone);
  } catch (const std::exception& exception) {
    LogError("RemoveFromClonnedPathsTree", exception.what());
  }
}

void IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(const std::string& path) {
  bool tell = false;
  {
    PendingRedraws& pending = Pending();
    std::lock_guard<std::mutex> lock(pending.lock);
    pending.paths.insert(path);
    if (!pending.taken && !pending.toldNobody) {
      pending.toldNobody = true;
      tell = true;
    }
  }
  // Outside the lock: logging writes a file.
  if (tell) {
    CVEventLogger::WriteMainLogMessage(
        "IconOverlayInFinderStaticMethods - RefreshFinderUsingScriptBridge -> redraws are kept for "
        "the file manager, nothing takes them yet");
  }
}

std::set<std::string> IconOverlayInFinderStaticMethods::TakePendingRedraws() {
  PendingRedraws& pending = Pending();
  std::lock_guard<std::mutex> lock(pending.lock);
  pending.taken = true;
  std::set<std::string> taken;
  taken.swap(pending.paths);
  return taken;
}

std::size_t IconOverlayInFinderStaticMethods::PendingRedrawCount() {
  PendingRedraws& pending = Pending();
  std::lock_guard<std::mutex> lock(pending.lock);
  return pending.paths.size();
}

void IconOverlayInFinderStaticMethods::ResetForTests() {
  PendingRedraws& pending = Pending();
  std::lock_guard<std::mutex> lock(pending.lock);
  pending.paths.clear();
  pending.taken = false;
  pending.toldNobody = false;
}
