#include "VersionStore.h"

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "WireFormats.h"

namespace fs = std::filesystem;

namespace devserver {
namespace {

std::string Md5Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("MD5 failed");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 0x0F];
  }
  return out;
}

std::optional<VersionRecord> ReadRecord(const fs::path& infoFile, int version,
                                        const std::string& path) {
  std::ifstream in(infoFile);
  if (!in) return std::nullopt;
  VersionRecord record;
  record.version = version;
  record.path = path;
  std::string line;
  while (std::getline(in, line)) {
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    const auto key = line.substr(0, eq);
    const auto value = line.substr(eq + 1);
    unsigned long long number = 0;
    if (key == "created" && ParseUnsigned(value, number)) {
      record.createdMs = static_cast<std::int64_t>(number);
    } else if (key == "size" && ParseUnsigned(value, number)) {
      record.size = static_cast<std::int64_t>(number);
    } else if (key == "owner") {
      record.owner = value;
    }
  }
  return record;
}

}  // namespace

VersionStore::VersionStore(fs::path root) : root_(std::move(root)) {}

fs::path VersionStore::FolderOf(const std::string& relativePath) const {
  return root_ / Md5Hex(relativePath);
}

VersionRecord VersionStore::Keep(const std::string& relativePath, const fs::path& file,
                                 const std::string& owner) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto folder = FolderOf(relativePath);
  fs::create_directories(folder);
  if (!fs::exists(folder / "path")) {
    std::ofstream(folder / "path", std::ios::binary) << relativePath;
  }
  const auto existing = ListLocked(relativePath);
  VersionRecord record;
  record.version = existing.empty() ? 1 : existing.back().version + 1;
  record.path = relativePath;
  record.owner = owner;
  record.createdMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
  const auto content = folder / std::to_string(record.version);
  fs::copy_file(file, content, fs::copy_options::overwrite_existing);
  record.size = static_cast<std::int64_t>(fs::file_size(content));
  // The record is written last: a version without it is not listed.
  std::ofstream info(folder / (std::to_string(record.version) + ".info"), std::ios::binary);
  info << "created=" << record.createdMs << "\nsize=" << record.size << "\nowner=" << owner << "\n";
  if (!info.flush()) throw std::runtime_error("cannot write version record");
  return record;
}

std::vector<VersionRecord> VersionStore::List(const std::string& relativePath) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return ListLocked(relativePath);
}

std::vector<VersionRecord> VersionStore::ListLocked(const std::string& relativePath) const {
  std::vector<VersionRecord> records;
  const auto folder = FolderOf(relativePath);
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    const auto name = entry.path().filename().string();
    if (name.size() <= 5 || name.substr(name.size() - 5) != ".info") continue;
    unsigned long long number = 0;
    if (!ParseUnsigned(name.substr(0, name.size() - 5), number) || number == 0 ||
        number > 1'000'000'000) {
      continue;
    }
    if (auto record = ReadRecord(entry.path(), static_cast<int>(number), relativePath)) {
      records.push_back(*record);
    }
  }
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.version < b.version; });
  return records;
}

std::optional<fs::path> VersionStore::ContentOf(const std::string& relativePath,
                                                int version) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto folder = FolderOf(relativePath);
  std::error_code ec;
  if (version <= 0 || !fs::is_regular_file(folder / (std::to_string(version) + ".info"), ec)) {
    return std::nullopt;
  }
  auto content = folder / std::to_string(version);
  if (!fs::is_regular_file(content, ec)) return std::nullopt;
  return content;
}

}  // namespace devserver
