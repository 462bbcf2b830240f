// UploadStorageFile.ashx: a file into a storage, whole or in parts. POST with
// the query `token`, `path`, and either `Length` (the body is the whole file)
// or `FullSize` and `PartSize` in KB (the body is one part, with Content-MD5
// and a Range "bytes=S-E" whose end is exclusive). 200 on success, 401 for a
// bad token, 500 for anything else. Bodies go to disk as they arrive: a file of
// any size passes without being held in memory.
//
// A whole file replaces the stored one at once (the earlier content becomes a
// version) and ends any part upload of the path. A part waits among the
// storage's pending parts until FinishPartialUpload assembles them.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "FileAccess.h"
#include "HttpReplies.h"
#include "PartHashes.h"
#include "RawRangeHttpServer.h"
#include "ServerState.h"
#include "WireFormats.h"

namespace devserver {
namespace {

constexpr const char* kPlain = "text/plain";
// Sizes above this are refused: offsets and sums stay far from overflow.
constexpr unsigned long long kMaxSize = 1ULL << 50;

struct WholePlan {
  std::int64_t length = 0;
};

struct PartPlan {
  std::int64_t fullSize = 0;
  std::int64_t partSize = 0;  // bytes
  std::int64_t start = 0;
  std::int64_t end = 0;
};

// What the request asks for, read from its query and headers before its body.
struct Plan {
  Storage* storage = nullptr;
  std::string relative;
  std::string owner;
  std::optional<WholePlan> whole;
  std::optional<PartPlan> part;
  std::string contentMd5;  // as sent; empty when absent
  std::int64_t expectedLength = 0;
};

struct Refusal {
  int status = 500;
  std::string reason;
};

std::optional<std::int64_t> SizeParam(const httplib::Request& req, const char* name) {
  unsigned long long value = 0;
  if (!req.has_param(name) || !ParseUnsigned(req.get_param_value(name), value) ||
      value > kMaxSize) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(value);
}

// "bytes=S-E", E exclusive.
std::optional<std::pair<std::int64_t, std::int64_t>> ParseUploadRange(std::string_view value) {
  value = TrimSpaces(value);
  if (!StartsWithIgnoreAsciiCase(value, "bytes=")) return std::nullopt;
  value.remove_prefix(6);
  const auto dash = value.find('-');
  unsigned long long start = 0;
  unsigned long long end = 0;
  if (dash == std::string_view::npos || !ParseUnsigned(value.substr(0, dash), start) ||
      !ParseUnsigned(value.substr(dash + 1), end) || end > kMaxSize) {
    return std::nullopt;
  }
  return std::make_pair(static_cast<std::int64_t>(start), static_cast<std::int64_t>(end));
}

std::variant<Plan, Refusal> MakePlan(ServerState& state, const httplib::Request& req) {
  auto access = ResolveFileAccess(state, FormField(req, "token"), FormField(req, "path"));
  if (auto* error = std::get_if<AccessError>(&access)) {
    if (*error == AccessError::BadToken) return Refusal{401, "bad token"};
    return Refusal{500, "no such place"};
  }
  auto& target = std::get<FileTarget>(access);
  Plan plan;
  plan.storage = target.path.storage;
  plan.relative = target.path.relative;
  plan.owner = target.owner.user;
  if (target.path.components.empty()) return Refusal{500, "the storage's root is a folder"};
  if (auto refusal = plan.storage->NewNameRefusal(target.path.components, target.path.existing);
      !refusal.empty()) {
    return Refusal{500, "the share refuses the name: " + refusal};
  }
  if (state.restrictions().Covers(plan.storage->name(), plan.relative)) {
    return Refusal{500, "restricted"};
  }
  if (const auto entry = StatEntry(target.path.local); entry && entry->isFolder) {
    return Refusal{500, "a folder stands at the path"};
  }
  plan.contentMd5 = std::string(TrimSpaces(req.get_header_value("Content-MD5")));

  if (req.has_param("Length")) {
    const auto length = SizeParam(req, "Length");
    if (!length) return Refusal{500, "bad Length"};
    plan.whole = WholePlan{*length};
    plan.expectedLength = *length;
    return plan;
  }
  const auto fullSize = SizeParam(req, "FullSize");
  const auto partKb = SizeParam(req, "PartSize");
  if (!fullSize || !partKb) return Refusal{500, "neither Length nor FullSize and PartSize"};
  if (*partKb == 0 || *partKb > (1LL << 30)) return Refusal{500, "bad PartSize"};
  const auto range = ParseUploadRange(req.get_header_value(kRawRangeHeader));
  if (!range) return Refusal{500, "a part needs a Range \"bytes=S-E\""};
  if (plan.contentMd5.empty()) return Refusal{500, "a part needs its Content-MD5"};
  PartPlan part{*fullSize, *partKb * 1024, range->first, range->second};
  // Parts lie on the grid of the part size, each as long as the file allows: a
  // part elsewhere means the client computed its offsets wrongly.
  const auto expectedEnd = std::min(part.start + part.partSize, part.fullSize);
  if (part.start >= part.fullSize || part.start % part.partSize != 0 || part.end != expectedEnd) {
    return Refusal{500, "the Range is not a part of the file"};
  }
  plan.part = part;
  plan.expectedLength = part.end - part.start;
  return plan;
}

class OutputFile {
 public:
  explicit OutputFile(const std::filesystem::path& path)
      : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)) {
    if (fd_ < 0) throw std::runtime_error("cannot create " + path.string());
  }
  ~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  bool Write(const char* data, std::size_t length) {
    while (length > 0) {
      const auto written = ::write(fd_, data, length);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      data += written;
      length -= static_cast<std::size_t>(written);
    }
    return true;
  }
  bool Close() {
    const int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
};

struct Received {
  bool connectionOk = false;
  bool written = false;  // every byte reached the file
  std::int64_t length = 0;
  std::string md5;
};

// Reads the whole body once into `file`, counting and hashing it; bytes past the
// expected length are read and dropped. A Drop fault with a byte count ends
// the connection after that many bytes.
Received Receive(const httplib::ContentReader& body, const std::filesystem::path& file,
                 std::int64_t expectedLength, const std::optional<Fault>& fault, bool& bodyRead) {
  Received received;
  OutputFile output(file);
  Md5Digest digest;
  bool writing = true;
  std::optional<std::int64_t> cutAfter;
  if (fault && fault->kind == Fault::Kind::Drop && fault->dropAfterBodyBytes) {
    cutAfter = static_cast<std::int64_t>(*fault->dropAfterBodyBytes);
  }
  bodyRead = true;
  received.connectionOk = body([&](const char* data, std::size_t length) {
    auto n = static_cast<std::int64_t>(length);
    if (cutAfter && received.length + n >= *cutAfter) {
      RawRangeHttpServer::DropCurrentConnection();
      return false;
    }
    digest.Update(data, length);
    if (writing && received.length + n <= expectedLength) {
      writing = output.Write(data, length);
    } else {
      writing = false;
    }
    received.length += n;
    return true;
  });
  received.written = output.Close() && writing;
  received.md5 = digest.FinishBase64();
  return received;
}

void Answer(ServerState& state, httplib::Response& res, const Refusal& refusal,
            const std::string& path) {
  state.Log("UploadStorageFile.ashx " + path + ": " + std::to_string(refusal.status) + ", " +
            refusal.reason);
  SendBody(res, refusal.status, "", kPlain, std::nullopt);
}

void UploadStorageFile(ServerState& state, const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader& body, const std::optional<Fault>& fault) {
  const auto path = FormField(req, "path");
  auto made = MakePlan(state, req);
  if (auto* refusal = std::get_if<Refusal>(&made)) {
    DiscardBody(body);
    Answer(state, res, *refusal, path);
    return;
  }
  const auto& plan = std::get<Plan>(made);
  std::filesystem::path temporary;
  auto removeTemporary = [&temporary] {
    std::error_code ec;
    if (!temporary.empty()) std::filesystem::remove(temporary, ec);
  };
  bool bodyRead = false;
  try {
    temporary = plan.storage->NewTemporaryPath();
    const auto received = Receive(body, temporary, plan.expectedLength, fault, bodyRead);
    if (!received.connectionOk) {
      removeTemporary();
      state.Log("UploadStorageFile.ashx " + path + ": the body did not arrive whole");
      SendBody(res, 500, "", kPlain, std::nullopt);
      return;
    }
    std::optional<Refusal> refusal;
    if (received.length != plan.expectedLength) {
      refusal = Refusal{500, "the body has " + std::to_string(received.length) +
                                 " bytes, announced " + std::to_string(plan.expectedLength)};
    } else if (!plan.contentMd5.empty() && plan.contentMd5 != received.md5) {
      refusal =
          Refusal{500, "Content-MD5 " + plan.contentMd5 + " but the body's is " + received.md5};
    } else if (!received.written) {
      refusal = Refusal{500, "the body could not be written"};
    }
    if (refusal) {
      removeTemporary();
      Answer(state, res, *refusal, path);
      return;
    }
    if (plan.whole) {
      plan.storage->InstallFile(plan.relative, temporary, plan.owner);
      plan.storage->pending().Drop(plan.relative);
    } else {
      const auto& part = *plan.part;
      if (plan.storage->pending().AddPart(plan.relative, part.fullSize, part.partSize, part.start,
                                          part.end, received.md5, temporary)) {
        state.Log("UploadStorageFile.ashx " + path +
                  ": the sizes changed, the earlier pending parts are dropped");
      }
    }
  } catch (const std::exception& e) {
    removeTemporary();
    // A failure before the body was read must still read it, as a refusal does.
    if (!bodyRead) DiscardBody(body);
    Answer(state, res, Refusal{500, e.what()}, path);
    return;
  }
  const bool dropReply = fault && fault->kind == Fault::Kind::Drop;
  SendBody(res, 200, "", kPlain, dropReply ? fault : std::nullopt);
}

}  // namespace

void AddUploadHandlers(HandlerTable& table) {
  table.AddBodyHandler("UploadStorageFile.ashx", UploadStorageFile);
}

}  // namespace devserver
