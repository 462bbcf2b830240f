// DownloadStorageFile.ashx: a file of a storage, or one of its kept versions.
// POST form fields `token`, `path`, optional `version`.
// GetFile.ashx (a file shared with the caller) and GetMyFile.ashx (one the
// caller shared): POST form fields `token` (a main token), `shareId`, and
// optional `path`, a file inside a shared folder relative to it, "/" or "\"
// separated (chosen). An unknown or expired share, or a path that would leave
// it, is 404.
// All of them: Range comes raw: absent
// or empty is the whole file, "A-" from A to the end, "A-L" is L bytes from A
// (a length, not a last index); A at or past the end is 200 with an empty body.
// Every good answer is 200: the raw form is not HTTP's range unit, so there is
// no 206 and no Content-Range. A Range in any other form is 400.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FileAccess.h"
#include "HttpReplies.h"
#include "RawRangeHttpServer.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace devserver {
namespace {

constexpr const char* kOctets = "application/octet-stream";

struct ByteRange {
  std::int64_t start = 0;
  std::int64_t count = 0;
};

std::optional<ByteRange> SelectRange(const httplib::Request& req, std::int64_t size) {
  const std::string header = req.get_header_value(kRawRangeHeader);
  const auto value = TrimSpaces(header);
  if (value.empty()) return ByteRange{0, size};
  const auto dash = value.find('-');
  unsigned long long start = 0;
  if (dash == std::string_view::npos || !ParseUnsigned(value.substr(0, dash), start)) {
    return std::nullopt;
  }
  if (start >= static_cast<unsigned long long>(size)) return ByteRange{size, 0};
  const auto left = static_cast<unsigned long long>(size) - start;
  const auto lengthText = value.substr(dash + 1);
  unsigned long long length = left;
  if (!lengthText.empty() && !ParseUnsigned(lengthText, length)) return std::nullopt;
  return ByteRange{static_cast<std::int64_t>(start),
                   static_cast<std::int64_t>(std::min(length, left))};
}

// "gzip" among the accepted codings, and not refused with q=0.
bool AcceptsGzip(const httplib::Request& req) {
  const auto header = req.get_header_value("Accept-Encoding");
  std::string_view rest = header;
  while (!rest.empty()) {
    const auto comma = rest.find(',');
    auto item = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
    const auto semicolon = item.find(';');
    const auto coding = TrimSpaces(item.substr(0, semicolon));
    if (!EqualsIgnoreAsciiCase(coding, "gzip") && coding != "*") continue;
    if (semicolon == std::string_view::npos) return true;
    const auto parameter = TrimSpaces(item.substr(semicolon + 1));
    if (!StartsWithIgnoreAsciiCase(parameter, "q=")) return true;
    const auto q = TrimSpaces(parameter.substr(2));
    return q.find_first_not_of("0.") != std::string_view::npos;
  }
  return false;
}

std::shared_ptr<int> OpenForReading(const std::filesystem::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return nullptr;
  return std::shared_ptr<int>(new int(fd), [](int* p) {
    ::close(*p);
    delete p;
  });
}

// The bytes of file that the request's Range selects.
void ServeFile(const std::filesystem::path& file, const httplib::Request& req, httplib::Response& res,
               const std::optional<Fault>& drop) {
  auto fd = OpenForReading(file);
  struct stat st {};
  if (!fd || ::fstat(*fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    SendBody(res, 404, "", kOctets, drop);
    return;
  }
  const auto range = SelectRange(req, static_cast<std::int64_t>(st.st_size));
  if (!range) {
    SendBody(res, 400, "", kOctets, drop);
    return;
  }
  if (range->count == 0) {
    SendBody(res, 200, "", kOctets, drop);
    return;
  }
  if (AcceptsGzip(req)) {
    // One gzip member of exactly the selected bytes, its compressed length in
    // Content-Length: the client inflates once it has that many bytes.
    std::string selected(static_cast<std::size_t>(range->count), '\0');
    const auto got =
        ::pread(*fd, selected.data(), selected.size(), static_cast<off_t>(range->start));
    if (got != static_cast<ssize_t>(selected.size())) {
      SendBody(res, 500, "", kOctets, drop);
      return;
    }
    res.set_header("Content-Encoding", "gzip");
    SendBody(res, 200, GzipMember(selected), kOctets, drop);
    return;
  }
  SendFileBytes(res, fd, range->start, range->count, kOctets, drop);
}

void DownloadStorageFile(ServerState& state, const httplib::Request& req, httplib::Response& res,
                         const std::optional<Fault>& drop) {
  auto access = ResolveFileAccess(state, FormField(req, "token"), FormField(req, "path"));
  if (auto* error = std::get_if<AccessError>(&access)) {
    SendBody(res, *error == AccessError::BadToken ? 401 : 404, "", kOctets, drop);
    return;
  }
  const auto& path = std::get<FileTarget>(access).path;
  if (state.restrictions().Covers(path.storage->name(), path.relative)) {
    SendBody(res, 403, "", kOctets, drop);
    return;
  }
  std::filesystem::path file = path.local;
  const auto version = FormField(req, "version");
  if (!version.empty()) {
    unsigned long long number = 0;
    std::optional<std::filesystem::path> content;
    if (ParseUnsigned(version, number) && number < 1'000'000'000) {
      content = path.storage->versions().ContentOf(path.relative, static_cast<int>(number));
    }
    if (!content) {
      SendBody(res, 404, "", kOctets, drop);
      return;
    }
    file = *content;
  }
  ServeFile(file, req, res, drop);
}

HttpHandler SharedFile(bool mine) {
  return [mine](ServerState& state, const httplib::Request& req, httplib::Response& res,
                const std::optional<Fault>& drop) {
    const auto owner = state.TokenUser(FormField(req, "token"));
    if (!owner || owner->kind != TokenKind::Main) {
      SendBody(res, 401, "", kOctets, drop);
      return;
    }
    const auto share = FindShare(state, owner->user, FormField(req, "shareId"), mine);
    const auto path = share ? ResolveInShare(state, *share, FormField(req, "path")) : std::nullopt;
    if (!path) {
      SendBody(res, 404, "", kOctets, drop);
      return;
    }
    ServeFile(path->local, req, res, drop);
  };
}

}  // namespace

void AddDownloadHandlers(HandlerTable& table) {
  table.Add("DownloadStorageFile.ashx", DownloadStorageFile);
  table.Add("GetFile.ashx", SharedFile(false));
  table.Add("GetMyFile.ashx", SharedFile(true));
}

}  // namespace devserver
