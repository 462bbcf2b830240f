#pragma once
// PartHashes: the MD5s that part uploads are checked and matched by. A part is
// named by the base64 MD5 of its bytes (24 characters), as the client's
// Content-MD5 header and its hash lists carry it.

#include <openssl/evp.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace devserver {

// An MD5 fed piece by piece, for bodies that are never held whole.
class Md5Digest {
 public:
  Md5Digest();
  void Update(const char* data, std::size_t length);
  // The base64 text of the 16 digest bytes. Once only.
  std::string FinishBase64();

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

struct FilePart {
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::string md5;  // base64
};

// The file cut into parts of partSize bytes from offset 0, the last one
// shorter; none for an empty file. Throws std::runtime_error when it cannot be read.
std::vector<FilePart> HashFileParts(const std::filesystem::path& file, std::int64_t partSize);

// Base64 MD5 of `count` bytes of the file from `offset`, or of the whole file
// when count < 0. Throws std::runtime_error when it cannot be read.
std::string HashFileRange(const std::filesystem::path& file, std::int64_t offset,
                          std::int64_t count);

}  // namespace devserver
