#include "ASIHTTPRequest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <locale>
#include <map>

#include "ASIDataCompressor.h"
#include "ASIDataDecompressor.h"
#include "ASIOperationQueue.h"
#include "ASIPostBody.h"
#include "CVEventLogger.h"
#include "Clock.h"
#include "CurlTransport.h"
#include "HTTPTransport.h"
#include "HTTPURLHelpers.h"

#ifndef CV_HTTP_APP_VERSION
#define CV_HTTP_APP_VERSION "0"
#endif

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* kClass = "ASIHTTPRequest";
constexpr const char* kApplicationName = "Corvalink Sync";

// Class-wide values. The objects behind the pointers live to the end of the
// process: queue threads may still use them while static objects go away.
std::mutex gClassLock;

std::shared_ptr<const Clock>& ClockSlot() {
  static auto* slot = new std::shared_ptr<const Clock>(std::make_shared<Clock>());
  return *slot;
}
std::shared_ptr<HTTPTransport>& TransportSlot() {
  static auto* slot = new std::shared_ptr<HTTPTransport>();
  return *slot;
}
double& DefaultTimeOutSlot() {
  static double seconds = ASIHTTPRequest::kDefaultTimeOutSeconds;
  return seconds;
}
std::string& UserAgentSlot() {
  static auto* slot = new std::string();
  return *slot;
}

// Credentials that worked, by origin, for requests with session persistence.
struct SessionStore {
  std::mutex sessionCredentialsLock;
  std::map<std::string, std::pair<std::string, std::string>> byOrigin;
};
SessionStore& Session() {
  static auto* store = new SessionStore();
  return *store;
}

// The process's console stands in for the system log; the dated logs stay
// readable for the user.
void WriteSystemLog(const std::string& message) { CVEventLogger::CommonLogWriting(message, ""); }

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// A delegate's exception stays with the delegate: it is logged and the request
// goes on (it must never unwind through the transport).
template <typename Event>
void Guarded(const char* event, Event&& deliver) {
  try {
    deliver();
  } catch (const std::exception& e) {
    CVEventLogger::LogException(kClass, event, e.what());
  } catch (...) {
    CVEventLogger::LogException(kClass, event, "unknown exception");
  }
}

bool IsRedirectStatus(std::int32_t status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool IsSuccess(std::int32_t status) { return status >= 200 && status <= 299; }

std::optional<ASIStringEncoding> EncodingForCharset(const std::string& contentType) {
  std::string lower = Lower(contentType);
  std::size_t at = lower.find("charset=");
  if (at == std::string::npos) return std::nullopt;
  std::string charset = lower.substr(at + 8);
  std::size_t end = charset.find_first_of("; ");
  if (end != std::string::npos) charset = charset.substr(0, end);
  charset.erase(std::remove(charset.begin(), charset.end(), '"'), charset.end());
  if (charset == "utf-8" || charset == "utf8") return ASIUTF8StringEncoding;
  if (charset == "iso-8859-1" || charset == "latin1" || charset == "iso_8859-1") {
    return ASILatin1StringEncoding;
  }
  if (charset == "us-ascii" || charset == "ascii") return ASIASCIIStringEncoding;
  return std::nullopt;
}

std::string Latin1ToUTF8(const std::string& bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      text.push_back(static_cast<char>(c));
    } else {
      text.push_back(static_cast<char>(0xC0 | (c >> 6)));
      text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return text;
}

std::string LocaleIdentifier() {
  std::string name;
  try {
    name = std::locale("").name();
  } catch (const std::exception&) {
    name.clear();
  }
  // A mixed locale names each category; the messages one says the language.
  std::size_t messages = name.find("LC_MESSAGES=");
  if (messages != std::string::npos) name = name.substr(messages + 12);
  std::size_t end = name.find_first_of(".@;");
  if (end != std::string::npos) name = name.substr(0, end);
  if (name.empty() || name == "C" || name == "POSIX") name = "en_US";
  return name;
}

}  // namespace

// --- Class-wide ---

std::shared_ptr<ASIHTTPRequest> ASIHTTPRequest::requestWithURL(const std::string& url) {
  return std::make_shared<ASIHTTPRequest>(ConstructionKey(), url);
}

ASIHTTPRequest::ASIHTTPRequest(ConstructionKey, std::string url)
    : url_(url),
      originalURL_(std::move(url)),
      timeOutSeconds_(defaultTimeOutSeconds()),
      control_(std::make_shared<HTTPExchangeControl>()) {}

ASIHTTPRequest::~ASIHTTPRequest() { CloseDownloadFile(); }

void ASIHTTPRequest::SetClock(std::shared_ptr<const Clock> clock) {
  std::lock_guard<std::mutex> lock(gClassLock);
  ClockSlot() = clock ? std::move(clock) : std::make_shared<Clock>();
}

std::shared_ptr<const Clock> ASIHTTPRequest::GetClock() {
  std::lock_guard<std::mutex> lock(gClassLock);
  return ClockSlot();
}

void ASIHTTPRequest::SetTransport(std::shared_ptr<HTTPTransport> transport) {
  std::lock_guard<std::mutex> lock(gClassLock);
  TransportSlot() = std::move(transport);
}

double ASIHTTPRequest::defaultTimeOutSeconds() {
  std::lock_guard<std::mutex> lock(gClassLock);
  return DefaultTimeOutSlot();
}

void ASIHTTPRequest::setDefaultTimeOutSeconds(double seconds) {
  std::lock_guard<std::mutex> lock(gClassLock);
  DefaultTimeOutSlot() = seconds;
}

std::string ASIHTTPRequest::defaultUserAgentString() {
  {
    std::lock_guard<std::mutex> lock(gClassLock);
    if (!UserAgentSlot().empty()) return UserAgentSlot();
  }
  struct utsname system {};
  std::string machine = "unknown";
  std::string systemName = "Linux";
  std::string release;
  if (uname(&system) == 0) {
    machine = system.machine;
    systemName = system.sysname;
    release = system.release;
  }
  std::string agent = std::string(kApplicationName) + " " + CV_HTTP_APP_VERSION + " (" + machine +
                      "; " + systemName + " " + release + "; " + LocaleIdentifier() + ")";
  std::lock_guard<std::mutex> lock(gClassLock);
  if (UserAgentSlot().empty()) UserAgentSlot() = agent;
  return UserAgentSlot();
}

void ASIHTTPRequest::setDefaultUserAgentString(const std::string& userAgent) {
  std::lock_guard<std::mutex> lock(gClassLock);
  UserAgentSlot() = userAgent;
}

ASIOperationQueue& ASIHTTPRequest::sharedQueue() {
  // Never destroyed: a request may still run on it while the process ends.
  static auto* queue = new ASIOperationQueue(4);
  return *queue;
}

void ASIHTTPRequest::clearSession() {
  {
    std::lock_guard<std::mutex> lock(Session().sessionCredentialsLock);
    Session().byOrigin.clear();
  }
  CurlTransport::Shared()->ClearCookies();
}

std::string ASIHTTPRequest::base64Encode(const unsigned char* bytes, std::size_t length) {
  if (!bytes || length == 0) return "";
  std::string out(4 * ((length + 2) / 3), '\0');
  int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes,
                                static_cast<int>(length));
  out.resize(written > 0 ? static_cast<std::size_t>(written) : 0);
  return out;
}

std::string ASIHTTPRequest::GetMD5ForData(const std::string& data) {
  try {
    if (data.empty()) return "";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr) != 1 ||
        length != 16) {
      return "";
    }
    return base64Encode(digest, 16);
  } catch (const std::exception& e) {
    CVEventLogger::LogException(kClass, "GetMD5ForData", e.what());
    return "";
  }
}

std::string ASIHTTPRequest::base64EncodeDouble(const std::string& hexDigits) {
  if (hexDigits.size() != 32) return "";
  unsigned char bytes[16];
  for (std::size_t i = 0; i < 16; ++i) {
    auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    int high = nibble(hexDigits[2 * i]);
    int low = nibble(hexDigits[2 * i + 1]);
    if (high < 0 || low < 0) return "";
    bytes[i] = static_cast<unsigned char>(high * 16 + low);
  }
  std::string encoded = base64Encode(bytes, 16);
  CVEventLogger::WriteMainLogMessage("MD5 - " + hexDigits + ", base64 - " + encoded);
  return encoded;
}

// --- Building the request ---

void ASIHTTPRequest::addRequestHeader(const std::string& name, const std::string& value) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  requestHeaders_.set(name, value);
}

ASIHeaderFields ASIHTTPRequest::requestHeaders() const {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  return requestHeaders_;
}

ASIPostBody& ASIHTTPRequest::postBody() {
  if (!postBody_) postBody_ = std::make_unique<ASIPostBody>();
  return *postBody_;
}

void ASIHTTPRequest::appendPostData(const std::string& data) {
  postBody().AppendData(data.data(), data.size());
  haveBuiltPostBody_ = false;
}

void ASIHTTPRequest::appendPostDataFromFile(const std::string& path) {
  std::string problem;
  if (!postBody().AppendFile(path, &problem)) {
    bodyError_ = problem;
    CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - appendPostDataFromFile -> " +
                                       problem);
  }
  haveBuiltPostBody_ = false;
}

std::string ASIHTTPRequest::appendPostDataFromFile2(const std::string& path,
                                                    const std::vector<std::string>& WithServerMD5,
                                                    std::vector<std::string>& WithLocalMD5,
                                                    std::int64_t WithBlockSize,
                                                    std::int64_t WithStep,
                                                    ASIHTTPRequest* WithServerObject) {
  (void)WithServerMD5;  // the caller compares the result with it
  int fd = -1;
  EVP_MD_CTX* md5 = nullptr;
  try {
    ASIHTTPRequest& target = WithServerObject ? *WithServerObject : *this;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      CVEventLogger::WriteMainLogMessage("Failed to get attributes for file at path '" + path + "'");
      return "";
    }
    std::int64_t length = static_cast<std::int64_t>(info.st_size);
    std::int64_t start = WithStep * WithBlockSize;
    std::int64_t block = WithBlockSize;
    if (length - start <= block) block = length - start;
    if (block < 0) block = 0;
    target.addRequestHeader("Content-Length", std::to_string(block));
    // The end is the offset after the part, as the server reads it.
    target.addRequestHeader("Range",
                            "bytes=" + std::to_string(start) + "-" + std::to_string(start + block));
    CVEventLogger::WriteMainLogMessage("File part read: " + std::to_string(block) +
                                       " (left: " + std::to_string(length - start) + ")");
    if (block == 0) return "";

    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      CVEventLogger::WriteMainLogMessage("Unable to create read stream for file at path '" + path +
                                         "'");
      return "";
    }
    md5 = EVP_MD_CTX_new();
    if (!md5 || EVP_DigestInit_ex(md5, EVP_md5(), nullptr) != 1) {
      EVP_MD_CTX_free(md5);
      ::close(fd);
      return "";
    }
    std::string chunk(kPartChunkSize, '\0');
    std::string copied;  // the part, when it is not streamed from disk
    std::int64_t read = 0;
    while (read < block) {
      std::size_t wanted =
          static_cast<std::size_t>(std::min<std::int64_t>(block - read, kPartChunkSize));
      ssize_t got = ::pread(fd, chunk.data(), wanted, static_cast<off_t>(start + read));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      EVP_DigestUpdate(md5, chunk.data(), static_cast<std::size_t>(got));
      if (!target.shouldStreamPostDataFromDisk_) copied.append(chunk.data(), static_cast<std::size_t>(got));
      read += got;
    }
    ::close(fd);
    fd = -1;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    bool digested = EVP_DigestFinal_ex(md5, digest, &digestLength) == 1 && digestLength == 16;
    EVP_MD_CTX_free(md5);
    md5 = nullptr;
    if (read == 0 || !digested) return "";
    if (read < block) {
      // Its Content-Length went out already: a part cut short is not sent.
      CVEventLogger::WriteMainLogMessage("File part read: " + std::to_string(read) + " of " +
                                         std::to_string(block) + " bytes, the file changed: " +
                                         path);
      return "";
    }
    if (target.shouldStreamPostDataFromDisk_) {
      std::string problem;
      if (!target.postBody().AppendFile(path, start, read, &problem)) {
        CVEventLogger::WriteMainLogMessage(problem);
        return "";
      }
    } else {
      target.postBody().AppendData(copied.data(), copied.size());
    }
    target.haveBuiltPostBody_ = false;
    std::string hash = base64Encode(digest, 16);
    WithLocalMD5.push_back(hash);
    return hash;
  } catch (const std::exception& e) {
    if (fd >= 0) ::close(fd);
    EVP_MD_CTX_free(md5);
    CVEventLogger::LogException(kClass, "appendPostDataFromFile2", e.what());
    return "";
  }
}

std::int64_t ASIHTTPRequest::postLength() const {
  if (compressedBody_) return compressedBody_->Size();
  return postBody_ ? postBody_->Size() : 0;
}

void ASIHTTPRequest::buildPostBody() {
  if (haveBuiltPostBody_) return;
  compressedBody_.reset();
  if (postBody_ && !postBody_->empty()) {
    if (shouldCompressRequestBody_) CompressPostBody();
    if (requestMethod_ == "GET" || requestMethod_ == "DELETE" || requestMethod_ == "HEAD") {
      requestMethod_ = "POST";
    }
    addRequestHeader("Content-Length", std::to_string(postLength()));
  }
  haveBuiltPostBody_ = true;
}

void ASIHTTPRequest::CompressPostBody() {
  ASIPostBody& source = *postBody_;
  auto compressed = std::make_unique<ASIPostBody>();
  ASIDataCompressor compressor;
  std::string problem;
  std::string chunk(kPartChunkSize, '\0');
  source.Seek(0);
  int fd = -1;
  std::string temporaryPath;
  if (source.HasFiles()) {
    // A file body is compressed into a file of its own, never into memory.
    temporaryPath = (fs::temp_directory_path() / "cv-body-XXXXXX").string();
    fd = ::mkstemp(temporaryPath.data());
    if (fd < 0) {
      bodyError_ = "Unable to create a file for the compressed body";
      return;
    }
  }
  auto emit = [&](const std::string& piece) {
    if (fd < 0) {
      compressed->AppendData(piece.data(), piece.size());
      return true;
    }
    return ::write(fd, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size());
  };
  bool ok = true;
  for (;;) {
    std::int64_t got = source.Read(chunk.data(), chunk.size());
    if (got < 0) {
      problem = source.LastError();
      ok = false;
      break;
    }
    std::string piece =
        compressor.compressBytes(chunk.data(), static_cast<std::size_t>(got), &problem, got == 0);
    if (!problem.empty() || !emit(piece)) {
      ok = false;
      break;
    }
    if (got == 0) break;
  }
  source.Seek(0);
  if (fd >= 0) ::close(fd);
  if (ok && fd >= 0) ok = compressed->AdoptTemporaryFile(temporaryPath, &problem);
  if (!ok) {
    if (!temporaryPath.empty()) ::unlink(temporaryPath.c_str());
    bodyError_ = problem.empty() ? "Unable to compress the request body" : problem;
    return;
  }
  compressedBody_ = std::move(compressed);
}

// --- Delegates ---

void ASIHTTPRequest::setDelegate(ASIHTTPRequestDelegate* delegate) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  delegate_ = delegate;
}

ASIHTTPRequestDelegate* ASIHTTPRequest::delegate() const {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  return delegate_;
}

void ASIHTTPRequest::setDidStartSelector(Selector selector) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  didStartSelector_ = std::move(selector);
}

void ASIHTTPRequest::setDidFinishSelector(Selector selector) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  didFinishSelector_ = std::move(selector);
}

void ASIHTTPRequest::setDidFailSelector(Selector selector) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  didFailSelector_ = std::move(selector);
}

void ASIHTTPRequest::setDidReceiveDataSelector(DataSelector selector) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  didReceiveDataSelector_ = std::move(selector);
}

void ASIHTTPRequest::setDidReceiveResponseHeadersSelector(HeadersSelector selector) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  didReceiveResponseHeadersSelector_ = std::move(selector);
}

void ASIHTTPRequest::setWillRedirectSelector(RedirectSelector selector) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  willRedirectSelector_ = std::move(selector);
}

void ASIHTTPRequest::setUploadProgressDelegate(ASIProgressDelegate* delegate) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  uploadProgressDelegate_ = delegate;
}

// Each event copies its selector first: the selector may clear itself.
void ASIHTTPRequest::DeliverStarted() {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (cancelled_) return;
  WriteSystemLog(std::string(kClass) + " - requestStarted -> Method Run!");
  Guarded("requestStarted", [&] {
    if (didStartSelector_) {
      Selector selector = didStartSelector_;
      selector(*this);
    } else if (delegate_) {
      delegate_->requestStarted(*this);
    }
  });
  WriteSystemLog(std::string(kClass) + " - requestStarted -> Method End!");
}

void ASIHTTPRequest::DeliverResponseHeaders(const ASIHeaderFields& headers) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (cancelled_) return;
  Guarded("requestDidReceiveResponseHeaders", [&] {
    if (didReceiveResponseHeadersSelector_) {
      HeadersSelector selector = didReceiveResponseHeadersSelector_;
      selector(*this, headers);
    } else if (delegate_) {
      delegate_->requestDidReceiveResponseHeaders(*this, headers);
    }
  });
}

void ASIHTTPRequest::DeliverData(std::string_view data) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (cancelled_ || !didReceiveDataSelector_) return;
  DataSelector selector = didReceiveDataSelector_;
  Guarded("requestDidReceiveData", [&] { selector(*this, data); });
}

void ASIHTTPRequest::DeliverWillRedirect(const std::string& newURL) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (cancelled_) return;
  Guarded("requestWillRedirectToURL", [&] {
    if (willRedirectSelector_) {
      RedirectSelector selector = willRedirectSelector_;
      selector(*this, newURL);
    } else if (delegate_) {
      delegate_->requestWillRedirectToURL(*this, newURL);
    }
  });
}

void ASIHTTPRequest::DeliverProgress(double value) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (cancelled_ || !uploadProgressDelegate_ || value == lastProgress_) return;
  lastProgress_ = value;
  Guarded("setDoubleValue", [&] { uploadProgressDelegate_->setDoubleValue(value); });
}

// --- State ---

ASIHTTPRequest::State ASIHTTPRequest::state() const {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  return state_;
}

bool ASIHTTPRequest::isFinished() const {
  State now = state();
  return now == State::Finished || now == State::Failed || now == State::Cancelled;
}

bool ASIHTTPRequest::isCancelled() const { return cancelled_; }

bool ASIHTTPRequest::isExecuting() const { return state() == State::InProgress; }

std::string ASIHTTPRequest::url() const {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  return url_;
}

std::optional<ASIError> ASIHTTPRequest::error() const {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  return error_;
}

std::string ASIHTTPRequest::temporaryFileDownloadPath() const {
  if (!temporaryFileDownloadPath_.empty()) return temporaryFileDownloadPath_;
  return downloadDestinationPath_.empty() ? "" : downloadDestinationPath_ + ".download";
}

const std::string& ASIHTTPRequest::responseData() const {
  return isResponseCompressed_ ? inflatedResponseData_ : rawResponseData_;
}

std::string ASIHTTPRequest::responseString() const {
  const std::string& bytes = responseData();
  if (responseEncoding_ == ASILatin1StringEncoding) return Latin1ToUTF8(bytes);
  return bytes;
}

void ASIHTTPRequest::waitUntilFinished() {
  std::unique_lock<std::recursive_mutex> lock(cancelledLock_);
  endedCondition_.wait(lock, [this] {
    return state_ == State::Finished || state_ == State::Failed || state_ == State::Cancelled;
  });
}

// --- Running ---

void ASIHTTPRequest::startSynchronous() {
  std::shared_ptr<ASIHTTPRequest> keepAlive = weak_from_this().lock();
  main();
}

void ASIHTTPRequest::startAsynchronous() { sharedQueue().addOperation(shared_from_this()); }

void ASIHTTPRequest::cancel() {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (state_ != State::New && state_ != State::InProgress) return;
  cancelled_ = true;
  if (state_ == State::New) {
    // It never ran, and will not: it ends here.
    FailLocked(ASIError::Cancelled(), true);
    return;
  }
  control_->Wake();
}

void ASIHTTPRequest::clearDelegatesAndCancel() {
  // Taking the lock waits for an event that another thread is delivering.
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  delegate_ = nullptr;
  didStartSelector_ = nullptr;
  didFinishSelector_ = nullptr;
  didFailSelector_ = nullptr;
  didReceiveDataSelector_ = nullptr;
  didReceiveResponseHeadersSelector_ = nullptr;
  willRedirectSelector_ = nullptr;
  uploadProgressDelegate_ = nullptr;
  cancel();
}

void ASIHTTPRequest::Finish() {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (state_ != State::InProgress) return;  // it ended already
  if (cancelled_) {
    FailLocked(ASIError::Cancelled(), true);
    return;
  }
  state_ = State::Finished;
  Guarded("requestFinished", [&] {
    if (didFinishSelector_) {
      Selector selector = didFinishSelector_;
      selector(*this);
    } else if (delegate_) {
      delegate_->requestFinished(*this);
    }
  });
  endedCondition_.notify_all();
}

void ASIHTTPRequest::Fail(const ASIError& failure, bool transportFailure) {
  std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
  if (cancelled_ && failure.code() != ASIError::ASIRequestCancelledErrorType) {
    FailLocked(ASIError::Cancelled(), true);
    return;
  }
  FailLocked(failure, transportFailure);
}

void ASIHTTPRequest::FailLocked(const ASIError& failure, bool transportFailure) {
  if (state_ != State::New && state_ != State::InProgress) return;  // one end only
  error_ = failure;
  if (transportFailure) responseStatusCode_ = 0;
  state_ = failure.code() == ASIError::ASIRequestCancelledErrorType ? State::Cancelled
                                                                     : State::Failed;
  Guarded("requestFailed", [&] {
    if (didFailSelector_) {
      Selector selector = didFailSelector_;
      selector(*this);
    } else if (delegate_) {
      delegate_->requestFailed(*this);
    }
  });
  endedCondition_.notify_all();
}

void ASIHTTPRequest::main() {
  {
    std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
    if (state_ != State::New) {
      if (state_ != State::Cancelled) {
        CVEventLogger::WriteMainLogMessage(std::string(kClass) +
                                           " - main -> a request runs once: " + url_);
      }
      return;
    }
    state_ = State::InProgress;
    clock_ = GetClock();
    std::lock_guard<std::mutex> classLock(gClassLock);
    transport_ = TransportSlot() ? TransportSlot() : CurlTransport::Shared();
  }
  try {
    DeliverStarted();
    Run();
  } catch (const std::exception& e) {
    CloseDownloadFile();
    CVEventLogger::LogException(kClass, "main", e.what());
    Fail(ASIError(ASIError::kDomain, ASIError::ASIInternalErrorWhileBuildingRequestType,
                  "Unable to start HTTP connection", e.what()),
         true);
  }
}

ASIHeaderFields ASIHTTPRequest::BuildRequestHeaders() const {
  ASIHeaderFields callers = requestHeaders();
  ASIHeaderFields headers;
  if (!callers.contains("User-Agent")) {
    headers.set("User-Agent", userAgentString_.empty() ? defaultUserAgentString() : userAgentString_);
  }
  if (allowCompressedResponse_) headers.set("Accept-Encoding", "gzip");
  if (compressedBody_) headers.set("Content-Encoding", "gzip");
  // The caller's headers come last and win.
  for (const auto& [name, value] : callers.fields()) headers.set(name, value);
  return headers;
}

ASIHTTPRequest::Credentials ASIHTTPRequest::CredentialsFor(const std::string& url) const {
  Credentials credentials;
  if (!username_.empty()) {
    credentials.username = username_;
    credentials.password = password_;
    return credentials;
  }
  if (!useSessionPersistence_) return credentials;
  std::lock_guard<std::mutex> lock(Session().sessionCredentialsLock);
  auto kept = Session().byOrigin.find(HTTPURLHelpers::Origin(url));
  if (kept != Session().byOrigin.end()) {
    credentials.username = kept->second.first;
    credentials.password = kept->second.second;
    credentials.fromSession = true;
  }
  return credentials;
}

void ASIHTTPRequest::BeginAttempt() {
  responseStatusCode_ = 0;
  responseStatusMessage_.clear();
  responseHeaders_.clear();
  rawResponseData_.clear();
  inflatedResponseData_.clear();
  isResponseCompressed_ = false;
  responseEncoding_ = defaultResponseEncoding_;
  followingRedirect_ = false;
  bodyToFile_ = false;
  decompressor_.reset();
  attemptError_.reset();
  CloseDownloadFile();
  if (postLength() > 0) DeliverProgress(0.0);
}

void ASIHTTPRequest::Run() {
  buildPostBody();
  if (!bodyError_.empty()) {
    Fail(ASIError(ASIError::kDomain, ASIError::ASIInternalErrorWhileBuildingRequestType,
                  "Unable to create read stream", bodyError_),
         true);
    return;
  }
  std::string currentURL = url();
  if (!HTTPURLHelpers::IsHTTPURL(currentURL)) {
    Fail(ASIError::UnableToCreateRequest().WithUnderlying(currentURL), true);
    return;
  }
  {
    std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
    toDelegate_ = static_cast<bool>(didReceiveDataSelector_);
  }
  toFile_ = !toDelegate_ && !downloadDestinationPath_.empty();
  ASIHeaderFields headers = BuildRequestHeaders();
  Credentials credentials = CredentialsFor(currentURL);
  HTTPBodyReader* body = nullptr;
  if (postLength() > 0) {
    body = compressedBody_ ? compressedBody_.get() : postBody_.get();
  }
  double seconds = timeOutSeconds_ > 0 ? timeOutSeconds_ : defaultTimeOutSeconds();
  auto inactivity = clock_->Scaled(std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(seconds)));
  auto keepConnection = clock_->Scaled(std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(std::max(0.0, persistentConnectionTimeoutSeconds_))));

  bool freshConnection = false;
  bool reconnected = false;
  for (;;) {
    if (cancelled_) {
      Fail(ASIError::Cancelled(), true);
      return;
    }
    BeginAttempt();
    HTTPExchange exchange;
    exchange.url = currentURL;
    exchange.method = requestMethod_;
    exchange.headers = headers;
    if (toFile_ && allowResumeForFileDownloads_ && !headers.contains("Range")) {
      std::error_code ignored;
      auto partial = fs::file_size(temporaryFileDownloadPath(), ignored);
      if (!ignored && partial > 0) {
        exchange.headers.set("Range", "bytes=" + std::to_string(partial) + "-");
        // A resumed body must come as it is stored: never compressed.
        exchange.headers.remove("Accept-Encoding");
      }
    }
    {
      std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
      requestHeaders_ = exchange.headers;
    }
    exchange.body = body;
    exchange.validatesSecureCertificate = validatesSecureCertificate_;
    exchange.attemptPersistentConnection = shouldAttemptPersistentConnection_;
    exchange.freshConnection = freshConnection;
    exchange.useCookies = useCookiePersistence_;
    exchange.username = credentials.username;
    exchange.password = credentials.password;
    exchange.presentCredentialsBeforeChallenge = presentCredentialsFirst_;
    exchange.inactivityLimit = inactivity;
    exchange.persistentConnectionTimeout = keepConnection;
    exchange.clock = clock_;
    exchange.control = control_;
    exchange.onResponseHead = [this](const HTTPResponseHead& head) { OnResponseHead(head); };
    exchange.onBody = [this](const char* bytes, std::size_t length) { return OnBody(bytes, length); };
    exchange.onUploadProgress = [this](std::int64_t sent, std::int64_t total) {
      OnUploadProgress(sent, total);
    };
    exchange.shouldStop = [this] { return cancelled_.load(); };

    HTTPExchangeResult result = transport_->Perform(exchange);
    CloseDownloadFile();
    freshConnection = false;

    using Outcome = HTTPExchangeResult::Outcome;
    switch (result.outcome) {
      case Outcome::Stopped:
        if (attemptError_ && !cancelled_) {
          Fail(*attemptError_, false);
        } else {
          Fail(ASIError::Cancelled(), true);
        }
        return;
      case Outcome::TimedOut:
        if (numberOfTimesToRetryOnTimeout_ > retryCount_) {
          ++retryCount_;
          continue;
        }
        Fail(ASIError::TimedOut().WithUnderlying(result.detail), true);
        return;
      case Outcome::ConnectionFailure:
        // A kept connection that the server had closed: once more on a new one.
        if (result.connectionReused && !reconnected) {
          reconnected = true;
          freshConnection = true;
          continue;
        }
        Fail(ASIError::ConnectionFailure().WithUnderlying(result.detail), true);
        return;
      case Outcome::SSLFailure:
        Fail(ASIError::SSLFailure().WithUnderlying(result.detail), true);
        return;
      case Outcome::ServerKeyChanged:
        Fail(ASIError::ServerKeyChanged().WithUnderlying(result.detail), true);
        return;
      case Outcome::InvalidRequest:
        Fail(ASIError::UnableToCreateRequest().WithUnderlying(result.detail), true);
        return;
      case Outcome::BodyReadFailure:
        Fail(ASIError(ASIError::kDomain, ASIError::ASIInternalErrorWhileBuildingRequestType,
                      "Unable to create read stream", result.detail),
             true);
        return;
      case Outcome::Completed:
        break;
    }
    if (attemptError_) {
      Fail(*attemptError_, false);
      return;
    }
    if (followingRedirect_) {
      if (!FollowRedirect(currentURL, headers, credentials)) return;
      continue;
    }
    FinishRequest(credentials);
    return;
  }
}

void ASIHTTPRequest::OnResponseHead(const HTTPResponseHead& head) {
  responseStatusCode_ = head.statusCode;
  responseStatusMessage_ = head.statusLine;
  responseHeaders_ = head.headers;
  isResponseCompressed_ =
      Lower(head.headers.valueForKey("Content-Encoding")).find("gzip") != std::string::npos;
  responseEncoding_ =
      EncodingForCharset(head.headers.valueForKey("Content-Type")).value_or(defaultResponseEncoding_);
  WriteSystemLog("message response (readResponseHeaders): " + head.statusLine + "\n" +
                 head.headers.description());
  followingRedirect_ = shouldRedirect_ && IsRedirectStatus(head.statusCode) &&
                       !head.headers.valueForKey("Location").empty();
  DeliverResponseHeaders(head.headers);
  if (followingRedirect_) return;
  if (isResponseCompressed_ && !shouldWaitToInflate_) {
    decompressor_ = std::make_unique<ASIDataDecompressor>();
  }
  if (toFile_ && IsSuccess(head.statusCode)) {
    bool append = allowResumeForFileDownloads_ && head.statusCode == 206;
    bodyToFile_ = OpenDownloadFile(append);
  }
}

bool ASIHTTPRequest::OnBody(const char* bytes, std::size_t length) {
  if (cancelled_ || attemptError_) return false;
  if (followingRedirect_) return true;  // the body of a redirect is dropped
  std::string_view piece(bytes, length);
  std::string inflated;
  if (decompressor_) {
    std::string problem;
    inflated = decompressor_->uncompressBytes(bytes, length, &problem);
    if (!problem.empty()) {
      attemptError_ = ASIError(ASIError::kDomain, ASIError::ASICompressionError,
                               "Decompression of the response failed", problem);
      return false;
    }
    piece = inflated;
  }
  if (toDelegate_) {
    DeliverData(piece);
    return !cancelled_;
  }
  if (bodyToFile_) return WriteDownloadFile(piece);
  rawResponseData_.append(bytes, length);
  if (decompressor_) inflatedResponseData_.append(piece);
  return true;
}

void ASIHTTPRequest::OnUploadProgress(std::int64_t sent, std::int64_t total) {
  if (!showAccurateProgress_ || total <= 0) return;
  DeliverProgress(std::min(1.0, static_cast<double>(sent) / static_cast<double>(total)));
}

bool ASIHTTPRequest::FollowRedirect(std::string& currentURL, ASIHeaderFields& headers,
                                    Credentials& credentials) {
  std::int32_t status = responseStatusCode_;
  std::string location = responseHeaders_.valueForKey("Location");
  if (redirectCount_ >= kMaxRedirects) {
    Fail(ASIError::TooMuchRedirection(), false);
    return false;
  }
  std::optional<std::string> target = HTTPURLHelpers::ResolveLocation(currentURL, location);
  if (!target) {
    Fail(ASIError::UnableToCreateRequest().WithUnderlying("redirect to '" + location + "'"), false);
    return false;
  }
  bool sameOrigin = HTTPURLHelpers::Origin(*target) == HTTPURLHelpers::Origin(currentURL);
  bool withoutBody = (requestMethod_ == "GET" || requestMethod_ == "HEAD") && postLength() == 0;
  // A body goes again only where it was meant to go, unchanged: a 301/302/303
  // would turn it into a GET, another origin would receive it.
  if (!withoutBody && !((status == 307 || status == 308) && sameOrigin)) {
    Fail(ASIError(ASIError::kDomain, ASIError::ASIRedirectRefusedErrorType,
                  "The request failed because it may not follow the redirect to " + *target,
                  std::to_string(status) + " for a " + requestMethod_ + " request"),
         false);
    return false;
  }
  if (!sameOrigin) {
    // Tokens and credentials never follow to another host.
    headers.remove("Authorization");
    headers.remove("Proxy-Authorization");
    headers.remove("Cookie");
    credentials = Credentials();
  }
  ++redirectCount_;
  DeliverWillRedirect(*target);
  {
    std::lock_guard<std::recursive_mutex> lock(cancelledLock_);
    url_ = *target;
  }
  currentURL = *target;
  return true;
}

void ASIHTTPRequest::FinishRequest(const Credentials& credentials) {
  std::int32_t status = responseStatusCode_;
  if (bodyToFile_) {
    if (!CompleteDownloadFile()) return;
  } else if (!toDelegate_ && isResponseCompressed_ && shouldWaitToInflate_) {
    // Inflated here, once all of it is here: the length may not have been told.
    std::string problem;
    inflatedResponseData_ = ASIDataDecompressor::uncompressData(rawResponseData_, &problem);
    if (!problem.empty()) {
      Fail(ASIError(ASIError::kDomain, ASIError::ASICompressionError,
                    "Decompression of the response failed", problem),
           false);
      return;
    }
  }
  if (!credentials.username.empty() && useSessionPersistence_) {
    std::lock_guard<std::mutex> lock(Session().sessionCredentialsLock);
    std::string origin = HTTPURLHelpers::Origin(url());
    if (IsSuccess(status)) {
      Session().byOrigin[origin] = {credentials.username, credentials.password};
    } else if (status == 401) {
      Session().byOrigin.erase(origin);
    }
  }
  if (postLength() > 0) DeliverProgress(1.0);
  Finish();
}

bool ASIHTTPRequest::OpenDownloadFile(bool append) {
  std::string path = temporaryFileDownloadPath();
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
  downloadFd_ = ::open(path.c_str(), flags, 0666);
  if (downloadFd_ < 0) {
    attemptError_ = ASIError(ASIError::kDomain, ASIError::ASIFileManagementError,
                             "Failed to create file at path '" + path + "'", std::strerror(errno));
    return false;
  }
  return true;
}

bool ASIHTTPRequest::WriteDownloadFile(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(downloadFd_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      attemptError_ = ASIError(ASIError::kDomain, ASIError::ASIFileManagementError,
                               "Failed to write file at path '" + temporaryFileDownloadPath() + "'",
                               std::strerror(errno));
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void ASIHTTPRequest::CloseDownloadFile() {
  if (downloadFd_ >= 0) ::close(downloadFd_);
  downloadFd_ = -1;
}

bool ASIHTTPRequest::CompleteDownloadFile() {
  std::string temporary = temporaryFileDownloadPath();
  std::string destination = downloadDestinationPath_;
  std::error_code error;
  if (isResponseCompressed_ && shouldWaitToInflate_) {
    std::string inflated = temporary + ".inflated";
    std::string problem;
    if (!ASIDataDecompressor::uncompressDataFromFile(temporary, inflated, &problem)) {
      fs::remove(inflated, error);
      Fail(ASIError(ASIError::kDomain, ASIError::ASICompressionError,
                    "Decompression of the response failed", problem),
           false);
      return false;
    }
    if (!fs::remove(temporary, error) || error) {
      Fail(ASIError(ASIError::kDomain, ASIError::ASIFileManagementError,
                    "Failed to delete file at path '" + temporary + "'", error.message()),
           false);
      return false;
    }
    temporary = inflated;
  }
  fs::rename(temporary, destination, error);
  if (error) {
    Fail(ASIError(ASIError::kDomain, ASIError::ASIFileManagementError,
                  "Failed to move file from '" + temporary + "' to '" + destination + "'",
                  error.message()),
         false);
    return false;
  }
  return true;
}
