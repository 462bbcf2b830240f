#include "CVStateJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "CVEventLogger.h"

namespace {

constexpr const char* kClass = "CVStateJournal";
constexpr std::string_view kMagic = "CVSTATEJOURNAL1\n";
constexpr std::size_t kHeaderSize = kMagic.size() + 5 * 8 + 4;
constexpr std::size_t kFrameSize = 8;  // length and CRC of an entry
// An entry longer than this is no entry: the length itself is torn.
constexpr std::uint32_t kLongestEntry = 64u << 20;

void PutUnsigned(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

std::uint64_t GetUnsigned(std::string_view in, int bytes) {
  std::uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<std::uint64_t>(static_cast<unsigned char>(in[i])) << (8 * i);
  return value;
}

std::uint32_t Crc(std::string_view bytes) {
  return static_cast<std::uint32_t>(
      crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

std::string Header(const CVStateJournal::FileVersion& version) {
  std::string header(kMagic);
  PutUnsigned(header, version.exists ? 1 : 0, 8);
  PutUnsigned(header, version.device, 8);
  PutUnsigned(header, version.inode, 8);
  PutUnsigned(header, static_cast<std::uint64_t>(version.size), 8);
  PutUnsigned(header, static_cast<std::uint64_t>(version.modified), 8);
  PutUnsigned(header, Crc(header), 4);
  return header;
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void Log(const std::string& text) { CVEventLogger::WriteMainLogMessage(std::string(kClass) + " -> " + text); }

}  // namespace

CVStateJournal::FileVersion CVStateJournal::FileVersion::Of(const std::string& path) {
  FileVersion version;
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return version;
  version.exists = true;
  version.device = static_cast<std::uint64_t>(info.st_dev);
  version.inode = static_cast<std::uint64_t>(info.st_ino);
  version.size = static_cast<std::int64_t>(info.st_size);
  version.modified = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
  return version;
}

CVStateJournal::Entry& CVStateJournal::Entry::Number(std::int64_t value) {
  PutUnsigned(bytes_, static_cast<std::uint64_t>(value), 8);
  return *this;
}

CVStateJournal::Entry& CVStateJournal::Entry::Text(std::string_view text) {
  PutUnsigned(bytes_, text.size(), 4);
  bytes_.append(text);
  return *this;
}

CVStateJournal::Entry& CVStateJournal::Entry::Append(const Entry& other) {
  bytes_ += other.bytes_;
  return *this;
}

std::int64_t CVStateJournal::Reader::Number() {
  if (!ok_ || rest_.size() < 8) {
    ok_ = false;
    return 0;
  }
  auto value = static_cast<std::int64_t>(GetUnsigned(rest_, 8));
  rest_.remove_prefix(8);
  return value;
}

std::string CVStateJournal::Reader::Text() {
  if (!ok_ || rest_.size() < 4) {
    ok_ = false;
    return "";
  }
  std::size_t length = GetUnsigned(rest_, 4);
  if (rest_.size() - 4 < length) {
    ok_ = false;
    return "";
  }
  std::string text(rest_.substr(4, length));
  rest_.remove_prefix(4 + length);
  return text;
}

CVStateJournal::CVStateJournal(std::string statePath, std::chrono::milliseconds commitDelay)
    : statePath_(std::move(statePath)), path_(PathFor(statePath_)), commitDelay_(commitDelay) {}

CVStateJournal::~CVStateJournal() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (committer_.joinable()) committer_.join();
  Commit();
  std::lock_guard<std::mutex> lock(mutex_);
  if (fd_ >= 0) ::close(fd_);
}

std::vector<std::string> CVStateJournal::Read(const FileVersion& version) {
  std::vector<std::string> entries;
  int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) Log("cannot read " + path_ + ": " + std::strerror(errno));
    return entries;
  }
  std::string bytes;
  char buffer[65536];
  for (;;) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got < 0) Log("cannot read " + path_ + ": " + std::strerror(errno));
      break;
    }
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  std::string_view rest(bytes);
  if (rest.size() < kHeaderSize || rest.substr(0, kMagic.size()) != kMagic ||
      Crc(rest.substr(0, kHeaderSize - 4)) != GetUnsigned(rest.substr(kHeaderSize - 4), 4)) {
    if (!rest.empty()) Log(path_ + " has no whole header; it holds nothing to apply");
    return entries;
  }
  if (rest.substr(0, kHeaderSize) != Header(version)) {
    // Written for another version of the file: its entries are in the file
    // already, or the file was replaced by someone else.
    if (rest.size() > kHeaderSize) Log(path_ + " belongs to another version of the file; its entries are not applied");
    return entries;
  }
  rest.remove_prefix(kHeaderSize);
  while (rest.size() >= kFrameSize) {
    const auto length = static_cast<std::uint32_t>(GetUnsigned(rest, 4));
    const auto crc = static_cast<std::uint32_t>(GetUnsigned(rest.substr(4), 4));
    if (length > kLongestEntry || rest.size() - kFrameSize < length) break;
    std::string_view payload = rest.substr(kFrameSize, length);
    if (Crc(payload) != crc) break;
    entries.emplace_back(payload);
    rest.remove_prefix(kFrameSize + length);
  }
  if (!rest.empty()) Log(path_ + " ends in a torn entry of " + std::to_string(rest.size()) + " bytes, left out");
  return entries;
}

bool CVStateJournal::OpenLocked() {
  if (fd_ >= 0) return true;
  fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd_ < 0) Log("cannot open " + path_ + ": " + std::strerror(errno));
  return fd_ >= 0;
}

bool CVStateJournal::Restart(const FileVersion& version) {
  std::lock_guard<std::mutex> lock(mutex_);
  writable_ = false;
  entryBytes_ = 0;
  if (!OpenLocked()) return false;
  // In place: a crash in the middle leaves no header or the old one, and the
  // old one does not fit the file that is there now.
  if (::ftruncate(fd_, 0) != 0 || !WriteAll(fd_, Header(version)) || ::fdatasync(fd_) != 0) {
    Log("cannot start " + path_ + " afresh: " + std::strerror(errno));
    ::ftruncate(fd_, 0);
    return false;
  }
  committed_ = appended_;
  writable_ = true;
  failureLogged_ = false;
  return true;
}

bool CVStateJournal::Append(const Entry& entry) {
  const std::string& payload = entry.bytes();
  std::string frame;
  frame.reserve(kFrameSize + payload.size());
  PutUnsigned(frame, payload.size(), 4);
  PutUnsigned(frame, Crc(payload), 4);
  frame += payload;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!writable_ || !WriteAll(fd_, frame)) {
      if (!failureLogged_) Log("cannot append to " + path_ + (writable_ ? ": " + std::string(std::strerror(errno)) : ""));
      failureLogged_ = true;
      // What was half written must not stand before the next entry.
      if (writable_) writable_ = false;
      return false;
    }
    entryBytes_ += static_cast<std::int64_t>(frame.size());
    ++appended_;
    if (!committer_.joinable() && !stopping_) committer_ = std::thread([this] { CommitLoop(); });
  }
  wake_.notify_all();
  return true;
}

void CVStateJournal::NoteFolder(const std::string& folder) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    folders_.insert(folder);
    if (!committer_.joinable() && !stopping_) committer_ = std::thread([this] { CommitLoop(); });
  }
  wake_.notify_all();
}

void CVStateJournal::CommitLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || appended_ > committed_ || !folders_.empty(); });
    if (stopping_) return;
    // The bounded delay: what comes meanwhile goes with the same commit.
    wake_.wait_for(lock, commitDelay_, [this] { return stopping_; });
    if (stopping_) return;
    lock.unlock();
    Commit();
    lock.lock();
  }
}

void CVStateJournal::Commit() {
  std::lock_guard<std::mutex> commit(commitLock_);
  std::set<std::string> folders;
  std::uint64_t target = 0;
  int fd = -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    folders.swap(folders_);
    target = appended_;
    fd = committed_ < appended_ ? fd_ : -1;
  }
  // The folders first: an entry must never be durable before the file it names.
  for (const auto& folder : folders) {
    int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd < 0) continue;
    ::fsync(folderFd);
    ::close(folderFd);
  }
  // The descriptor lives as long as this object; a Restart meanwhile only
  // truncates it, which makes this sync cover less, never the wrong file.
  if (fd >= 0 && ::fdatasync(fd) != 0) Log("cannot make " + path_ + " durable: " + std::strerror(errno));
  std::lock_guard<std::mutex> lock(mutex_);
  if (target > committed_) committed_ = target;
}

std::int64_t CVStateJournal::entryBytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entryBytes_;
}
