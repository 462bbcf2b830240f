// The part upload's methods of the mobile service: GetHashes (which parts the
// server has), GetFileHash, FinishPartialUpload (assembles the file) and
// CancelPartialUpload. Parts are named by their base64 MD5.
//
// The finish is strict: every listed hash must name a pending part or a part
// of the stored file, a pending part's hash must stand at its own position in
// the list, and the parts put together must be exactly as long as the full
// size the parts announced; otherwise nothing changes. A client that
// lists a hash for a part that never arrived gets "-5;Parts missing", never a
// file with a hole.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>

#include "FileAccess.h"
#include "MethodTable.h"
#include "PartHashes.h"
#include "ResultTexts.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace fs = std::filesystem;

namespace devserver {
namespace {

// GetHashes answers in <string> elements inside GetHashesResult, errors too.
SoapReply HashList(const std::vector<std::string>& hashes) {
  std::string xml;
  for (const auto& hash : hashes) xml += "<string>" + EscapeXmlText(hash) + "</string>";
  return SoapReply::Xml(std::move(xml));
}

SoapReply HashListError(std::string text) { return HashList({std::move(text)}); }

SoapReply PartialHash(std::string text) {
  auto reply = SoapReply::Text(std::move(text));
  reply.element = "PartialHash";
  return reply;
}

// PartSize in bytes; empty or 0 is the part size the server configures, the
// client's own default. Nothing for a value that is not a size.
std::optional<std::int64_t> PartSizeBytes(const ServerState& state, const SoapCall& call) {
  const auto text = call.Text("PartSize");
  unsigned long long value = 0;
  if (!text.empty() && (!ParseUnsigned(TrimSpaces(text), value) || value > (1ULL << 40))) {
    return std::nullopt;
  }
  if (value > 0) return static_cast<std::int64_t>(value);
  const auto configured = state.options().partSizeKb * 1024;
  return configured > 0 ? configured : 1024 * 1024;
}

std::vector<FilePart> StoredParts(Storage& storage, const fs::path& local, std::int64_t partSize) {
  const auto entry = StatEntry(local);
  if (!entry || entry->isFolder) return {};
  return storage.partHashes().Parts(local, partSize);
}

// The hashes by offset: the pending parts, and where no pending part lies, the
// stored file's parts below the pending full size. The stored parts stay in the
// list while parts are pending: the client skips a part whose hash the server
// has, and checks before its finish that the list holds every part it skipped.
SoapReply GetHashes(ServerState& state, const SoapCall& call) {
  auto found = ResolveCallTarget(state, call.Text("Token"), call.Text("Path"));
  if (auto* reply = std::get_if<SoapReply>(&found)) return HashListError(reply->text);
  const auto& path = std::get<FileTarget>(found).path;
  const auto partSize = PartSizeBytes(state, call);
  if (!partSize) return SoapReply::ClientFault("PartSize is not a size in bytes.");
  if (state.restrictions().Covers(path.storage->name(), path.relative)) {
    return HashListError(kRestricted);
  }
  const auto pending = path.storage->pending().Find(path.relative);
  std::map<std::int64_t, std::string> byOffset;
  for (const auto& part : StoredParts(*path.storage, path.local, *partSize)) {
    if (!pending || part.offset < pending->fullSize) byOffset[part.offset] = part.md5;
  }
  if (pending) {
    for (const auto& part : pending->parts) byOffset[part.start] = part.md5;
  }
  std::vector<std::string> hashes;
  for (auto& [offset, md5] : byOffset) hashes.push_back(std::move(md5));
  return HashList(hashes);
}

bool IsTrue(const std::string& text) {
  return EqualsIgnoreAsciiCase(TrimSpaces(text), "true") || TrimSpaces(text) == "1";
}

// The MD5 of the stored file, or with TempFile "true" of the pending parts
// put together in offset order.
SoapReply GetFileHash(ServerState& state, const SoapCall& call) {
  auto found = ResolveCallTarget(state, call.Text("Token"), call.Text("Path"));
  if (auto* reply = std::get_if<SoapReply>(&found)) return PartialHash(reply->text);
  const auto& path = std::get<FileTarget>(found).path;
  if (state.restrictions().Covers(path.storage->name(), path.relative)) {
    return PartialHash(kRestricted);
  }
  if (IsTrue(call.Text("TempFile"))) {
    const auto pending = path.storage->pending().Find(path.relative);
    if (!pending) return PartialHash(kNotFound);
    Md5Digest digest;
    std::string buffer(1 << 20, '\0');
    for (const auto& part : pending->parts) {
      std::ifstream in(part.file, std::ios::binary);
      while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
             in.gcount() > 0) {
        digest.Update(buffer.data(), static_cast<std::size_t>(in.gcount()));
      }
    }
    return PartialHash(digest.FinishBase64());
  }
  const auto entry = StatEntry(path.local);
  if (!entry || entry->isFolder) return PartialHash(kNotFound);
  return PartialHash(HashFileRange(path.local, 0, -1));
}

// Where the bytes of one listed part come from. A pending part was hashed as it
// arrived (its hash is in its name); a part of the stored file may have changed
// since it was hashed and is checked again.
struct PartSource {
  fs::path file;
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::string md5;
  bool check = true;
};

bool WriteAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Copies length bytes at offset of `in` to the end of `out` in the kernel; false
// when the file system cannot, or the input ends early.
bool CopyInKernel(int in, std::int64_t offset, std::int64_t length, int out) {
  loff_t from = offset;
  while (length > 0) {
    const ssize_t copied = ::copy_file_range(in, &from, out, nullptr, static_cast<std::size_t>(length), 0);
    if (copied < 0 && errno == EINTR) continue;
    if (copied <= 0) return false;
    length -= copied;
  }
  return true;
}

// Writes the parts one after another into `out`; false when a part cannot be
// read whole or no longer matches its hash.
bool Assemble(const std::vector<PartSource>& sources, const fs::path& out) {
  const int output = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (output < 0) return false;
  std::string buffer(1 << 20, '\0');
  auto copy = [&](const PartSource& source) {
    const int input = ::open(source.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (input < 0) return false;
    const off_t written = ::lseek(output, 0, SEEK_END);
    if (!source.check && CopyInKernel(input, source.offset, source.length, output)) {
      ::close(input);
      return true;
    }
    // Read and written here: a part to check, or a file system that cannot copy.
    if (::ftruncate(output, written) != 0 || ::lseek(output, written, SEEK_SET) < 0) {
      ::close(input);
      return false;
    }
    Md5Digest digest;
    std::int64_t at = source.offset;
    std::int64_t left = source.length;
    while (left > 0) {
      const auto want = static_cast<std::size_t>(std::min<std::int64_t>(left, static_cast<std::int64_t>(buffer.size())));
      const ssize_t got = ::pread(input, buffer.data(), want, at);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0 || !WriteAll(output, buffer.data(), static_cast<std::size_t>(got))) {
        ::close(input);
        return false;
      }
      digest.Update(buffer.data(), static_cast<std::size_t>(got));
      at += got;
      left -= got;
    }
    ::close(input);
    return !source.check || digest.FinishBase64() == source.md5;
  };
  const bool whole = std::all_of(sources.begin(), sources.end(), copy);
  return ::close(output) == 0 && whole;
}

// MD5 holds the hashes of all parts in order, as <string> children.
SoapReply FinishPartialUpload(ServerState& state, const SoapCall& call) {
  auto found = ResolveCallTarget(state, call.Text("Token"), call.Text("Path"));
  if (auto* reply = std::get_if<SoapReply>(&found)) return *reply;
  const auto& target = std::get<FileTarget>(found);
  const auto& path = target.path;
  auto& storage = *path.storage;
  const auto partSize = PartSizeBytes(state, call);
  if (!partSize) return SoapReply::ClientFault("PartSize is not a size in bytes.");
  if (state.restrictions().Covers(storage.name(), path.relative)) {
    return SoapReply::Text(kRestricted);
  }
  if (path.components.empty()) return SoapReply::Text(kNotFound);
  if (const auto entry = StatEntry(path.local); entry && entry->isFolder) {
    return SoapReply::Text(kNotFound);
  }
  std::vector<std::string> hashes;
  if (const auto* md5 = call.Find("MD5")) {
    for (const auto& [name, text] : md5->children) {
      if (name == "string") hashes.emplace_back(TrimSpaces(text));
    }
  }

  const auto stored = StoredParts(storage, path.local, *partSize);
  const bool storedMatches =
      fs::is_regular_file(fs::symlink_status(path.local)) &&
      std::equal(stored.begin(), stored.end(), hashes.begin(), hashes.end(),
                 [](const FilePart& part, const std::string& hash) { return part.md5 == hash; });
  // A finish repeated after its reply was lost, or of a file sent again unchanged.
  if (storedMatches) {
    storage.pending().Drop(path.relative);
    return SoapReply::Text(kDone);
  }

  // Pending parts first: they are the newer bytes of the same content.
  const auto pending = storage.pending().Find(path.relative);
  std::map<std::string, PartSource> byHash;
  if (pending) {
    for (const auto& part : pending->parts) {
      byHash.emplace(part.md5, PartSource{part.file, 0, part.end - part.start, part.md5, false});
    }
  }
  for (const auto& part : stored) {
    byHash.emplace(part.md5, PartSource{path.local, part.offset, part.length, part.md5});
  }
  // The list is in part order: where a part of this upload lies at a position,
  // the hash listed there must be that part's. A list in another order would
  // put the file together scrambled.
  if (pending && pending->partSize == *partSize) {
    for (const auto& part : pending->parts) {
      const auto index = static_cast<std::size_t>(part.start / *partSize);
      if (index < hashes.size() && hashes[index] != part.md5) {
        return SoapReply::Text(kPartsMissing);
      }
    }
  }
  std::vector<PartSource> sources;
  std::int64_t total = 0;
  for (const auto& hash : hashes) {
    const auto it = byHash.find(hash);
    if (it == byHash.end()) return SoapReply::Text(kPartsMissing);
    sources.push_back(it->second);
    total += it->second.length;
  }
  // Without pending parts there is no announced size: the listed parts, all
  // the server's own, make the file (a file cut short at a part's end).
  if (sources.empty() || (pending && total != pending->fullSize)) {
    return SoapReply::Text(kPartsMissing);
  }
  const auto prepared = storage.NewTemporaryPath();
  if (!Assemble(sources, prepared)) {
    std::error_code ec;
    fs::remove(prepared, ec);
    return SoapReply::Text(kPartsMissing);
  }
  storage.InstallFile(path.relative, prepared, target.owner.user);
  storage.pending().Drop(path.relative);
  return SoapReply::Text(kDone);
}

// Drops the pending parts; the stored file stays as it is. "0;" also when
// nothing was pending: the client cancels to be sure.
SoapReply CancelPartialUpload(ServerState& state, const SoapCall& call) {
  auto found = ResolveCallTarget(state, call.Text("Token"), call.Text("Path"));
  if (auto* reply = std::get_if<SoapReply>(&found)) return *reply;
  const auto& path = std::get<FileTarget>(found).path;
  path.storage->pending().Drop(path.relative);
  return SoapReply::Text(kDone);
}

}  // namespace

void AddUploadMethods(MethodTable& table) {
  table.Add(Endpoint::Mobile, "GetHashes", GetHashes, HashListError);
  table.Add(Endpoint::Mobile, "GetFileHash", GetFileHash, PartialHash);
  table.Add(Endpoint::Mobile, "FinishPartialUpload", FinishPartialUpload);
  table.Add(Endpoint::Mobile, "CancelPartialUpload", CancelPartialUpload);
}

}  // namespace devserver
