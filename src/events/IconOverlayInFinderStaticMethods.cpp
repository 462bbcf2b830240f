#include "IconOverlayInFinderStaticMethods.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
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

// The clone's parents, with ".Settings" made first so that it gets its private
// mode. A file clone where a folder now stands (the item changed its kind) is
// replaced by the folder.
void CreateParentsOf(const fs::path& clone) {
  const fs::path parent = clone.parent_path();
  if (fs::is_directory(parent)) return;
  CVStaticHelpers::CreateSettingsFolder();
  std::error_code error;
  if (fs::create_directories(parent, error) || fs::is_directory(parent)) return;
  fs::path folder = IconOverlayInFinderStaticMethods::ClonnedTreeRoot();
  for (const auto& part : fs::relative(parent, folder)) {
    folder /= part;
    const auto status = fs::symlink_status(folder);
    if (fs::exists(status) && !fs::is_directory(status)) fs::remove(folder);
  }
  fs::create_directories(parent);
}

// The state into the clone file in one step: readers see the old or the new
// state. A clone of at most one byte takes a state of at most one byte in place,
// by one call (a truncation, or a write of its byte): a new inode for each of
// the many writes costs the file system more than the rest of a small upload.
// A clone that holds the state already is left alone.
bool WroteInPlace(const fs::path& clone, const std::string& content) {
  if (content.size() > 1) return false;
  const int fd = ::open(clone.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat info {};
  char held = 0;
  bool done = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= 1 &&
              (info.st_size == 0 || ::pread(fd, &held, 1, 0) == 1);
  if (done && std::string_view(&held, static_cast<std::size_t>(info.st_size)) != content) {
    done = content.empty() ? ::ftruncate(fd, 0) == 0 : ::pwrite(fd, content.data(), 1, 0) == 1;
  }
  ::close(fd);
  return done;
}

void WriteStateFile(const fs::path& clone, const std::string& content) {
  if (WroteInPlace(clone, content)) return;
  std::error_code error;
  if (fs::is_regular_file(fs::symlink_status(clone, error)) && fs::file_size(clone, error) == content.size()) {
    std::ifstream in(clone, std::ios::binary);
    std::string held(content.size(), '\0');
    if (in.read(held.data(), static_cast<std::streamsize>(held.size())) && held == content) return;
  }
  std::string temporary = (clone.parent_path() / ("." + clone.filename().string() + ".XXXXXX")).string();
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot create " + temporary);
  const bool written = ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  ::fchmod(fd, 0644);
  if (::close(fd) != 0 || !written) {
    ::unlink(temporary.c_str());
    throw std::runtime_error("cannot write " + temporary);
  }
  if (fs::is_directory(fs::symlink_status(clone))) fs::remove_all(clone);
  if (::rename(temporary.c_str(), clone.c_str()) != 0) {
    ::unlink(temporary.c_str());
    throw std::runtime_error("cannot move into place " + clone.string());
  }
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
    if (!isDir) {
      WriteStateFile(clone, content);
      return;
    }
    // A folder's clone only records that the folder is known: the clones below
    // it stay, so that their badges do not flicker.
    const auto status = fs::symlink_status(clone);
    if (fs::is_directory(status)) return;
    if (fs::exists(status) || fs::is_symlink(status)) fs::remove(clone);
    fs::create_directories(clone);
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
