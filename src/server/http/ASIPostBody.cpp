#include "ASIPostBody.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {
void SetError(std::string* error, const std::string& text) {
  if (error) *error = text;
}
}  // namespace

ASIPostBody::~ASIPostBody() { Clear(); }

void ASIPostBody::Clear() {
  CloseFile();
  segments_.clear();
  for (const auto& path : temporaryFiles_) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
  }
  temporaryFiles_.clear();
  segmentIndex_ = 0;
  segmentPosition_ = 0;
}

void ASIPostBody::CloseFile() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  fdSegment_ = static_cast<std::size_t>(-1);
}

void ASIPostBody::AppendData(const char* bytes, std::size_t length) {
  if (length == 0) return;
  if (segments_.empty() || segments_.back().isFile) segments_.emplace_back();
  segments_.back().bytes.append(bytes, length);
}

bool ASIPostBody::AppendFile(const std::string& path, std::int64_t offset, std::int64_t length,
                             std::string* error) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    SetError(error, "Failed to get attributes for file at path '" + path + "'");
    return false;
  }
  if (offset < 0 || length < 0 || offset + length > static_cast<std::int64_t>(info.st_size)) {
    SetError(error, "The file at path '" + path + "' is shorter than the part to send");
    return false;
  }
  if (length == 0) return true;
  Segment segment;
  segment.isFile = true;
  segment.path = path;
  segment.offset = offset;
  segment.length = length;
  segments_.push_back(std::move(segment));
  return true;
}

bool ASIPostBody::AppendFile(const std::string& path, std::string* error) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    SetError(error, "Failed to get attributes for file at path '" + path + "'");
    return false;
  }
  return AppendFile(path, 0, static_cast<std::int64_t>(info.st_size), error);
}

bool ASIPostBody::AdoptTemporaryFile(const std::string& path, std::string* error) {
  temporaryFiles_.push_back(path);
  return AppendFile(path, error);
}

bool ASIPostBody::HasFiles() const {
  for (const auto& segment : segments_) {
    if (segment.isFile) return true;
  }
  return false;
}

std::int64_t ASIPostBody::Size() const {
  std::int64_t total = 0;
  for (const auto& segment : segments_) total += segment.Length();
  return total;
}

bool ASIPostBody::Seek(std::int64_t offset) {
  if (offset < 0 || offset > Size()) return false;
  segmentIndex_ = 0;
  segmentPosition_ = offset;
  while (segmentIndex_ < segments_.size() &&
         segmentPosition_ >= segments_[segmentIndex_].Length()) {
    segmentPosition_ -= segments_[segmentIndex_].Length();
    ++segmentIndex_;
  }
  return true;
}

std::int64_t ASIPostBody::Read(char* buffer, std::size_t length) {
  while (segmentIndex_ < segments_.size() &&
         segmentPosition_ >= segments_[segmentIndex_].Length()) {
    ++segmentIndex_;
    segmentPosition_ = 0;
  }
  if (segmentIndex_ >= segments_.size() || length == 0) return 0;
  const Segment& segment = segments_[segmentIndex_];
  std::int64_t left = segment.Length() - segmentPosition_;
  std::size_t wanted = static_cast<std::size_t>(std::min<std::int64_t>(left, static_cast<std::int64_t>(length)));
  if (!segment.isFile) {
    std::memcpy(buffer, segment.bytes.data() + segmentPosition_, wanted);
    segmentPosition_ += static_cast<std::int64_t>(wanted);
    return static_cast<std::int64_t>(wanted);
  }
  if (fdSegment_ != segmentIndex_) {
    CloseFile();
    fd_ = ::open(segment.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      lastError_ = "Unable to open the file at path '" + segment.path + "': " + std::strerror(errno);
      return -1;
    }
    fdSegment_ = segmentIndex_;
  }
  ssize_t got;
  do {
    got = ::pread(fd_, buffer, wanted, static_cast<off_t>(segment.offset + segmentPosition_));
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    lastError_ = "Unable to read the file at path '" + segment.path + "': " + std::strerror(errno);
    return -1;
  }
  if (got == 0) {
    // The length went out in Content-Length already: a shorter file cannot be sent.
    lastError_ = "The file at path '" + segment.path + "' became shorter while it was sent";
    return -1;
  }
  segmentPosition_ += got;
  return got;
}
