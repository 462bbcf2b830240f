#include "CurlTransport.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "Clock.h"
#include "HTTPURLHelpers.h"
#include "ServerTrust.h"

using namespace std::chrono_literals;

namespace {

constexpr long kReceiveBufferBytes = 512L * 1024;
constexpr long kSendBufferBytes = 2L * 1024 * 1024;  // libcurl's largest

// How often a running exchange looks at its cancel flag and its idle time; a
// cancel also wakes it at once.
constexpr std::chrono::nanoseconds kPollInterval = 100ms;

void GlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// A share handle with one lock per kind of shared data. The connection cache is
// never shared: a connection belongs to the thread that opened it.
class ShareHandle {
 public:
  explicit ShareHandle(bool withCookies) {
    GlobalInit();
    share_ = curl_share_init();
    if (!share_) return;
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &ShareHandle::Lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &ShareHandle::Unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    if (withCookies) curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  }
  CURLSH* get() const { return share_; }

 private:
  static std::size_t Index(curl_lock_data data) {
    return data >= 0 && data < CURL_LOCK_DATA_LAST ? static_cast<std::size_t>(data) : 0;
  }
  static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<ShareHandle*>(user)->locks_[Index(data)].lock();
  }
  static void Unlock(CURL*, curl_lock_data data, void* user) {
    static_cast<ShareHandle*>(user)->locks_[Index(data)].unlock();
  }

  CURLSH* share_ = nullptr;
  std::array<std::mutex, CURL_LOCK_DATA_LAST> locks_;
};

// Both live to the end of the process: threads may still hold easy handles
// attached to them while static objects go away.
ShareHandle& CookieShare() {
  static ShareHandle* share = new ShareHandle(true);
  return *share;
}
ShareHandle& PlainShare() {
  static ShareHandle* share = new ShareHandle(false);
  return *share;
}

// The handles of one thread, reused by every exchange that thread runs.
struct ThreadHandles {
  ThreadHandles() {
    GlobalInit();
    multi = curl_multi_init();
    easy = curl_easy_init();
  }
  ~ThreadHandles() {
    if (easy) curl_easy_cleanup(easy);
    if (multi) curl_multi_cleanup(multi);
  }
  ThreadHandles(const ThreadHandles&) = delete;
  ThreadHandles& operator=(const ThreadHandles&) = delete;

  CURLM* multi = nullptr;
  CURL* easy = nullptr;
  // Until when a kept connection to an origin may be used again.
  std::map<std::string, Clock::Steady::time_point> keptUntil;
};

ThreadHandles& Handles() {
  thread_local ThreadHandles handles;
  return handles;
}

std::string Trim(const std::string& text) {
  std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  std::size_t last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool ValidHeaderName(const std::string& name) {
  if (name.empty()) return false;
  return std::none_of(name.begin(), name.end(), [](unsigned char c) {
    return c <= ' ' || c == ':' || c == 0x7f;
  });
}

bool ValidHeaderValue(const std::string& value) {
  return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

bool Append(Slist& list, const std::string& line) {
  curl_slist* next = curl_slist_append(list.get(), line.c_str());
  if (!next) return false;
  list.release();
  list.reset(next);
  return true;
}

// The state of one exchange, reached from curl's callbacks.
struct Transfer {
  Transfer(HTTPExchange& exchange, const Clock& clock) : exchange(exchange), clock(clock) {
    Touch();
  }
  void Touch() { lastActivity = clock.SteadyNow(); }
  void DeliverHead() {
    if (headDelivered) return;
    headDelivered = true;
    if (exchange.onResponseHead) exchange.onResponseHead(reader.head());
  }
  void Abort(const char* what) {
    stopRequested = true;
    callbackError = what;
  }
  bool StopAsked() {
    if (!stopRequested && exchange.shouldStop && exchange.shouldStop()) stopRequested = true;
    return stopRequested;
  }

  HTTPExchange& exchange;
  const Clock& clock;
  Clock::Steady::time_point lastActivity;
  ResponseHeadReader reader;
  bool headDelivered = false;
  bool stopRequested = false;
  bool timedOut = false;
  bool bodyFailed = false;
  std::string bodyError;
  std::string callbackError;  // an exception met in a callback, which curl must not see
  curl_off_t lastUp = 0;
  curl_off_t lastDown = 0;
};

std::size_t HandleHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  std::size_t length = size * count;
  transfer->Touch();
  if (transfer->headDelivered) return length;  // trailers of a chunked body
  transfer->reader.AddLine(std::string(data, length));
  return length;
}

std::size_t HandleWrite(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  std::size_t length = size * count;
  transfer->Touch();
  transfer->DeliverHead();
  if (transfer->StopAsked()) return 0;
  if (transfer->exchange.onBody && !transfer->exchange.onBody(data, length)) {
    transfer->stopRequested = true;
    return 0;
  }
  return length;
}

std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  HTTPBodyReader* body = transfer->exchange.body;
  if (!body) return 0;
  std::int64_t got = -1;
  try {
    got = body->Read(buffer, size * count);
  } catch (const std::exception& e) {
    transfer->bodyFailed = true;
    transfer->bodyError = e.what();
    return CURL_READFUNC_ABORT;
  }
  if (got < 0) {
    transfer->bodyFailed = true;
    transfer->bodyError = body->LastError();
    return CURL_READFUNC_ABORT;
  }
  if (got > 0) transfer->Touch();
  return static_cast<std::size_t>(got);
}

int OnSeek(void* user, curl_off_t offset, int origin) {
  auto* transfer = static_cast<Transfer*>(user);
  HTTPBodyReader* body = transfer->exchange.body;
  if (!body || origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
  return body->Seek(offset) ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

int HandleProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto* transfer = static_cast<Transfer*>(user);
  if (downloaded != transfer->lastDown) {
    transfer->lastDown = downloaded;
    transfer->Touch();
  }
  if (uploaded != transfer->lastUp) {
    transfer->lastUp = uploaded;
    transfer->Touch();
    if (transfer->exchange.onUploadProgress && transfer->exchange.body) {
      transfer->exchange.onUploadProgress(uploaded, transfer->exchange.body->Size());
    }
  }
  return transfer->StopAsked() ? 1 : 0;
}

// curl's callbacks are C: no exception may leave them.
std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* user) {
  try {
    return HandleHeader(data, size, count, user);
  } catch (const std::exception& e) {
    static_cast<Transfer*>(user)->Abort(e.what());
    return 0;
  }
}

std::size_t OnWrite(char* data, std::size_t size, std::size_t count, void* user) {
  try {
    return HandleWrite(data, size, count, user);
  } catch (const std::exception& e) {
    static_cast<Transfer*>(user)->Abort(e.what());
    return 0;
  }
}

int OnProgress(void* user, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
               curl_off_t ulnow) {
  try {
    return HandleProgress(user, dltotal, dlnow, ultotal, ulnow);
  } catch (const std::exception& e) {
    static_cast<Transfer*>(user)->Abort(e.what());
    return 1;
  }
}

bool IsSSLError(CURLcode code) {
  switch (code) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_USE_SSL_FAILED:
      return true;
    default:
      return false;
  }
}

long CeilSeconds(std::chrono::nanoseconds duration) {
  double seconds = std::chrono::duration<double>(duration).count();
  return std::max(1L, static_cast<long>(std::ceil(seconds)));
}

long CeilMilliseconds(std::chrono::nanoseconds duration) {
  double ms = std::chrono::duration<double, std::milli>(duration).count();
  return std::max(1L, static_cast<long>(std::ceil(ms)));
}

}  // namespace

std::shared_ptr<CurlTransport> CurlTransport::Shared() {
  static std::shared_ptr<CurlTransport>* shared =
      new std::shared_ptr<CurlTransport>(std::make_shared<CurlTransport>());
  return *shared;
}

void CurlTransport::ClearCookies() {
  GlobalInit();
  CURL* easy = curl_easy_init();
  if (!easy) return;
  curl_easy_setopt(easy, CURLOPT_SHARE, CookieShare().get());
  curl_easy_setopt(easy, CURLOPT_COOKIELIST, "ALL");
  curl_easy_cleanup(easy);
}

HTTPExchangeResult CurlTransport::Perform(HTTPExchange& exchange) {
  using Outcome = HTTPExchangeResult::Outcome;
  HTTPExchangeResult result;
  std::shared_ptr<const Clock> clock = exchange.clock ? exchange.clock : std::make_shared<Clock>();

  if (!HTTPURLHelpers::IsHTTPURL(exchange.url)) {
    result.outcome = Outcome::InvalidRequest;
    result.detail = "not an http or https URL: " + exchange.url;
    return result;
  }
  ThreadHandles& handles = Handles();
  if (!handles.multi || !handles.easy) {
    result.outcome = Outcome::ConnectionFailure;
    result.detail = "Unable to start HTTP connection";
    return result;
  }

  // The headers exactly as given. curl's own Expect and Content-Type are turned off,
  // and the body's length is always curl's, never a caller's guess.
  Slist headerList;
  bool hasContentType = false;
  for (const auto& [name, value] : exchange.headers.fields()) {
    if (!ValidHeaderName(name) || !ValidHeaderValue(value)) {
      result.outcome = Outcome::InvalidRequest;
      result.detail = "the header '" + name + "' cannot be sent";
      return result;
    }
    if (ASIHeaderFields::NamesEqual(name, "Content-Length") ||
        ASIHeaderFields::NamesEqual(name, "Expect")) {
      continue;
    }
    if (ASIHeaderFields::NamesEqual(name, "Content-Type")) hasContentType = true;
    // "Name;" is curl's way to send a header with an empty value.
    if (!Append(headerList, value.empty() ? name + ";" : name + ": " + value)) {
      result.outcome = Outcome::ConnectionFailure;
      result.detail = "out of memory";
      return result;
    }
  }
  Append(headerList, "Expect:");
  bool sendsBody = exchange.body != nullptr || exchange.method == "POST";
  if (sendsBody && !hasContentType) Append(headerList, "Content-Type:");

  Transfer transfer(exchange, *clock);
  if (exchange.body && !exchange.body->Seek(0)) {
    result.outcome = Outcome::BodyReadFailure;
    result.detail = "the request body cannot be rewound";
    return result;
  }

  std::string origin = HTTPURLHelpers::Origin(exchange.url);
  bool fresh = exchange.freshConnection || !exchange.attemptPersistentConnection;
  auto kept = handles.keptUntil.find(origin);
  if (kept != handles.keptUntil.end() && clock->SteadyNow() >= kept->second) {
    fresh = true;
    handles.keptUntil.erase(kept);
  }

  CURL* easy = handles.easy;
  curl_easy_reset(easy);
  char errorBuffer[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(easy, CURLOPT_URL, exchange.url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTP_TRANSFER_DECODING, 1L);
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // A server trusted by the key the user accepted is checked by that key and its
  // host name; every other one by the system's authorities.
  const std::string pin = origin.rfind("https://", 0) == 0 ? ServerTrust::PinFor(exchange.url) : "";
  const std::string authorities = ServerTrust::AuthorityFile();
  if (!authorities.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, authorities.c_str());
  if (!pin.empty()) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_PINNEDPUBLICKEY, pin.c_str());
  } else {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, exchange.validatesSecureCertificate ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, exchange.validatesSecureCertificate ? 2L : 0L);
  }
  // The cookie engine is turned on for the exchange and off again after it (see
  // below); the other share has no cookie store.
  if (exchange.useCookies) {
    curl_easy_setopt(easy, CURLOPT_SHARE, CookieShare().get());
    curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");
  } else {
    curl_easy_setopt(easy, CURLOPT_SHARE, PlainShare().get());
  }
  // Inactivity limits only: a long transfer that keeps moving never times out.
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, CeilMilliseconds(exchange.inactivityLimit));
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, CeilSeconds(exchange.inactivityLimit));
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 0L);
  curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, CeilSeconds(exchange.persistentConnectionTimeout));
  curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, exchange.attemptPersistentConnection ? 0L : 1L);
  curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, fresh ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList.get());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &OnHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  // Large pieces: a body of a GiB reaches its file in a few thousand writes, not in 16 KiB ones.
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &OnWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &OnProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  if (!exchange.username.empty()) {
    curl_easy_setopt(easy, CURLOPT_USERNAME, exchange.username.c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, exchange.password.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, exchange.presentCredentialsBeforeChallenge
                                                 ? static_cast<long>(CURLAUTH_BASIC)
                                                 : static_cast<long>(CURLAUTH_ANY));
  }

  if (exchange.body) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &OnRead);
    curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &OnSeek);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(exchange.body->Size()));
    if (exchange.method != "POST") {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, exchange.method.c_str());
    }
  } else if (exchange.method == "GET") {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else if (exchange.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (exchange.method == "POST") {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
  } else {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, exchange.method.c_str());
  }

  CURLM* multi = handles.multi;
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
    result.outcome = Outcome::ConnectionFailure;
    result.detail = "Unable to start HTTP connection";
    return result;
  }
  if (exchange.control) exchange.control->SetWaker([multi] { curl_multi_wakeup(multi); });

  std::chrono::nanoseconds poll = std::max<std::chrono::nanoseconds>(clock->Scaled(kPollInterval), 1ms);
  bool multiFailed = false;
  for (;;) {
    int running = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK) {
      multiFailed = true;
      break;
    }
    if (running == 0 || transfer.stopRequested) break;
    if (transfer.StopAsked()) break;
    auto idle = clock->SteadyNow() - transfer.lastActivity;
    if (idle >= exchange.inactivityLimit) {
      transfer.timedOut = true;
      break;
    }
    auto wait = std::min<std::chrono::nanoseconds>(poll, exchange.inactivityLimit - idle);
    curl_multi_poll(multi, nullptr, 0, static_cast<int>(CeilMilliseconds(wait)), nullptr);
  }

  CURLcode code = CURLE_OK;
  bool done = false;
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
    if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
      code = message->data.result;
      done = true;
    }
  }
  long newConnections = 0;
  curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &newConnections);
  if (exchange.control) exchange.control->SetWaker(nullptr);
  curl_multi_remove_handle(multi, easy);
  // curl_easy_reset would lose the list of cookie files that turned the engine on
  // (a leak per exchange); clearing it here frees it and leaves the shared store be.
  if (exchange.useCookies) curl_easy_setopt(easy, CURLOPT_COOKIEFILE, static_cast<char*>(nullptr));
  // Nothing of this exchange may reach its callbacks again.
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, nullptr);

  std::string curlText = errorBuffer[0] ? std::string(errorBuffer) : curl_easy_strerror(code);
  if (!transfer.callbackError.empty()) {
    result.outcome = Outcome::ConnectionFailure;
    result.detail = "the response could not be handled: " + transfer.callbackError;
  } else if (transfer.bodyFailed) {
    result.outcome = Outcome::BodyReadFailure;
    result.detail = transfer.bodyError;
  } else if (transfer.stopRequested) {
    result.outcome = Outcome::Stopped;
  } else if (transfer.timedOut) {
    result.outcome = Outcome::TimedOut;
    result.detail = "no data moved for the time-out";
  } else if (multiFailed || !done) {
    result.outcome = Outcome::ConnectionFailure;
    result.detail = "the transfer ended without a result";
  } else if (code == CURLE_OK) {
    transfer.DeliverHead();
    result.outcome = Outcome::Completed;
    std::optional<std::chrono::nanoseconds> keep =
        exchange.attemptPersistentConnection
            ? ResponseHeadReader::KeepFor(transfer.reader.head(), exchange.persistentConnectionTimeout)
            : std::nullopt;
    if (keep) {
      handles.keptUntil[origin] = clock->SteadyNow() + *keep;
    } else {
      handles.keptUntil.erase(origin);
    }
  } else if (code == CURLE_OPERATION_TIMEDOUT) {
    result.outcome = Outcome::TimedOut;
    result.detail = curlText;
  } else if (code == CURLE_URL_MALFORMAT) {
    result.outcome = Outcome::InvalidRequest;
    result.detail = curlText;
  } else if (code == CURLE_SSL_PINNEDPUBKEYNOTMATCH) {
    result.outcome = Outcome::ServerKeyChanged;
    result.detail = curlText;
    ServerTrust::RecordFailure(exchange.url, ServerTrust::Failure::Kind::KeyChanged, curlText);
  } else if (IsSSLError(code)) {
    result.outcome = Outcome::SSLFailure;
    result.detail = curlText;
    if (code == CURLE_PEER_FAILED_VERIFICATION) {
      ServerTrust::RecordFailure(exchange.url, ServerTrust::Failure::Kind::Untrusted, curlText);
    }
  } else {
    result.outcome = Outcome::ConnectionFailure;
    result.detail = curlText;
    result.connectionReused = newConnections == 0 &&
                              (code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR ||
                               code == CURLE_GOT_NOTHING);
  }
  if (result.outcome != Outcome::Completed) handles.keptUntil.erase(origin);
  return result;
}

void ResponseHeadReader::AddLine(std::string line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.rfind("HTTP/", 0) == 0) {
    // A new status line: an interim response (100, an answered challenge) is replaced.
    head_ = HTTPResponseHead();
    head_.statusLine = line;
    std::size_t space = line.find(' ');
    if (space != std::string::npos && line.size() >= space + 4) {
      std::string code = line.substr(space + 1, 3);
      if (std::all_of(code.begin(), code.end(), [](unsigned char c) { return std::isdigit(c); })) {
        head_.statusCode = std::stoi(code);
      }
    }
    lastHeaderName_.clear();
    return;
  }
  if (line.empty()) return;
  if (line[0] == ' ' || line[0] == '\t') {
    // An old-style folded line continues the header before it.
    if (!lastHeaderName_.empty()) {
      head_.headers.set(lastHeaderName_, head_.headers.valueForKey(lastHeaderName_) + " " + Trim(line));
    }
    return;
  }
  std::size_t colon = line.find(':');
  if (colon == std::string::npos) return;
  std::string name = Trim(line.substr(0, colon));
  if (name.empty()) return;
  head_.headers.append(name, Trim(line.substr(colon + 1)));
  lastHeaderName_ = name;
}

std::optional<std::chrono::nanoseconds> ResponseHeadReader::KeepFor(const HTTPResponseHead& head,
                                                                    std::chrono::nanoseconds fallback) {
  if (Lower(head.headers.valueForKey("Connection")).find("close") != std::string::npos) {
    return std::nullopt;
  }
  std::string keepAlive = Lower(head.headers.valueForKey("Keep-Alive"));
  std::size_t timeout = keepAlive.find("timeout=");
  std::size_t max = keepAlive.find("max=");
  if (timeout == std::string::npos || max == std::string::npos) return fallback;
  long seconds = std::strtol(keepAlive.c_str() + timeout + 8, nullptr, 10);
  long requests = std::strtol(keepAlive.c_str() + max + 4, nullptr, 10);
  if (seconds <= 0 || requests <= 0) return std::nullopt;
  // The server's own figure, in real seconds; a huge one would overflow in
  // nanoseconds, and no idle connection is worth keeping past an hour.
  constexpr long kLongestKeep = 3600;
  return std::chrono::seconds(std::min(seconds, kLongestKeep));
}
