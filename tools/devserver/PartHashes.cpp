#include "PartHashes.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "WireFormats.h"

namespace devserver {
namespace {

constexpr std::size_t kReadChunk = 1 << 20;

class ReadOnlyFile {
 public:
  explicit ReadOnlyFile(const std::filesystem::path& file)
      : fd_(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)) {
    if (fd_ < 0) throw std::runtime_error("cannot open " + file.string());
  }
  ~ReadOnlyFile() { ::close(fd_); }
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

  // Feeds `count` bytes from `offset` to the digest (to the end when count < 0);
  // the number of bytes read.
  std::int64_t Feed(Md5Digest& digest, std::int64_t offset, std::int64_t count,
                    std::string& buffer) const {
    std::int64_t done = 0;
    while (count < 0 || done < count) {
      auto want = buffer.size();
      if (count >= 0) want = std::min<std::int64_t>(want, count - done);
      const auto got = ::pread(fd_, buffer.data(), want, static_cast<off_t>(offset + done));
      if (got < 0) throw std::runtime_error("read failed");
      if (got == 0) break;
      digest.Update(buffer.data(), static_cast<std::size_t>(got));
      done += got;
    }
    return done;
  }

 private:
  int fd_;
};

}  // namespace

Md5Digest::Md5Digest() : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("MD5 unavailable");
  }
}

void Md5Digest::Update(const char* data, std::size_t length) {
  if (EVP_DigestUpdate(context_.get(), data, length) != 1) throw std::runtime_error("MD5 failed");
}

std::string Md5Digest::FinishBase64() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context_.get(), digest, &length) != 1) {
    throw std::runtime_error("MD5 failed");
  }
  return Base64Encode(std::string_view(reinterpret_cast<const char*>(digest), length));
}

std::vector<FilePart> HashFileParts(const std::filesystem::path& file, std::int64_t partSize) {
  if (partSize <= 0) throw std::invalid_argument("part size must be positive");
  const ReadOnlyFile input(file);
  std::string buffer(kReadChunk, '\0');
  std::vector<FilePart> parts;
  for (std::int64_t offset = 0;; offset += partSize) {
    Md5Digest digest;
    const auto length = input.Feed(digest, offset, partSize, buffer);
    if (length == 0) break;
    parts.push_back(FilePart{offset, length, digest.FinishBase64()});
    if (length < partSize) break;
  }
  return parts;
}

std::string HashFileRange(const std::filesystem::path& file, std::int64_t offset,
                          std::int64_t count) {
  const ReadOnlyFile input(file);
  std::string buffer(kReadChunk, '\0');
  Md5Digest digest;
  input.Feed(digest, offset, count, buffer);
  return digest.FinishBase64();
}

}  // namespace devserver
