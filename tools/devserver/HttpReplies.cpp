#include "HttpReplies.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "RawRangeHttpServer.h"
#include "WireFormats.h"

namespace devserver {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

// The bytes the reply may send before a Drop fault cuts it.
std::int64_t AllowedBytes(std::int64_t total, const std::optional<Fault>& drop) {
  if (!drop || drop->kind != Fault::Kind::Drop || !drop->dropAfterBodyBytes) return total;
  return std::min<std::int64_t>(total, static_cast<std::int64_t>(*drop->dropAfterBodyBytes));
}

bool Dropping(const std::optional<Fault>& drop) { return drop && drop->kind == Fault::Kind::Drop; }

// Sends a body of `total` bytes that `read` supplies piece by piece, and ends
// the connection where a Drop fault asks for it.
template <typename Reader>
void SendThroughProvider(httplib::Response& res, std::int64_t total, const std::string& contentType,
                         const std::optional<Fault>& drop, Reader read) {
  if (Dropping(drop) && (!drop->dropAfterBodyBytes || total == 0)) {
    RawRangeHttpServer::DropCurrentConnection();
    return;
  }
  if (total == 0) {
    // An empty body goes as such: the library gives it "Content-Length: 0".
    res.set_content(std::string(), contentType.c_str());
    return;
  }
  const auto allowed = AllowedBytes(total, drop);
  const bool dropping = Dropping(drop);
  // A provider with a known length: the library sends Content-Length, no
  // chunks, and leaves the body as it is.
  res.set_content_provider(
      static_cast<std::size_t>(total), contentType,
      [allowed, total, dropping, read](std::size_t offset, std::size_t length,
                                       httplib::DataSink& sink) {
        const auto at = static_cast<std::int64_t>(offset);
        if (at >= allowed) {
          RawRangeHttpServer::DropCurrentConnection();
          return false;
        }
        const auto n = std::min<std::int64_t>(
            {static_cast<std::int64_t>(length), static_cast<std::int64_t>(kChunk), allowed - at});
        std::string chunk;
        if (!read(at, n, chunk) || !sink.write(chunk.data(), chunk.size())) return false;
        if (dropping && at + static_cast<std::int64_t>(chunk.size()) >= allowed) {
          // The cut falls at or past the end: the bytes are out, the connection ends.
          if (allowed < total) return false;
          RawRangeHttpServer::DropCurrentConnection();
        }
        return true;
      });
}

}  // namespace

void SendBody(httplib::Response& res, int status, std::string body, const std::string& contentType,
              const std::optional<Fault>& drop) {
  res.status = status;
  auto shared = std::make_shared<std::string>(std::move(body));
  SendThroughProvider(res, static_cast<std::int64_t>(shared->size()), contentType, drop,
                      [shared](std::int64_t at, std::int64_t n, std::string& out) {
                        out.assign(shared->data() + at, static_cast<std::size_t>(n));
                        return true;
                      });
}

void SendFileBytes(httplib::Response& res, std::shared_ptr<int> fd, std::int64_t offset,
                   std::int64_t count, const std::string& contentType,
                   const std::optional<Fault>& drop) {
  res.status = 200;
  SendThroughProvider(res, count, contentType, drop,
                      [fd, offset](std::int64_t at, std::int64_t n, std::string& out) {
                        out.resize(static_cast<std::size_t>(n));
                        std::size_t done = 0;
                        while (done < out.size()) {
                          const auto got =
                              ::pread(*fd, out.data() + done, out.size() - done,
                                      static_cast<off_t>(offset + at) + static_cast<off_t>(done));
                          if (got <= 0) return false;  // the file shrank under us
                          done += static_cast<std::size_t>(got);
                        }
                        return true;
                      });
}

std::string FormField(const httplib::Request& req, const std::string& name) {
  if (req.has_param(name.c_str())) return req.get_param_value(name.c_str());
  if (req.has_file(name.c_str())) return req.get_file_value(name.c_str()).content;
  return {};
}

void HandlerTable::Add(const std::string& name, HttpHandler handler) {
  handlers_[AsciiLower(name)] = {name, std::move(handler)};
}

const HttpHandler* HandlerTable::Find(std::string_view name, std::string* canonicalName) const {
  const auto it = handlers_.find(AsciiLower(name));
  if (it == handlers_.end()) return nullptr;
  if (canonicalName) *canonicalName = it->second.first;
  return &it->second.second;
}

void HandlerTable::AddBodyHandler(const std::string& name, BodyHandler handler) {
  bodyHandlers_[AsciiLower(name)] = {name, std::move(handler)};
}

const BodyHandler* HandlerTable::FindBodyHandler(std::string_view name,
                                                 std::string* canonicalName) const {
  const auto it = bodyHandlers_.find(AsciiLower(name));
  if (it == bodyHandlers_.end()) return nullptr;
  if (canonicalName) *canonicalName = it->second.first;
  return &it->second.second;
}

std::vector<std::string> HandlerTable::BodyHandlerNames() const {
  std::vector<std::string> names;
  for (const auto& [key, entry] : bodyHandlers_) names.push_back(entry.first);
  return names;
}

bool DiscardBody(const httplib::ContentReader& body) {
  return body([](const char*, std::size_t) { return true; });
}

}  // namespace devserver
