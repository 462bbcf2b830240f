#include "InotifyEventStream.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unordered_set>
#include <utility>

namespace {

constexpr std::size_t kBufferSize = 64 * 1024;

// A held half goes out alone after this many ticks of a timer that ticks four
// times per hold, so it waits at least the whole hold and at most a quarter more.
constexpr int kHoldTicksPerHold = 4;
constexpr int kHoldTicksToRelease = kHoldTicksPerHold + 1;

constexpr std::uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                      IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                      IN_EXCL_UNLINK;

std::string ErrorText(int error) { return std::generic_category().message(error); }

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

bool IsAtOrBelow(const std::string& path, const std::string& top) {
  if (top.empty()) return false;
  if (path.size() < top.size() || path.compare(0, top.size(), top) != 0) return false;
  return path.size() == top.size() || top.back() == '/' || path[top.size()] == '/';
}

std::string Normalized(const std::string& folder) {
  std::error_code error;
  std::string path = std::filesystem::absolute(folder, error).lexically_normal().string();
  if (error) path = folder;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

InotifyEventStream::InotifyEventStream(MainLoop& loop, BatchCallback onBatch,
                                       TroubleCallback onTrouble, LogCallback log,
                                       std::chrono::milliseconds renameHold)
    : loop_(loop),
      onBatch_(std::move(onBatch)),
      onTrouble_(std::move(onTrouble)),
      log_(std::move(log)),
      renameHold_(renameHold),
      buffer_(std::make_unique<char[]>(kBufferSize)) {}

InotifyEventStream::~InotifyEventStream() { Stop(); }

bool InotifyEventStream::Start(const std::vector<std::string>& folders) {
  std::lock_guard<std::recursive_mutex> lock(life_->mutex);
  StopLocked();
  if (folders.empty()) {
    Log("File events: no folder to watch");
    return false;
  }
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) {
    Log("File events: cannot start inotify: " + ErrorText(errno));
    return false;
  }
  watchLimitHit_ = false;
  watchLimitToReport_ = false;
  bool anyWatched = false;
  for (const auto& folder : folders) {
    if (!folder.empty() && WatchTree(Normalized(folder), true, nullptr)) anyWatched = true;
  }
  if (!anyWatched) {
    Log("File events: none of the folders can be watched");
    close(fd_);
    fd_ = -1;
    watches_.clear();
    return false;
  }
  life_->running = true;
  ++life_->generation;
  readWatch_ = loop_.AddReadWatch(fd_, Guarded([this] { OnReadable(); }));
  // Told on the loop like every other callback, not from inside Start.
  if (watchLimitToReport_) loop_.Post(Guarded([this] { Deliver({}, false); }));
  return true;
}

void InotifyEventStream::Stop() {
  std::lock_guard<std::recursive_mutex> lock(life_->mutex);
  StopLocked();
}

bool InotifyEventStream::IsRunning() const {
  std::lock_guard<std::recursive_mutex> lock(life_->mutex);
  return life_->running;
}

std::function<void()> InotifyEventStream::Guarded(std::function<void()> body) {
  return [life = life_, generation = life_->generation, body = std::move(body)] {
    std::lock_guard<std::recursive_mutex> lock(life->mutex);
    if (life->running && life->generation == generation) body();
  };
}

void InotifyEventStream::StopLocked() {
  if (fd_ < 0) return;
  life_->running = false;
  ++life_->generation;
  loop_.RemoveReadWatch(readWatch_);  // there is one whenever there is a descriptor
  if (holdTimerRunning_) loop_.CancelTimer(holdTimer_);
  holdTimerRunning_ = false;
  close(fd_);  // takes every kernel watch with it
  fd_ = -1;
  watches_.clear();
  held_.clear();
}

void InotifyEventStream::OnReadable() {
  ssize_t got = read(fd_, buffer_.get(), kBufferSize);
  if (got < 0) {
    if (errno != EAGAIN && errno != EINTR) Log("File events: cannot read events: " + ErrorText(errno));
    return;
  }
  std::vector<FileEvent> batch;
  bool overflow = false;
  Translate(buffer_.get(), static_cast<std::size_t>(got), batch, overflow);
  UpdateHoldTimer();
  Deliver(std::move(batch), overflow);
}

void InotifyEventStream::OnHoldTick() {
  std::vector<FileEvent> batch;
  for (auto it = held_.begin(); it != held_.end();) {
    if (++it->second.ticks >= kHoldTicksToRelease) {
      HeldHalf half = std::move(it->second);
      it = held_.erase(it);
      EmitLoneHalf(half, batch);
    } else {
      ++it;
    }
  }
  UpdateHoldTimer();
  Deliver(std::move(batch), false);
}

std::vector<InotifyEventStream::Record> InotifyEventStream::Decode(const char* data, std::size_t size) {
  std::vector<Record> records;
  std::size_t offset = 0;
  while (size - offset >= sizeof(inotify_event)) {
    inotify_event event;
    std::memcpy(&event, data + offset, sizeof event);  // the buffer need not be aligned
    const char* name = data + offset + sizeof event;
    if (event.len > size - offset - sizeof event) break;
    offset += sizeof event + event.len;
    Record record{event.wd, event.mask, event.cookie, std::string(name, strnlen(name, event.len))};
    if (record.name == "." || record.name == ".." || record.name.find('/') != std::string::npos) continue;
    records.push_back(std::move(record));
  }
  return records;
}

void InotifyEventStream::Translate(const char* data, std::size_t size,
                                   std::vector<FileEvent>& batch, bool& overflow) {
  for (const Record& event : Decode(data, size)) {
    const std::string& leaf = event.name;
    if (event.mask & IN_Q_OVERFLOW) {
      if (!overflow) Log("File events: the kernel's event queue overflowed; changes were lost");
      overflow = true;
      continue;
    }
    auto watch = watches_.find(event.wd);
    if (watch == watches_.end()) continue;  // a watch already forgotten
    if (event.mask & IN_IGNORED) {
      watches_.erase(watch);
      continue;
    }
    if (leaf.empty()) {
      // Events of a watched folder itself. Below a root, the parent's own events
      // tell what happened; a root has no watched parent, so it is said here.
      if (event.mask & IN_DELETE_SELF) {
        if (watch->second.root) Log("File events: watched folder removed: " + watch->second.path);
        watches_.erase(watch);
      } else if ((event.mask & IN_MOVE_SELF) && watch->second.root) {
        // Its events would carry a path that no longer names it.
        std::string path = watch->second.path;
        Log("File events: watched folder moved away: " + path);
        ForgetWatches(path);
      }
      continue;
    }
    HandleNamed(event.mask, event.cookie, Join(watch->second.path, leaf), batch);
  }
}

void InotifyEventStream::HandleNamed(std::uint32_t mask, std::uint32_t cookie,
                                     const std::string& path, std::vector<FileEvent>& batch) {
  const bool isDir = (mask & IN_ISDIR) != 0;
  const std::uint32_t dirFlag = isDir ? fileevents::kIsDir : 0;

  if (mask & IN_MOVED_FROM) {
    held_[cookie] = HeldHalf{path, isDir, 0};
    return;
  }
  if (mask & (IN_CREATE | IN_MOVED_TO)) {
    // A held half whose path is taken again has moved away for good: out with it
    // first, so the order stays true and its watches do not swallow the new ones.
    for (auto it = held_.begin(); it != held_.end();) {
      if (it->first != cookie && it->second.path == path) {
        HeldHalf half = std::move(it->second);
        it = held_.erase(it);
        EmitLoneHalf(half, batch);
      } else {
        ++it;
      }
    }
  }
  if (mask & IN_MOVED_TO) {
    auto from = held_.find(cookie);
    if (from != held_.end()) {
      std::string fromPath = std::move(from->second.path);
      held_.erase(from);
      EmitPair(batch, fromPath, path, isDir);
      if (isDir) {
        RenameWatches(fromPath, path);
        // A folder the stream could not watch before is tried again.
        bool watched = std::any_of(watches_.begin(), watches_.end(),
                                   [&](const auto& entry) { return entry.second.path == path; });
        if (!watched) WatchTree(path, false, nullptr);
      }
      return;
    }
    // Moved in from outside the watched trees: nothing of it has been seen yet.
    Emit(batch, path, fileevents::kRenamed | dirFlag);
    if (isDir) WatchTree(path, false, &batch);
    return;
  }
  if (mask & IN_CREATE) {
    Emit(batch, path, fileevents::kCreated | dirFlag);
    if (isDir) WatchTree(path, false, &batch);
    return;
  }
  if (mask & IN_DELETE) {
    Emit(batch, path, fileevents::kRemoved | dirFlag);
    return;
  }
  if (mask & IN_CLOSE_WRITE) Emit(batch, path, fileevents::kModified | dirFlag);
}

bool InotifyEventStream::WatchTree(const std::string& top, bool root,
                                   std::vector<FileEvent>* found) {
  int topWatch = AddWatch(top, root);
  if (topWatch < 0 && found == nullptr) return false;
  std::unordered_set<int> visited;  // a bind mount can make a folder its own descendant
  if (topWatch >= 0) visited.insert(topWatch);

  std::vector<std::string> toRead{top};
  bool first = true;
  while (!toRead.empty()) {
    std::string folder = std::move(toRead.back());
    toRead.pop_back();
    if (!first) {
      // The watch comes before the listing: whatever is written after it is
      // reported by the kernel, whatever was there before is in the listing.
      int wd = AddWatch(folder, false);
      if (wd >= 0 && !visited.insert(wd).second) continue;
      if (wd < 0 && found == nullptr) continue;
    }
    first = false;

    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (root && folder == top ? 0 : O_NOFOLLOW);
    int dirFd = open(folder.c_str(), flags);
    if (dirFd < 0) continue;  // gone meanwhile, or not readable: AddWatch has said so
    DIR* dir = fdopendir(dirFd);
    if (dir == nullptr) {
      close(dirFd);
      continue;
    }
    while (dirent* entry = readdir(dir)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      bool isDir = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN) {
        struct stat info;
        isDir = fstatat(dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISDIR(info.st_mode);
      }
      std::string path = Join(folder, entry->d_name);
      if (found != nullptr)
        Emit(*found, path, fileevents::kCreated | (isDir ? fileevents::kIsDir : 0));
      if (isDir) toRead.push_back(std::move(path));
    }
    closedir(dir);
  }
  return topWatch >= 0;
}

int InotifyEventStream::AddWatch(const std::string& folder, bool root) {
  // A root is taken as the caller names it; below it, a link is never followed.
  std::uint32_t mask = kFolderMask | (root ? 0 : IN_DONT_FOLLOW);
  int wd = inotify_add_watch(fd_, folder.c_str(), mask);
  if (wd < 0) {
    int error = errno;
    if (error == ENOSPC) {
      if (!watchLimitHit_) {
        watchLimitHit_ = true;
        watchLimitToReport_ = true;
        watchLimitDetail_ = "No more folders can be watched (the system's limit "
                            "fs.inotify.max_user_watches is reached); changes from " +
                            folder + " on are not seen";
        Log("File events: " + watchLimitDetail_);
      }
    } else {
      Log("File events: cannot watch " + folder + ": " + ErrorText(error));
    }
    return -1;
  }
  Watch& watch = watches_[wd];
  watch.path = folder;
  watch.root = watch.root || root;
  return wd;
}

void InotifyEventStream::RenameWatches(const std::string& from, const std::string& to) {
  for (auto& [wd, watch] : watches_) {
    if (IsAtOrBelow(watch.path, from)) watch.path = to + watch.path.substr(from.size());
  }
}

void InotifyEventStream::ForgetWatches(const std::string& top) {
  for (auto it = watches_.begin(); it != watches_.end();) {
    if (IsAtOrBelow(it->second.path, top)) {
      inotify_rm_watch(fd_, it->first);
      it = watches_.erase(it);
    } else {
      ++it;
    }
  }
}

void InotifyEventStream::EmitLoneHalf(const HeldHalf& half, std::vector<FileEvent>& batch) {
  Emit(batch, half.path, fileevents::kRenamed | (half.isDir ? fileevents::kIsDir : 0));
  // Moved out of the watched trees: what is below it is no business of ours now.
  if (half.isDir) ForgetWatches(half.path);
}

void InotifyEventStream::UpdateHoldTimer() {
  if (!held_.empty() && !holdTimerRunning_) {
    auto period = std::max<std::chrono::nanoseconds>(renameHold_ / kHoldTicksPerHold,
                                                     std::chrono::milliseconds(1));
    holdTimer_ = loop_.AddTimer(period, Guarded([this] { OnHoldTick(); }), false);
    holdTimerRunning_ = true;
  } else if (held_.empty() && holdTimerRunning_) {
    loop_.CancelTimer(holdTimer_);
    holdTimerRunning_ = false;
  }
}

void InotifyEventStream::Emit(std::vector<FileEvent>& batch, std::string path,
                              std::uint32_t flags) {
  // A step of two keeps every event that is not half of a pair one id away from
  // its neighbours' ids plus one.
  batch.push_back(FileEvent{std::move(path), flags, nextId_});
  nextId_ += 2;
}

void InotifyEventStream::EmitPair(std::vector<FileEvent>& batch, std::string from, std::string to,
                                  bool isDir) {
  std::uint32_t flags = fileevents::kRenamed | (isDir ? fileevents::kIsDir : 0);
  batch.push_back(FileEvent{std::move(from), flags, nextId_});
  batch.push_back(FileEvent{std::move(to), flags, nextId_ + 1});
  nextId_ += 3;
}

bool InotifyEventStream::Deliver(std::vector<FileEvent> batch, bool overflow) {
  // A callback may stop the stream, or start it anew; then the rest is not ours.
  std::shared_ptr<Life> life = life_;
  const std::uint64_t generation = life->generation;
  auto stillRunning = [&] { return life->running && life->generation == generation; };
  if (!batch.empty() && onBatch_) {
    onBatch_(batch);
    if (!stillRunning()) return false;
  }
  if (overflow && onTrouble_) {
    onTrouble_(FileEventTrouble::Overflow,
               "The system dropped file change events; some changes were not reported");
    if (!stillRunning()) return false;
  }
  if (watchLimitToReport_) {
    watchLimitToReport_ = false;
    std::string detail = watchLimitDetail_;
    if (onTrouble_) onTrouble_(FileEventTrouble::WatchLimit, detail);
    if (!stillRunning()) return false;
  }
  return true;
}

void InotifyEventStream::Log(const std::string& line) const {
  if (log_) log_(line);
}
