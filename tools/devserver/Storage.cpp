#include "Storage.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>
#include <stdexcept>
#include <system_error>

#include <utf8proc.h>

#include <cstdlib>

#include "WireFormats.h"

namespace fs = std::filesystem;

namespace devserver {
namespace {

constexpr std::string_view kTemporaryPrefix = ".devserver-tmp-";

void WriteWhole(const fs::path& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

// The given seconds since 1970, or now.
void SetModified(const fs::path& path, std::optional<std::int64_t> seconds) {
  timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = seconds ? static_cast<time_t>(*seconds) : 0;
  times[1].tv_nsec = seconds ? 0 : UTIME_NOW;
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
    throw std::system_error(errno, std::generic_category(), "utimensat " + path.string());
  }
}

// The form under which a share compares names: case folded, composed. Text
// that is not UTF-8 is compared by its ASCII letters alone.
std::string FoldedName(std::string_view name) {
  utf8proc_uint8_t* folded = nullptr;
  const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                   static_cast<utf8proc_ssize_t>(name.size()), &folded,
                                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE |
                                                                  UTF8PROC_CASEFOLD));
  if (length < 0) return AsciiLower(name);
  std::string out(reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length));
  std::free(folded);
  return out;
}

// The name of the entry of folder that a share takes name for: name itself
// when it exists, else the first entry equal to it without case, else name.
std::string StoredName(const fs::path& folder, const std::string& name) {
  struct stat st {};
  if (::lstat((folder / name).c_str(), &st) == 0) return name;
  const auto wanted = FoldedName(name);
  std::string found;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const auto candidate = it->path().filename().string();
    if (FoldedName(candidate) == wanted && (found.empty() || candidate < found)) found = candidate;
  }
  return found.empty() ? name : found;
}

bool IsInside(const fs::path& inner, const fs::path& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (o->empty()) continue;  // a trailing separator
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

}  // namespace

std::optional<std::vector<std::string>> SplitRelativePath(std::string_view path) {
  std::vector<std::string> components;
  std::string current;
  auto flush = [&]() -> bool {
    if (current == "." || current == "..") return false;
    if (!current.empty()) components.push_back(current);
    current.clear();
    return true;
  };
  for (char c : path) {
    if (c == '\0') return std::nullopt;
    if (c == '/' || c == '\\') {
      if (!flush()) return std::nullopt;
    } else {
      current += c;
    }
  }
  if (!flush()) return std::nullopt;
  return components;
}

std::string JoinRelativePath(const std::vector<std::string>& components) {
  std::string out;
  for (const auto& component : components) {
    if (!out.empty()) out += '/';
    out += component;
  }
  return out;
}

bool IsServerTemporaryName(std::string_view name) {
  return name.substr(0, kTemporaryPrefix.size()) == kTemporaryPrefix;
}

bool KeepsShareNames(const std::string& storageType) {
  return EqualsIgnoreAsciiCase(storageType, "CIFS") || EqualsIgnoreAsciiCase(storageType, "SP") ||
         EqualsIgnoreAsciiCase(storageType, "O365");
}

std::string ShareRefusal(std::string_view name) {
  for (unsigned char c : name) {
    if (c < 0x20 || std::string_view("\\/:*?\"<>|").find(static_cast<char>(c)) != std::string_view::npos) {
      return "the character " + (c < 0x20 ? "U+" + std::to_string(c) : std::string(1, static_cast<char>(c))) +
             " is not allowed";
    }
  }
  if (!name.empty() && (name.back() == '.' || name.back() == ' ')) return "a name cannot end with a dot or a space";
  const auto stem = AsciiLower(name.substr(0, name.find('.')));
  static const char* const kDevices[] = {"con", "prn", "aux", "nul"};
  bool device = std::find(std::begin(kDevices), std::end(kDevices), stem) != std::end(kDevices);
  device |= stem.size() == 4 && (stem.rfind("com", 0) == 0 || stem.rfind("lpt", 0) == 0) && stem[3] >= '1' &&
            stem[3] <= '9';
  return device ? "\"" + std::string(name) + "\" is a device name" : "";
}

Storage::Storage(StorageConfig config, fs::path stateFolder, const std::string& locationHost, bool shareNames)
    : config_(std::move(config)),
      shareNames_(shareNames),
      stateFolder_(std::move(stateFolder)),
      versions_(stateFolder_ / "versions"),
      pending_(stateFolder_ / "pending") {
  location_ = isCifs() ? "\\\\" + locationHost + "\\" + config_.name + "\\"
                       : "https://" + locationHost + "/" + config_.name + "/";
}

bool Storage::isCifs() const { return EqualsIgnoreAsciiCase(config_.type, "CIFS"); }

bool Storage::ServesUser(const std::string& user) const {
  if (config_.users.empty()) return true;
  for (const auto& name : config_.users) {
    if (name == user) return true;
  }
  return false;
}

std::optional<fs::path> Storage::Resolve(std::vector<std::string>& components, std::size_t* existing) const {
  fs::path local = config_.folder;
  bool missing = false;
  if (existing) *existing = 0;
  for (std::size_t i = 0; i < components.size(); ++i) {
    auto& component = components[i];
    if (component.empty() || component == "." || component == ".." ||
        component.find_first_of(std::string_view("/\\\0", 3)) != std::string::npos) {
      return std::nullopt;
    }
    if (shareNames_ && !missing) component = StoredName(local, component);
    local /= component;
    if (missing) continue;
    struct stat st {};
    if (::lstat(local.c_str(), &st) != 0) {
      missing = true;  // nothing below can exist either
      continue;
    }
    if (existing) *existing = i + 1;
    if (S_ISLNK(st.st_mode)) return std::nullopt;
    if (i + 1 < components.size() && !S_ISDIR(st.st_mode)) return std::nullopt;
  }
  return local;
}

std::string Storage::NewNameRefusal(const std::vector<std::string>& components, std::size_t existing) const {
  if (!shareNames_) return "";
  for (std::size_t i = existing; i < components.size(); ++i) {
    if (auto refusal = ShareRefusal(components[i]); !refusal.empty()) return refusal;
  }
  return "";
}

fs::path Storage::CheckedPath(const std::string& relativePath, std::vector<std::string>& components,
                              std::size_t* existing) const {
  auto split = SplitRelativePath(relativePath);
  if (!split) throw std::invalid_argument("path leaves the storage: " + relativePath);
  components = std::move(*split);
  auto local = Resolve(components, existing);
  if (!local) throw std::invalid_argument("path leaves the storage: " + relativePath);
  return *local;
}

fs::path Storage::NewTemporaryPath() {
  fs::create_directories(stateFolder_ / "tmp");
  return stateFolder_ / "tmp" / NewLowerGuid();
}

void Storage::WriteFile(const std::string& relativePath, std::string_view content,
                        const std::string& owner, std::optional<std::int64_t> modified) {
  const auto temporary = NewTemporaryPath();
  try {
    WriteWhole(temporary, content);
  } catch (...) {
    std::error_code ec;
    fs::remove(temporary, ec);
    throw;
  }
  InstallFile(relativePath, temporary, owner, modified);
}

void Storage::InstallFile(const std::string& relativePath, const fs::path& prepared,
                          const std::string& owner, std::optional<std::int64_t> modified) {
  struct RemoveOnExit {
    const fs::path& path;
    ~RemoveOnExit() {
      std::error_code ec;
      fs::remove(path, ec);
    }
  } cleanup{prepared};
  std::lock_guard<std::mutex> lock(writeMutex_);
  std::vector<std::string> components;
  const auto local = CheckedPath(relativePath, components);
  if (components.empty()) throw std::invalid_argument("cannot write the storage's root");
  const auto relative = JoinRelativePath(components);
  fs::create_directories(local.parent_path());
  const auto status = fs::symlink_status(local);
  if (fs::is_directory(status)) throw std::invalid_argument("a folder stands at " + relative);
  if (fs::is_regular_file(status)) versions_.Keep(relative, local, owner);

  // The time is set before the rename, so that no listing sees the file with another.
  SetModified(prepared, modified);
  std::error_code ec;
  fs::rename(prepared, local, ec);
  if (ec == std::errc::cross_device_link) {
    // The state folder is on another file system: go through a temporary file
    // beside the target, which listings do not show.
    const auto beside = local.parent_path() / (std::string(kTemporaryPrefix) + NewLowerGuid());
    fs::copy_file(prepared, beside);
    SetModified(beside, modified);
    fs::rename(beside, local);
  } else if (ec) {
    throw std::runtime_error("cannot move into place: " + relative);
  }
}

Storage::MoveOutcome Storage::Move(const std::string& fromRelative, const std::string& toRelative) {
  std::lock_guard<std::mutex> lock(writeMutex_);
  std::vector<std::string> from;
  std::vector<std::string> to;
  std::size_t existing = 0;
  const auto source = CheckedPath(fromRelative, from);
  const auto target = CheckedPath(toRelative, to, &existing);
  if (from.empty() || to.empty()) throw std::invalid_argument("cannot move the storage's root");
  const auto sourceStatus = fs::symlink_status(source);
  if (!fs::is_regular_file(sourceStatus) && !fs::is_directory(sourceStatus)) {
    return MoveOutcome::SourceMissing;
  }
  const auto targetStatus = fs::symlink_status(target);
  if (fs::exists(targetStatus) || fs::is_symlink(targetStatus)) {
    // A share renames an entry to another case of its own name.
    const auto requested = SplitRelativePath(toRelative);
    if (shareNames_ && target == source && requested && requested->back() != to.back()) {
      fs::rename(source, source.parent_path() / requested->back());
      return MoveOutcome::Moved;
    }
    return MoveOutcome::TargetExists;
  }
  if (!NewNameRefusal(to, existing).empty()) return MoveOutcome::NameRefused;
  if (to.size() > from.size() && std::equal(from.begin(), from.end(), to.begin())) {
    return MoveOutcome::IntoItself;
  }
  fs::create_directories(target.parent_path());
  fs::rename(source, target);
  return MoveOutcome::Moved;
}

Storage::FolderOutcome Storage::CreateFolder(const std::string& relativePath) {
  std::lock_guard<std::mutex> lock(writeMutex_);
  std::vector<std::string> components;
  std::size_t existing = 0;
  const auto local = CheckedPath(relativePath, components, &existing);
  const auto status = fs::symlink_status(local);
  if (fs::is_directory(status)) return FolderOutcome::Existed;
  if (fs::exists(status) || fs::is_symlink(status)) return FolderOutcome::FileInTheWay;
  if (!NewNameRefusal(components, existing).empty()) return FolderOutcome::NameRefused;
  fs::create_directories(local);
  return FolderOutcome::Created;
}

void Storage::KeepTree(const fs::path& local, const std::string& relative,
                       const std::string& owner) {
  const auto status = fs::symlink_status(local);
  if (fs::is_regular_file(status)) {
    versions_.Keep(relative, local, owner);
  } else if (fs::is_directory(status)) {
    for (const auto& entry : fs::directory_iterator(local)) {
      KeepTree(entry.path(), relative + "/" + entry.path().filename().string(), owner);
    }
  }
}

bool Storage::Remove(const std::string& relativePath, const std::string& owner) {
  std::lock_guard<std::mutex> lock(writeMutex_);
  std::vector<std::string> components;
  const auto local = CheckedPath(relativePath, components);
  if (components.empty()) throw std::invalid_argument("cannot remove the storage's root");
  const auto status = fs::symlink_status(local);
  if (!fs::exists(status) && !fs::is_symlink(status)) return false;
  KeepTree(local, JoinRelativePath(components), owner);
  fs::remove_all(local);
  return true;
}

StorageSet::StorageSet(const ServerOptions& options) {
  std::set<std::string> names;
  for (auto config : options.storages) {
    const auto& name = config.name;
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of(std::string_view("/\\\0", 3)) != std::string::npos) {
      throw std::invalid_argument("bad storage name '" + name + "'");
    }
    // Locations match without regard to case, so names must differ in more than case.
    if (!names.insert(AsciiLower(name)).second) {
      throw std::invalid_argument("storage '" + name + "' given twice");
    }
    if (config.folder.empty()) throw std::invalid_argument("storage '" + name + "' has no folder");
    fs::create_directories(config.folder);
    config.folder = fs::canonical(config.folder);
    if (!fs::is_directory(config.folder)) {
      throw std::invalid_argument("storage '" + name + "': not a folder");
    }
    fs::path state =
        options.stateDir.empty()
            ? config.folder.parent_path() / (config.folder.filename().string() + ".devserver-state")
            : options.stateDir / name;
    fs::create_directories(state);
    state = fs::canonical(state);
    const bool shareNames = !options.linuxNames && KeepsShareNames(config.type);
    storages_.push_back(std::make_unique<Storage>(std::move(config), state, options.locationHost, shareNames));
  }
  // The state of a storage (versions, temporary files) must never show in a
  // storage's folder: the folder is exactly what the server holds.
  for (const auto& storage : storages_) {
    for (const auto& other : storages_) {
      if (IsInside(storage->stateFolder(), other->folder())) {
        throw std::invalid_argument("the state folder of '" + storage->name() +
                                    "' lies inside the folder of '" + other->name() + "'");
      }
    }
  }
}

Storage* StorageSet::Find(const std::string& name) const {
  for (const auto& storage : storages_) {
    if (EqualsIgnoreAsciiCase(storage->name(), name)) return storage.get();
  }
  return nullptr;
}

std::vector<Storage*> StorageSet::ForUser(const std::string& user) const {
  std::vector<Storage*> out;
  for (const auto& storage : storages_) {
    if (storage->ServesUser(user)) out.push_back(storage.get());
  }
  return out;
}

std::optional<ResolvedPath> StorageSet::Resolve(const std::string& user,
                                                std::string_view serverPath) const {
  if (serverPath.find('\0') != std::string_view::npos) return std::nullopt;
  auto normalise = [](std::string_view text) {
    std::string out = AsciiLower(text);
    for (auto& c : out) {
      if (c == '\\') c = '/';
    }
    return out;
  };
  const auto path = normalise(serverPath);
  Storage* best = nullptr;
  std::size_t rest = 0;
  for (auto* storage : ForUser(user)) {
    const auto location = normalise(storage->location());  // ends with "/"
    const auto bare = std::string_view(location).substr(0, location.size() - 1);
    std::size_t matched = 0;
    if (path.compare(0, location.size(), location) == 0) {
      matched = location.size();
    } else if (path == bare) {
      matched = bare.size();
    } else {
      continue;
    }
    if (!best || matched > rest) {
      best = storage;
      rest = matched;
    }
  }
  if (!best) return std::nullopt;
  auto components = SplitRelativePath(serverPath.substr(rest));
  if (!components) return std::nullopt;
  ResolvedPath resolved;
  resolved.requested = JoinRelativePath(*components);
  auto local = best->Resolve(*components, &resolved.existing);
  if (!local) return std::nullopt;
  resolved.storage = best;
  resolved.relative = JoinRelativePath(*components);
  resolved.components = std::move(*components);
  resolved.local = std::move(*local);
  return resolved;
}

}  // namespace devserver
