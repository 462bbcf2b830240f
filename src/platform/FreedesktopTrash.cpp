#include "FreedesktopTrash.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

namespace fs = std::filesystem;

namespace {

// Room for ".trashinfo" behind the name within the usual 255-byte limit.
constexpr std::size_t kMaxTrashName = 245;
constexpr int kMaxNameAttempts = 10000;

std::string SystemError(const std::string& what, const std::string& path, int code) {
  return what + " " + path + ": " + std::strerror(code);
}

std::string HomeFolder() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  if (passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

// The device of path, or of its nearest existing ancestor when it is not made yet.
bool DeviceOfNearest(fs::path path, dev_t& device) {
  struct stat info {};
  while (true) {
    if (stat(path.c_str(), &info) == 0) {
      device = info.st_dev;
      return true;
    }
    if (!path.has_relative_path()) return false;
    path = path.parent_path();
  }
}

// A folder of the trash: made with mode 0700 when missing; one that stands must
// be a real folder (not a link someone planted) of ours.
bool EnsurePrivateFolder(const std::string& path, std::string& error) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    error = SystemError("cannot create", path, errno);
    return false;
  }
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    error = SystemError("cannot read", path, errno);
    return false;
  }
  if (!S_ISDIR(info.st_mode) || info.st_uid != geteuid()) {
    error = path + " is not a folder of this user";
    return false;
  }
  return true;
}

std::string DeletionDate() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char buffer[32];
  std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &parts);
  return std::string(buffer, length);
}

// Cuts text to at most limit bytes without splitting a UTF-8 sequence.
std::string CutUtf8(const std::string& text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

// The name in the trash: the item's own for the first try, then "name.2.ext",
// "name.3.ext"... (folders have no extension). Long names are shortened so that
// the .trashinfo fits; its Path keeps the real name.
std::string TrashName(const std::string& original, int attempt, bool isFolder) {
  std::string stem = original;
  std::string extension;
  std::size_t dot = original.rfind('.');
  if (!isFolder && dot != std::string::npos && dot > 0 && dot + 1 < original.size() &&
      original.size() - dot < kMaxTrashName / 2) {
    stem = original.substr(0, dot);
    extension = original.substr(dot);
  }
  std::string suffix = (attempt > 1 ? "." + std::to_string(attempt) : "") + extension;
  return CutUtf8(stem, kMaxTrashName - suffix.size()) + suffix;
}

bool WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(written);
  }
  return true;
}

// Moves without ever replacing what stands at to. Returns 0 or an errno value.
int MoveNoReplace(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  int code = errno;
  if (code != EINVAL && code != ENOSYS) return code;
  // Some file systems cannot refuse a replace themselves; check first instead.
  struct stat info {};
  if (lstat(to.c_str(), &info) == 0) return EEXIST;
  if (std::rename(from.c_str(), to.c_str()) == 0) return 0;
  return errno;
}

}  // namespace

FreedesktopTrash::FreedesktopTrash(std::string homeTrash) : homeTrash_(std::move(homeTrash)) {}

std::string FreedesktopTrash::HomeTrashPath() const {
  if (!homeTrash_.empty()) return homeTrash_;
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  // A relative XDG_DATA_HOME is invalid and must be ignored.
  if (dataHome && dataHome[0] == '/') return std::string(dataHome) + "/Trash";
  return HomeFolder() + "/.local/share/Trash";
}

std::string FreedesktopTrash::MountTopDirectory(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return "";
  dev_t device = info.st_dev;
  fs::path current = fs::path(path).lexically_normal();
  while (current.has_relative_path()) {
    fs::path parent = current.parent_path();
    if (stat(parent.c_str(), &info) != 0 || info.st_dev != device) return current.string();
    current = parent;
  }
  return "/";
}

std::string FreedesktopTrash::TopDirectoryOf(const std::string& path) const {
  return MountTopDirectory(path);
}

std::string FreedesktopTrash::EscapePath(const std::string& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  for (unsigned char c : path) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~' || c == '/') {
      escaped += static_cast<char>(c);
    } else {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 0x0F];
    }
  }
  return escaped;
}

bool FreedesktopTrash::FindLocation(const std::string& item, dev_t itemDevice, Location& location,
                                    std::string& error) const {
  std::string home = HomeTrashPath();
  dev_t homeDevice = 0;
  if (DeviceOfNearest(home, homeDevice) && homeDevice == itemDevice) {
    std::error_code ignored;
    fs::create_directories(fs::path(home).parent_path(), ignored);
    if (!EnsurePrivateFolder(home, error)) return false;
    location = {home, ""};
    return true;
  }

  std::string top = TopDirectoryOf(item);
  if (top.empty()) {
    error = "cannot find the mount of " + item;
    return false;
  }
  std::string uid = std::to_string(geteuid());
  // An administrator's shared .Trash counts only when it is a real, sticky folder;
  // otherwise another user could read or swap our entries.
  std::string shared = (fs::path(top) / ".Trash").string();
  struct stat info {};
  if (lstat(shared.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX)) {
    std::string mine = shared + "/" + uid;
    std::string ignored;
    if (EnsurePrivateFolder(mine, ignored)) {
      location = {mine, top};
      return true;
    }
  }
  std::string own = (fs::path(top) / (".Trash-" + uid)).string();
  if (!EnsurePrivateFolder(own, error)) return false;
  location = {own, top};
  return true;
}

bool FreedesktopTrash::MoveToTrash(const std::string& path, std::string& error) {
  error.clear();
  if (path.empty()) {
    error = "no path given";
    return false;
  }
  std::error_code code;
  fs::path given = fs::absolute(path, code).lexically_normal();
  if (code) {
    error = "cannot make " + path + " absolute: " + code.message();
    return false;
  }
  if (!given.has_filename()) given = given.parent_path();  // a final "/"
  if (!given.has_relative_path() || given.filename() == "..") {
    error = "refusing to trash " + path;
    return false;
  }
  // The parent made canonical, the item itself not: a link is trashed as a link.
  fs::path parent = fs::canonical(given.parent_path(), code);
  if (code) {
    error = "cannot resolve the folder of " + path + ": " + code.message();
    return false;
  }
  std::string name = given.filename().string();
  std::string item = (parent / name).string();
  struct stat itemInfo {};
  if (lstat(item.c_str(), &itemInfo) != 0) {
    error = SystemError("cannot trash", item, errno);
    return false;
  }

  Location location;
  if (!FindLocation(item, itemInfo.st_dev, location, error)) return false;
  std::string filesFolder = location.folder + "/files";
  std::string infoFolder = location.folder + "/info";
  if (!EnsurePrivateFolder(filesFolder, error) || !EnsurePrivateFolder(infoFolder, error)) {
    return false;
  }

  std::string recorded = item;
  if (!location.topDir.empty()) {
    recorded = fs::path(item).lexically_relative(location.topDir).string();
  }
  std::string infoText =
      "[Trash Info]\nPath=" + EscapePath(recorded) + "\nDeletionDate=" + DeletionDate() + "\n";

  bool isFolder = S_ISDIR(itemInfo.st_mode);
  for (int attempt = 1; attempt <= kMaxNameAttempts; ++attempt) {
    std::string trashName = TrashName(name, attempt, isFolder);
    std::string infoPath = infoFolder + "/" + trashName + ".trashinfo";
    std::string target = filesFolder + "/" + trashName;
    // The exclusive .trashinfo is what reserves the name among trashing programs.
    int fd = open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      error = SystemError("cannot create", infoPath, errno);
      return false;
    }
    struct stat existing {};
    if (lstat(target.c_str(), &existing) == 0) {  // a leftover without its info
      close(fd);
      unlink(infoPath.c_str());
      continue;
    }
    bool written = WriteAll(fd, infoText) && fsync(fd) == 0;
    int writeError = errno;
    if (close(fd) != 0 && written) {
      written = false;
      writeError = errno;
    }
    if (!written) {
      unlink(infoPath.c_str());
      error = SystemError("cannot write", infoPath, writeError);
      return false;
    }
    int moveError = MoveNoReplace(item, target);
    if (moveError == 0) return true;
    // The item stays where it was; its info must not claim otherwise.
    unlink(infoPath.c_str());
    if (moveError == EEXIST) continue;
    error = SystemError("cannot move " + item + " to", target, moveError);
    return false;
  }
  error = "no free name in " + filesFolder + " for " + name;
  return false;
}
