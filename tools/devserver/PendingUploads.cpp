#include "PendingUploads.h"

#include <openssl/evp.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "WireFormats.h"

namespace fs = std::filesystem;

namespace devserver {
namespace {

constexpr const char* kSetFile = "set";
constexpr std::string_view kPartSuffix = ".part";

// Base64 holds "/", which a file name cannot: "+" and "/" become "-" and "_".
std::string FileSafe(std::string md5) {
  for (auto& c : md5) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  return md5;
}

std::string FromFileSafe(std::string text) {
  for (auto& c : text) {
    if (c == '-') c = '+';
    if (c == '_') c = '/';
  }
  return text;
}

std::string FolderName(const std::string& relativePath) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(relativePath.data(), relativePath.size(), digest, &length, EVP_sha256(),
                 nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  return FileSafe(Base64Encode(std::string_view(reinterpret_cast<char*>(digest), length)));
}

// "<start>.<end>.<md5>.part"
std::optional<PendingPart> ParsePartName(const fs::path& file) {
  auto name = file.filename().string();
  if (name.size() <= kPartSuffix.size() ||
      name.compare(name.size() - kPartSuffix.size(), kPartSuffix.size(), kPartSuffix) != 0) {
    return std::nullopt;
  }
  name.resize(name.size() - kPartSuffix.size());
  const auto first = name.find('.');
  const auto second = first == std::string::npos ? first : name.find('.', first + 1);
  if (second == std::string::npos) return std::nullopt;
  unsigned long long start = 0;
  unsigned long long end = 0;
  if (!ParseUnsigned(std::string_view(name).substr(0, first), start) ||
      !ParseUnsigned(std::string_view(name).substr(first + 1, second - first - 1), end) ||
      end <= start || end > (1ULL << 62)) {
    return std::nullopt;
  }
  PendingPart part;
  part.start = static_cast<std::int64_t>(start);
  part.end = static_cast<std::int64_t>(end);
  part.md5 = FromFileSafe(name.substr(second + 1));
  part.file = file;
  return part;
}

struct SetSizes {
  std::int64_t fullSize = 0;
  std::int64_t partSize = 0;
};

std::optional<SetSizes> ReadSizes(const fs::path& folder) {
  std::ifstream in(folder / kSetFile);
  if (!in) return std::nullopt;
  SetSizes sizes;
  bool full = false;
  bool part = false;
  std::string line;
  while (std::getline(in, line)) {
    const auto eq = line.find('=');
    unsigned long long value = 0;
    if (eq == std::string::npos || !ParseUnsigned(line.substr(eq + 1), value)) continue;
    if (line.compare(0, eq, "fullSize") == 0) {
      sizes.fullSize = static_cast<std::int64_t>(value);
      full = true;
    } else if (line.compare(0, eq, "partSize") == 0) {
      sizes.partSize = static_cast<std::int64_t>(value);
      part = true;
    }
  }
  if (!full || !part) return std::nullopt;
  return sizes;
}

void WriteSizes(const fs::path& folder, const SetSizes& sizes) {
  const auto temporary = folder / (std::string(kSetFile) + ".new");
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << "fullSize=" << sizes.fullSize << "\npartSize=" << sizes.partSize << "\n";
    if (!out.flush()) throw std::runtime_error("cannot write " + temporary.string());
  }
  fs::rename(temporary, folder / kSetFile);
}

std::vector<PendingPart> ListParts(const fs::path& folder) {
  std::vector<PendingPart> parts;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (auto part = ParsePartName(it->path())) parts.push_back(std::move(*part));
  }
  std::sort(parts.begin(), parts.end(),
            [](const auto& a, const auto& b) { return a.start < b.start; });
  return parts;
}

}  // namespace

PendingUploads::PendingUploads(fs::path root) : root_(std::move(root)) {}

fs::path PendingUploads::FolderOf(const std::string& relativePath) const {
  return root_ / FolderName(relativePath);
}

bool PendingUploads::AddPart(const std::string& relativePath, std::int64_t fullSize,
                             std::int64_t partSize, std::int64_t start, std::int64_t end,
                             const std::string& md5, const fs::path& received) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto folder = FolderOf(relativePath);
  const auto sizes = ReadSizes(folder);
  const bool dropped = sizes && (sizes->fullSize != fullSize || sizes->partSize != partSize);
  if (!sizes || dropped) {
    fs::remove_all(folder);  // the older set, or a leftover without its sizes
    fs::create_directories(folder);
    std::ofstream(folder / "path", std::ios::binary) << relativePath;
    WriteSizes(folder, SetSizes{fullSize, partSize});
  }
  for (const auto& part : ListParts(folder)) {
    if (part.start == start) fs::remove(part.file);
  }
  const auto name = std::to_string(start) + "." + std::to_string(end) + "." + FileSafe(md5) +
                    std::string(kPartSuffix);
  fs::rename(received, folder / name);
  return dropped;
}

std::optional<PendingSet> PendingUploads::Find(const std::string& relativePath) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto folder = FolderOf(relativePath);
  const auto sizes = ReadSizes(folder);
  if (!sizes) return std::nullopt;
  PendingSet set;
  set.fullSize = sizes->fullSize;
  set.partSize = sizes->partSize;
  set.parts = ListParts(folder);
  if (set.parts.empty()) return std::nullopt;
  return set;
}

bool PendingUploads::Drop(const std::string& relativePath) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::error_code ec;
  return fs::remove_all(FolderOf(relativePath), ec) > 0;
}

}  // namespace devserver
