#pragma once
// HttpReplies: how every reply leaves the server, and the handler table.
// A body always goes with its Content-Length (never chunked) and is never
// compressed by the HTTP library; a download compresses on its own terms.
// A Drop fault cuts the body after its byte count, or sends nothing at all.

#include <httplib.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Faults.h"

namespace devserver {

class ServerState;

void SendBody(httplib::Response& res, int status, std::string body, const std::string& contentType,
              const std::optional<Fault>& drop);

// `count` bytes of an open file from `offset`, read as they are sent.
void SendFileBytes(httplib::Response& res, std::shared_ptr<int> fd, std::int64_t offset,
                   std::int64_t count, const std::string& contentType,
                   const std::optional<Fault>& drop);

// A form field of a POST (URL-encoded or multipart), or a query field.
std::string FormField(const httplib::Request& req, const std::string& name);

// The handler answers the request; `drop` is a pending Drop fault for its reply.
using HttpHandler = std::function<void(ServerState&, const httplib::Request&, httplib::Response&,
                                       const std::optional<Fault>& drop)>;

// A handler that reads its own body piece by piece, for bodies too large to
// hold (uploads). It calls `body` exactly once, also when it refuses the
// request, so that the connection stays in step with the client. `fault` is a
// pending Drop fault: with a byte count the connection dies once that many
// body bytes came in and nothing is kept; without one, or for a shorter body,
// the request runs and the connection closes instead of the reply.
using BodyHandler =
    std::function<void(ServerState&, const httplib::Request&, httplib::Response&,
                       const httplib::ContentReader& body, const std::optional<Fault>& fault)>;

class HandlerTable {
 public:
  void Add(const std::string& name, HttpHandler handler);
  void AddBodyHandler(const std::string& name, BodyHandler handler);
  // Handler names match without regard to case: the client spells both
  // "GetFile.ashx" and "getFile.ashx". The name as the server spells it.
  const HttpHandler* Find(std::string_view name, std::string* canonicalName = nullptr) const;
  const BodyHandler* FindBodyHandler(std::string_view name,
                                     std::string* canonicalName = nullptr) const;
  // The names of the handlers that read their own body.
  std::vector<std::string> BodyHandlerNames() const;

 private:
  std::map<std::string, std::pair<std::string, HttpHandler>> handlers_;  // lower-case name
  std::map<std::string, std::pair<std::string, BodyHandler>> bodyHandlers_;
};

// Reads and forgets the rest of a body, for a request refused before its body.
bool DiscardBody(const httplib::ContentReader& body);

void AddDownloadHandlers(HandlerTable& table);
void AddUploadHandlers(HandlerTable& table);

}  // namespace devserver
