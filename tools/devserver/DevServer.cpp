#include "DevServer.h"

#include <arpa/inet.h>
#include <libxml/parser.h>

#include <cctype>
#include <chrono>
#include <stdexcept>

#include "HttpReplies.h"
#include "MethodTable.h"
#include "RawRangeHttpServer.h"
#include "ServerState.h"
#include "SoapEnvelope.h"
#include "Storage.h"
#include "WireFormats.h"

namespace devserver {
namespace {

// The last segment of the request's path: "CorvalinkMobile.asmx" from
// "/corvalink/CorvalinkMobile.asmx". The base URL may have a path of its own.
std::string_view LastSegment(std::string_view path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The headers as the client sent them, Range under its own name again.
httplib::Headers SentHeaders(const httplib::Request& req) {
  httplib::Headers headers;
  for (const auto& [name, value] : req.headers) {
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT") continue;  // added by the library
    if (EqualsIgnoreAsciiCase(name, kEmptyRangeHeader)) {
      headers.emplace("Range", "");
    } else {
      headers.emplace(EqualsIgnoreAsciiCase(name, kRawRangeHeader) ? "Range" : name, value);
    }
  }
  return headers;
}

// A pattern for the library's router that matches a path ending in the
// handler's name in any letter case, as the handler table matches it.
std::string AnyCasePathPattern(const std::string& name) {
  std::string pattern = "(.*/)?";
  for (char c : name) {
    const auto lower = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto upper = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (lower != upper) {
      pattern += std::string("[") + lower + upper + "]";
    } else if (std::isalnum(static_cast<unsigned char>(c))) {
      pattern += c;
    } else {
      pattern += std::string("\\") + c;
    }
  }
  return pattern;
}

RecordedRequest BaseRecord(const httplib::Request& req, const std::string& endpoint) {
  RecordedRequest record;
  record.endpoint = endpoint;
  record.target = req.target;
  record.headers = SentHeaders(req);
  record.body = req.body;
  return record;
}

// The calls that count as a user's action in the usage history, when they
// succeed: the action's name and the fields that hold the path and, for a
// rename, the earlier one. A download counts once, not per resumed range; an
// upload in parts counts when FinishPartialUpload assembles it.
struct UsageRow {
  const char* name;
  const char* action;
  const char* tokenField;
  const char* pathField;
  const char* subjectField;
};
constexpr UsageRow kUsageRows[] = {
    {"FinishPartialUpload", "Uploaded", "Token", "Path", nullptr},
    {"MoveFile", "Renamed", "Token", "NewFileName", "CurrentFileName"},
    {"DeleteFile", "Deleted", "Token", "Path", nullptr},
    {"DeleteFolder", "Deleted", "Token", "Path", nullptr},
    {"CreateFolder", "Folder created", "Token", "Path", nullptr},
    {"SwitchToVersion", "Version restored", "Token", "Path", nullptr},
    {"UploadStorageFile.ashx", "Uploaded", "token", "path", nullptr},
    {"DownloadStorageFile.ashx", "Downloaded", "token", "path", nullptr},
};

void NoteUsage(ServerState& state, const std::string& name, const RecordedRequest& request) {
  for (const auto& row : kUsageRows) {
    if (name != row.name) continue;
    if (name == "UploadStorageFile.ashx" && !request.HasField("Length")) return;  // a part
    if (name == "DownloadStorageFile.ashx") {
      const std::string range = request.Header("Range");
      if (!range.empty() && range.rfind("0-", 0) != 0) return;  // a resumed download
    }
    const auto user = state.TokenUser(request.Field(row.tokenField));
    if (!user) return;
    state.usage().Note({user->user, row.action, request.Field(row.pathField),
                        row.subjectField ? request.Field(row.subjectField) : "", std::chrono::system_clock::now()});
    return;
  }
}

}  // namespace

bool IsLoopbackHost(const std::string& host) {
  if (host == "localhost") return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
  return false;
}

// The HTTP side: routes every POST to a SOAP endpoint or a handler by the last
// segment of its path, applies faults, records requests and
// notes the users' actions that succeeded.
class DevServer::Routes {
 public:
  explicit Routes(ServerState& state) : state_(state) {
    AddSessionMethods(methods_);
    AddFileMethods(methods_);
    AddFileChangeMethods(methods_);
    AddUploadMethods(methods_);
    AddShareMethods(methods_);
    AddUploadRequestMethods(methods_);
    AddDownloadHandlers(handlers_);
    AddUploadHandlers(handlers_);
    http_.set_keep_alive_max_count(100);
    // A kept-alive connection holds a thread while it idles; the client may keep
    // several, and tests start more.
    http_.new_task_queue = [] { return new httplib::ThreadPool(32); };
    http_.set_exception_handler(
        [this](const httplib::Request& req, httplib::Response& res, std::exception_ptr error) {
          std::string what = "unknown error";
          try {
            std::rethrow_exception(error);
          } catch (const std::exception& e) {
            what = e.what();
          } catch (...) {
          }
          state_.Log("exception in " + req.path + ": " + what);
          SendBody(res, 500, "", "text/plain", std::nullopt);
        });
    http_.Post(".*",
               [this](const httplib::Request& req, httplib::Response& res) { Route(req, res); });
    // Handlers that read their own body are routed by the library before it
    // reads a body into memory.
    for (const auto& name : handlers_.BodyHandlerNames()) {
      http_.Post(AnyCasePathPattern(name),
                 [this](const httplib::Request& req, httplib::Response& res,
                        const httplib::ContentReader& body) { RouteWithBody(req, res, body); });
    }
  }

  RawRangeHttpServer& http() { return http_; }

 private:
  void Route(const httplib::Request& req, httplib::Response& res) {
    const auto segment = LastSegment(req.path);
    if (const auto endpoint = EndpointForName(segment)) {
      Soap(*endpoint, req, res);
      return;
    }
    std::string handlerName;
    if (const auto* handler = handlers_.Find(segment, &handlerName)) {
      Handler(handlerName, *handler, req, res);
      return;
    }
    state_.Log("POST " + req.path + ": no such endpoint");
    SendBody(res, 404, "", "text/plain", std::nullopt);
  }

  // A fault's Delay: false when the server stops meanwhile.
  bool Delay(const std::optional<Fault>& fault) {
    if (!fault || fault->kind != Fault::Kind::Delay) return true;
    if (state_.Pause(fault->delay)) return true;
    RawRangeHttpServer::DropCurrentConnection();
    return false;
  }

  static std::optional<Fault> DropOf(const std::optional<Fault>& fault) {
    if (fault && fault->kind == Fault::Kind::Drop) return fault;
    return std::nullopt;
  }

  void Soap(Endpoint endpoint, const httplib::Request& req, httplib::Response& res) {
    const std::string endpointName = EndpointName(endpoint);
    auto record = BaseRecord(req, endpointName);
    SoapCall call;
    try {
      call = ParseSoapRequest(req.body);
    } catch (const SoapParseError& error) {
      record.name = endpointName;
      state_.requests().Record(record);
      state_.Log("POST " + endpointName + ": " + error.message);
      const auto reply = SoapReply::ClientFault(error.message);
      SendBody(res, SoapReplyStatus(reply), BuildSoapReply("", reply), kSoapContentType,
               std::nullopt);
      return;
    }
    record.name = call.method;
    for (const auto& [name, value] : call.params) {
      record.fields[name] = value.text;
      if (!value.children.empty()) record.children[name] = value.children;
    }
    state_.requests().Record(record);
    state_.Log("POST " + endpointName + " " + call.method);

    const auto fault = state_.faults().Take(endpointName + "/" + call.method, call.method);
    if (!Delay(fault)) return;
    if (fault && fault->kind == Fault::Kind::Status) {
      // A failing service answers 500 with a SOAP fault.
      const auto reply = SoapReply::ServerFault("Injected failure.");
      SendBody(res, fault->status, fault->status == 500 ? BuildSoapReply(call.method, reply) : "",
               kSoapContentType, std::nullopt);
      return;
    }
    SoapReply reply;
    if (fault && fault->kind == Fault::Kind::Result) {
      reply = methods_.ResultReply(endpoint, call.method, fault->result);
    } else if (const auto* method = methods_.Find(endpoint, call.method)) {
      try {
        reply = (*method)(state_, call);
        if (!reply.isFault && reply.text.rfind("0;", 0) == 0) NoteUsage(state_, call.method, record);
      } catch (const std::exception& e) {
        state_.Log(call.method + " failed: " + e.what());
        reply = SoapReply::ServerFault(e.what());
      }
    } else {
      // An unknown method is a fault with HTTP 500, as the service answers a
      // request it has no operation for; the client sees "no usable answer".
      // Not "-1;": that would make the client drop a good token and repeat.
      reply = SoapReply::ClientFault("Server did not recognize the method '" + call.method + "'.");
    }
    SendBody(res, SoapReplyStatus(reply), BuildSoapReply(call.method, reply), kSoapContentType,
             DropOf(fault));
  }

  RecordedRequest RecordHandlerRequest(const std::string& name, const httplib::Request& req) {
    auto record = BaseRecord(req, name);
    record.name = name;
    for (const auto& [field, value] : req.params) record.fields.emplace(field, value);
    for (const auto& [field, file] : req.files) record.fields.emplace(field, file.content);
    state_.requests().Record(record);
    state_.Log("POST " + name + " path=" + FormField(req, "path") +
               " Range=" + req.get_header_value(kRawRangeHeader));
    return record;
  }

  void RouteWithBody(const httplib::Request& req, httplib::Response& res,
                     const httplib::ContentReader& body) {
    std::string name;
    const auto* handler = handlers_.FindBodyHandler(LastSegment(req.path), &name);
    if (!handler) {
      DiscardBody(body);
      SendBody(res, 404, "", "text/plain", std::nullopt);
      return;
    }
    const auto record = RecordHandlerRequest(name, req);
    const auto fault = state_.faults().Take(name, name);
    if (!Delay(fault)) return;
    if (fault && (fault->kind == Fault::Kind::Status || fault->kind == Fault::Kind::Result)) {
      // The body is read all the same: the connection must reach the next request.
      DiscardBody(body);
      const bool status = fault->kind == Fault::Kind::Status;
      SendBody(res, status ? fault->status : 200, status ? "" : fault->result, "text/plain",
               std::nullopt);
      return;
    }
    (*handler)(state_, req, res, body, DropOf(fault));
    if (res.status == 200) NoteUsage(state_, name, record);
  }

  void Handler(const std::string& name, const HttpHandler& handler, const httplib::Request& req,
               httplib::Response& res) {
    const auto record = RecordHandlerRequest(name, req);
    const auto fault = state_.faults().Take(name, name);
    if (!Delay(fault)) return;
    if (fault && fault->kind == Fault::Kind::Status) {
      SendBody(res, fault->status, "", "text/plain", std::nullopt);
      return;
    }
    if (fault && fault->kind == Fault::Kind::Result) {
      // A handler has no result string; the text comes as a plain 200 body.
      SendBody(res, 200, fault->result, "text/plain", std::nullopt);
      return;
    }
    handler(state_, req, res, DropOf(fault));
    if (res.status == 200) NoteUsage(state_, name, record);
  }

  ServerState& state_;
  MethodTable methods_;
  HandlerTable handlers_;
  RawRangeHttpServer http_;
};

DevServer::DevServer(ServerOptions options) : options_(std::move(options)) {
  if (!options_.allowRemote && !IsLoopbackHost(options_.host)) {
    throw std::invalid_argument("refusing to listen on " + options_.host +
                                ": not a loopback address (allow it explicitly)");
  }
  if (options_.port < 0 || options_.port > 65535) throw std::invalid_argument("bad port");
  xmlInitParser();  // once, before the connection threads parse
  state_ = std::make_unique<ServerState>(options_);
  routes_ = std::make_unique<Routes>(*state_);
  if (!options_.tlsCertificate.empty() || !options_.tlsKey.empty()) {
    routes_->http().UseTls(options_.tlsCertificate, options_.tlsKey);
  }
}

DevServer::~DevServer() { Stop(); }

void DevServer::Start() {
  if (started_) throw std::logic_error("the server was started before");
  auto& http = routes_->http();
  if (options_.port == 0) {
    port_ = http.bind_to_any_port(options_.host);
    if (port_ < 0) port_ = 0;
  } else if (http.bind_to_port(options_.host, options_.port)) {
    port_ = options_.port;
  }
  if (port_ <= 0) {
    throw std::runtime_error("cannot listen on " + options_.host + ":" +
                             std::to_string(options_.port));
  }
  started_ = true;
  thread_ = std::thread([&http] { http.listen_after_bind(); });
  // A stop that comes before the accept loop runs would be lost.
  while (!http.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void DevServer::Stop() {
  if (!started_) return;
  state_->BeginStop();
  routes_->http().stop();
  if (thread_.joinable()) thread_.join();
}

std::string DevServer::BaseUrl() const {
  const bool v6 = options_.host.find(':') != std::string::npos;
  return std::string(routes_->http().tls() ? "https://" : "http://") + (v6 ? "[" + options_.host + "]" : options_.host) + ":" +
         std::to_string(port_) + "/";
}

void DevServer::FailNext(const std::string& name, Fault fault, int count) {
  state_->faults().Add(name, std::move(fault), count);
}

void DevServer::ClearFaults() { state_->faults().Clear(); }

std::optional<RecordedRequest> DevServer::LastRequest(const std::string& name) const {
  return state_->requests().Last(name);
}

std::vector<RecordedRequest> DevServer::Requests(const std::string& name) const {
  return state_->requests().Recent(name);
}

int DevServer::CallCount(const std::string& name) const { return state_->requests().Count(name); }

void DevServer::ClearRequests() { state_->requests().Clear(); }

void DevServer::MarkRestricted(const std::string& storage, const std::string& relativePath) {
  if (!state_->storages().Find(storage)) throw std::invalid_argument("unknown storage " + storage);
  state_->restrictions().Add(storage, relativePath);
}

void DevServer::ClearRestricted() { state_->restrictions().Clear(); }

void DevServer::InvalidateToken(const std::string& token) { state_->tokens().Invalidate(token); }

void DevServer::InvalidateAllTokens() { state_->tokens().InvalidateAll(); }

void DevServer::SetVersionReply(std::string version) {
  state_->SetVersionReply(std::move(version));
}

void DevServer::AddUploadRequest(const std::string& guid, const std::string& user) {
  state_->AddUploadRequest(guid, user);
}

namespace {
Storage& Need(ServerState& state, const std::string& name) {
  auto* storage = state.storages().Find(name);
  if (!storage) throw std::invalid_argument("unknown storage " + name);
  return *storage;
}
}  // namespace

std::string DevServer::LocationOf(const std::string& storage) const {
  return Need(*state_, storage).location();
}

std::filesystem::path DevServer::FolderOf(const std::string& storage) const {
  return Need(*state_, storage).folder();
}

void DevServer::WriteFile(const std::string& storage, const std::string& relativePath,
                          const std::string& content, const std::string& owner,
                          std::optional<std::int64_t> modified) {
  Need(*state_, storage).WriteFile(relativePath, content, owner, modified);
}

bool DevServer::RemovePath(const std::string& storage, const std::string& relativePath,
                           const std::string& owner) {
  return Need(*state_, storage).Remove(relativePath, owner);
}

std::vector<VersionRecord> DevServer::Versions(const std::string& storage,
                                               const std::string& relativePath) const {
  auto components = SplitRelativePath(relativePath);
  if (!components) throw std::invalid_argument("bad path " + relativePath);
  return Need(*state_, storage).versions().List(JoinRelativePath(*components));
}

std::optional<PendingSet> DevServer::PendingParts(const std::string& storage,
                                                  const std::string& relativePath) const {
  auto components = SplitRelativePath(relativePath);
  if (!components) throw std::invalid_argument("bad path " + relativePath);
  return Need(*state_, storage).pending().Find(JoinRelativePath(*components));
}

}  // namespace devserver
