#include "SharedCache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace fs = std::filesystem;

namespace {

void Log(const std::string& text) { CVEventLogger::WriteMainLogMessage("SharedCache -> " + text); }

// The pieces of path below root, or nothing when it is not below it.
std::optional<std::vector<std::string>> PiecesBelow(const std::string& root, const std::string& path) {
  const fs::path base = fs::path(root).lexically_normal();
  const fs::path target = fs::path(path).lexically_normal();
  auto b = base.begin();
  auto t = target.begin();
  for (; b != base.end() && !b->empty(); ++b, ++t) {
    if (t == target.end() || *b != *t) return std::nullopt;
  }
  std::vector<std::string> pieces;
  for (; t != target.end(); ++t) {
    if (t->empty()) continue;
    if (*t == "..") return std::nullopt;
    pieces.push_back(t->string());
  }
  if (pieces.empty()) return std::nullopt;
  return pieces;
}

// True when every folder between root and the last piece is a real folder.
bool NoLinkOnTheWay(const std::string& root, const std::vector<std::string>& pieces) {
  std::string path = root;
  for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
    path += "/" + pieces[i];
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
  }
  return true;
}

}  // namespace

std::string SharedCache::SharedInRoot() {
  return CVStaticHelpers::GenerateRootPathForStorages() + "/" + kSharedInFolder;
}

std::string SharedCache::UploadsRoot() {
  return CVStaticHelpers::GenerateRootPathForStorages() + "/" + kUploadsFolder;
}

std::optional<std::string> SharedCache::SafeComponent(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || name.size() > kLongestName ||
      name.find('/') != std::string_view::npos || name.find('\0') != std::string_view::npos) {
    // NUL would cut the log line short.
    std::string shown(name.substr(0, 80));
    for (char& c : shown) c = c == '\0' ? '?' : c;
    Log("refused the server's name \"" + shown + "\" as a local name");
    return std::nullopt;
  }
  return std::string(name);
}

std::optional<std::string> SharedCache::PathInCache(const std::string& root, const std::string& top,
                                                    std::string_view folderPath, const std::string& name) {
  std::vector<std::string_view> pieces{top};
  std::size_t start = 0;
  while (start <= folderPath.size()) {
    std::size_t end = folderPath.find_first_of("\\/", start);
    if (end == std::string_view::npos) end = folderPath.size();
    if (end > start) pieces.push_back(folderPath.substr(start, end - start));
    start = end + 1;
  }
  pieces.push_back(name);
  std::string path = root;
  for (auto piece : pieces) {
    auto safe = SafeComponent(piece);
    if (!safe) return std::nullopt;
    path += "/" + *safe;
  }
  return path;
}

bool SharedCache::IsInside(const std::string& root, const std::string& path) {
  return PiecesBelow(root, path).has_value();
}

bool SharedCache::MakeParentFolders(const std::string& root, const std::string& path) {
  auto pieces = PiecesBelow(root, path);
  if (!pieces) {
    Log("not inside " + root + ": " + path);
    return false;
  }
  std::error_code error;
  fs::create_directories(root, error);
  int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (folder < 0) {
    Log("cannot open " + root + ": " + std::strerror(errno));
    return false;
  }
  pieces->pop_back();  // the file itself
  for (const auto& piece : *pieces) {
    if (::mkdirat(folder, piece.c_str(), 0777) != 0 && errno != EEXIST) {
      Log("cannot make the folder " + piece + " in " + root + ": " + std::strerror(errno));
      ::close(folder);
      return false;
    }
    int next = ::openat(folder, piece.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    ::close(folder);
    if (next < 0) {
      Log("not a folder (or a symbolic link), nothing is written there: " + piece + " on the way to " + path);
      return false;
    }
    folder = next;
  }
  ::close(folder);
  return true;
}

int SharedCache::Remove(const std::string& root, const std::vector<std::string>& paths) {
  std::vector<std::string> targets;
  std::error_code error;
  if (paths.empty()) {
    struct stat info {};
    if (::lstat(root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return 0;
    for (const auto& entry : fs::directory_iterator(root, error)) targets.push_back(entry.path().string());
  } else {
    for (const auto& path : paths) {
      const auto pieces = PiecesBelow(root, path);
      if (pieces && NoLinkOnTheWay(root, *pieces)) {
        targets.push_back(path);
      } else {
        Log("not removed, not inside " + root + ": " + path);
      }
    }
  }
  int removed = 0;
  for (const auto& target : targets) {
    if (fs::remove_all(target, error) > 0) ++removed;
  }
  return removed;
}
