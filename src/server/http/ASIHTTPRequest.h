#pragma once
// ASIHTTPRequest: one HTTP request of the client, as an operation object. It holds
// a URL, a method, headers and a body; runs once, either on the calling thread
// (startSynchronous) or on the shared queue of at most 4 running requests
// (startAsynchronous); and reports to its delegate or selectors. It retries on a
// time-out when asked, follows redirects (5 at most; a request with a body only
// to 307/308 on the same origin), inflates gzip responses, and can stream its body
// from disk and its response into a file.
//
// Made only through requestWithURL and held by shared pointer, so that the queue
// can keep a running request alive after its owner lets go. Settings are made
// before the start by the one flow that owns the request; results are read from
// its events or after it has ended.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ASIError.h"
#include "ASIHTTPRequestDelegate.h"
#include "ASIHeaderFields.h"

class ASIDataDecompressor;
class ASIOperationQueue;
class ASIPostBody;
class Clock;
class HTTPExchangeControl;
class HTTPTransport;
struct HTTPResponseHead;

// Text encodings by their classic numbers (5 is Latin 1).
enum ASIStringEncoding : int {
  ASIASCIIStringEncoding = 1,
  ASIUTF8StringEncoding = 4,
  ASILatin1StringEncoding = 5,
};

class ASIHTTPRequest : public std::enable_shared_from_this<ASIHTTPRequest> {
 protected:
  // Only the factories (and those of subclasses) make requests.
  struct ConstructionKey {
    explicit ConstructionKey() = default;
  };

 public:
  using Selector = std::function<void(ASIHTTPRequest& request)>;
  using DataSelector = std::function<void(ASIHTTPRequest& request, std::string_view data)>;
  using HeadersSelector =
      std::function<void(ASIHTTPRequest& request, const ASIHeaderFields& responseHeaders)>;
  using RedirectSelector = std::function<void(ASIHTTPRequest& request, const std::string& newURL)>;

  enum class State { New, InProgress, Finished, Failed, Cancelled };

  static constexpr int kMaxRedirects = 5;
  static constexpr std::size_t kPartChunkSize = 262144;  // reads of a part go in 256 KiB
  static constexpr double kDefaultTimeOutSeconds = 10.0;

  static std::shared_ptr<ASIHTTPRequest> requestWithURL(const std::string& url);
  ASIHTTPRequest(ConstructionKey, std::string url);
  virtual ~ASIHTTPRequest();
  ASIHTTPRequest(const ASIHTTPRequest&) = delete;
  ASIHTTPRequest& operator=(const ASIHTTPRequest&) = delete;

  // --- Class-wide ---

  // The clock of every duration: time-outs, polls, the pause between part chunks.
  // Requests take the clock that is set when they start. Unscaled by default.
  static void SetClock(std::shared_ptr<const Clock> clock);
  static std::shared_ptr<const Clock> GetClock();
  // The transport of requests that start from now on; null puts libcurl back.
  static void SetTransport(std::shared_ptr<HTTPTransport> transport);
  static double defaultTimeOutSeconds();
  static void setDefaultTimeOutSeconds(double seconds);
  // "%@ %@ (%@; %@ %@; %@)": application name and version, machine, system name
  // and release, locale; unless set.
  static std::string defaultUserAgentString();
  static void setDefaultUserAgentString(const std::string& userAgent);
  static ASIOperationQueue& sharedQueue();
  // Forgets the credentials kept for the session and every cookie.
  static void clearSession();

  // The base64 text of the 16 bytes of MD5 of data; "" for empty data or a failure.
  static std::string GetMD5ForData(const std::string& data);
  static std::string base64Encode(const unsigned char* bytes, std::size_t length);
  // 32 hexadecimal digits of an MD5 to the base64 text of its 16 bytes; "" when the
  // text is not such digits.
  static std::string base64EncodeDouble(const std::string& hexDigits);

  // --- Building the request ---

  void addRequestHeader(const std::string& name, const std::string& value);
  // Appends bytes to the body (a GET with a body goes out as a POST).
  void appendPostData(const std::string& data);
  // Appends a file to the body; it is read from disk while the request is sent.
  void appendPostDataFromFile(const std::string& path);
  // Puts part WithStep (zero-based) of WithBlockSize bytes of the file into the body
  // of WithServerObject (this request when null), with its Content-Length and
  // Range "bytes=<start>-<start + length>" headers. Returns the part's base64 MD5,
  // also added to WithLocalMD5; "" when nothing could be read.
  std::string appendPostDataFromFile2(const std::string& path,
                                      const std::vector<std::string>& WithServerMD5,
                                      std::vector<std::string>& WithLocalMD5,
                                      std::int64_t WithBlockSize, std::int64_t WithStep,
                                      ASIHTTPRequest* WithServerObject = nullptr);
  // Finishes the body (compression, method, Content-Length); safe to call twice.
  virtual void buildPostBody();
  std::int64_t postLength() const;

  // --- Running ---

  // Runs on the calling thread and returns when the request has ended.
  void startSynchronous();
  // Hands the request to the shared queue and returns at once.
  void startAsynchronous();
  // Cancels: a running request stops and fails with code 4 if it still has a
  // delegate; a request that has not run yet fails at once.
  void cancel();
  // Takes off the delegate, the selectors and the progress delegate, then cancels.
  // Waits for an event that is being delivered on another thread, so that no event
  // arrives once it returns. Do not call it while holding a lock that an event of
  // this request takes.
  void clearDelegatesAndCancel();
  // Blocks until a started request has ended. Not from one of its own events.
  void waitUntilFinished();

  State state() const;
  bool isFinished() const;   // ended, in any way
  bool isCancelled() const;
  bool isExecuting() const;

  // --- Settings (defaults as for requestWithURL) ---

  std::string url() const;
  const std::string& originalURL() const { return originalURL_; }
  const std::string& requestMethod() const { return requestMethod_; }
  void setRequestMethod(const std::string& method) { requestMethod_ = method; }
  // Seconds without any byte moving before the request gives up (or retries).
  double timeOutSeconds() const { return timeOutSeconds_; }
  void setTimeOutSeconds(double seconds) { timeOutSeconds_ = seconds; }
  std::int32_t numberOfTimesToRetryOnTimeout() const { return numberOfTimesToRetryOnTimeout_; }
  void setNumberOfTimesToRetryOnTimeout(std::int32_t times) { numberOfTimesToRetryOnTimeout_ = times; }
  // Off: a new connection that is closed afterwards.
  bool shouldAttemptPersistentConnection() const { return shouldAttemptPersistentConnection_; }
  void setShouldAttemptPersistentConnection(bool on) { shouldAttemptPersistentConnection_ = on; }
  double persistentConnectionTimeoutSeconds() const { return persistentConnectionTimeoutSeconds_; }
  void setPersistentConnectionTimeoutSeconds(double s) { persistentConnectionTimeoutSeconds_ = s; }
  bool shouldRedirect() const { return shouldRedirect_; }
  void setShouldRedirect(bool on) { shouldRedirect_ = on; }
  // Sends "Accept-Encoding: gzip".
  bool allowCompressedResponse() const { return allowCompressedResponse_; }
  void setAllowCompressedResponse(bool on) { allowCompressedResponse_ = on; }
  // On: a compressed body is inflated once it is all here, and data events get it
  // compressed. Off: it is inflated as it arrives, data events included.
  bool shouldWaitToInflateCompressedResponses() const { return shouldWaitToInflate_; }
  void setShouldWaitToInflateCompressedResponses(bool on) { shouldWaitToInflate_ = on; }
  // Credentials that worked are kept for the session and offered to the same origin.
  bool useSessionPersistence() const { return useSessionPersistence_; }
  void setUseSessionPersistence(bool on) { useSessionPersistence_ = on; }
  bool useCookiePersistence() const { return useCookiePersistence_; }
  void setUseCookiePersistence(bool on) { useCookiePersistence_ = on; }
  bool validatesSecureCertificate() const { return validatesSecureCertificate_; }
  void setValidatesSecureCertificate(bool on) { validatesSecureCertificate_ = on; }
  // On: Basic credentials go with the first request; off: only after a challenge.
  bool shouldPresentCredentialsBeforeChallenge() const { return presentCredentialsFirst_; }
  void setShouldPresentCredentialsBeforeChallenge(bool on) { presentCredentialsFirst_ = on; }
  // On: upload progress follows the bytes sent; off: only 0 and 1.
  bool showAccurateProgress() const { return showAccurateProgress_; }
  void setShowAccurateProgress(bool on) { showAccurateProgress_ = on; }
  // For parts of a file: on, the part is sent from disk; off, it is copied into memory.
  bool shouldStreamPostDataFromDisk() const { return shouldStreamPostDataFromDisk_; }
  void setShouldStreamPostDataFromDisk(bool on) { shouldStreamPostDataFromDisk_ = on; }
  // The encoding of a response that names no charset.
  ASIStringEncoding defaultResponseEncoding() const { return defaultResponseEncoding_; }
  void setDefaultResponseEncoding(ASIStringEncoding encoding) { defaultResponseEncoding_ = encoding; }
  // Sends the body gzip-compressed, with "Content-Encoding: gzip".
  bool shouldCompressRequestBody() const { return shouldCompressRequestBody_; }
  void setShouldCompressRequestBody(bool on) { shouldCompressRequestBody_ = on; }
  // Where a successful response body goes, through temporaryFileDownloadPath
  // (destination + ".download" unless set). Not used while a data selector is set.
  const std::string& downloadDestinationPath() const { return downloadDestinationPath_; }
  void setDownloadDestinationPath(const std::string& path) { downloadDestinationPath_ = path; }
  std::string temporaryFileDownloadPath() const;
  void setTemporaryFileDownloadPath(const std::string& path) { temporaryFileDownloadPath_ = path; }
  // Resumes a download to a file from the size of its temporary file.
  bool allowResumeForFileDownloads() const { return allowResumeForFileDownloads_; }
  void setAllowResumeForFileDownloads(bool on) { allowResumeForFileDownloads_ = on; }
  const std::string& username() const { return username_; }
  void setUsername(const std::string& name) { username_ = name; }
  void setPassword(const std::string& password) { password_ = password; }
  // "" for the class default.
  void setUserAgentString(const std::string& userAgent) { userAgentString_ = userAgent; }

  // --- Delegates ---

  void setDelegate(ASIHTTPRequestDelegate* delegate);
  ASIHTTPRequestDelegate* delegate() const;
  void setDidStartSelector(Selector selector);
  void setDidFinishSelector(Selector selector);
  void setDidFailSelector(Selector selector);
  // With this set, the body goes to it piece by piece and nowhere else.
  void setDidReceiveDataSelector(DataSelector selector);
  void setDidReceiveResponseHeadersSelector(HeadersSelector selector);
  void setWillRedirectSelector(RedirectSelector selector);
  void setUploadProgressDelegate(ASIProgressDelegate* delegate);

  // --- Results ---

  // The headers that went out (after the start), or those set so far.
  ASIHeaderFields requestHeaders() const;
  // 0 when the request failed on the way.
  std::int32_t responseStatusCode() const { return responseStatusCode_; }
  // The status line, "HTTP/1.1 200 OK".
  const std::string& responseStatusMessage() const { return responseStatusMessage_; }
  const ASIHeaderFields& responseHeaders() const { return responseHeaders_; }
  // The body, inflated when it came compressed; empty when it went to a data
  // selector or a file.
  const std::string& responseData() const;
  // The body as it came off the wire.
  const std::string& rawResponseData() const { return rawResponseData_; }
  // The body as UTF-8 text, read in the response's charset or the default encoding.
  std::string responseString() const;
  ASIStringEncoding responseEncoding() const { return responseEncoding_; }
  bool isResponseCompressed() const { return isResponseCompressed_; }
  // Set when the request failed.
  std::optional<ASIError> error() const;
  std::int32_t retryCount() const { return retryCount_; }
  std::int32_t redirectCount() const { return redirectCount_; }

 protected:
  ASIPostBody& postBody();
  void setHaveBuiltPostBody(bool built) { haveBuiltPostBody_ = built; }
  bool haveBuiltPostBody() const { return haveBuiltPostBody_; }

 private:
  friend class ASIOperationQueue;
  struct Credentials {
    std::string username;
    std::string password;
    bool fromSession = false;
  };

  // The run, on the thread that runs the request.
  void main();
  void Run();
  ASIHeaderFields BuildRequestHeaders() const;
  Credentials CredentialsFor(const std::string& url) const;
  void BeginAttempt();
  void OnResponseHead(const HTTPResponseHead& head);
  bool OnBody(const char* bytes, std::size_t length);
  void OnUploadProgress(std::int64_t sent, std::int64_t total);
  bool FollowRedirect(std::string& currentURL, ASIHeaderFields& headers, Credentials& credentials);
  void FinishRequest(const Credentials& credentials);
  bool OpenDownloadFile(bool append);
  bool WriteDownloadFile(std::string_view bytes);
  void CloseDownloadFile();
  bool CompleteDownloadFile();
  void CompressPostBody();

  // Ends the request; events go out under cancelledLock_.
  void Finish();
  void Fail(const ASIError& failure, bool transportFailure);
  void FailLocked(const ASIError& failure, bool transportFailure);
  void DeliverStarted();
  void DeliverResponseHeaders(const ASIHeaderFields& headers);
  void DeliverData(std::string_view data);
  void DeliverWillRedirect(const std::string& newURL);
  void DeliverProgress(double value);

  // Settings.
  std::string url_;
  std::string originalURL_;
  std::string requestMethod_ = "GET";
  double timeOutSeconds_;
  std::int32_t numberOfTimesToRetryOnTimeout_ = 0;
  bool shouldAttemptPersistentConnection_ = true;
  double persistentConnectionTimeoutSeconds_ = 60.0;
  bool shouldRedirect_ = true;
  bool allowCompressedResponse_ = true;
  bool shouldWaitToInflate_ = true;
  bool useSessionPersistence_ = true;
  bool useCookiePersistence_ = true;
  bool validatesSecureCertificate_ = true;
  bool presentCredentialsFirst_ = true;
  bool showAccurateProgress_ = true;
  bool shouldStreamPostDataFromDisk_ = false;
  ASIStringEncoding defaultResponseEncoding_ = ASILatin1StringEncoding;
  bool shouldCompressRequestBody_ = false;
  std::string downloadDestinationPath_;
  std::string temporaryFileDownloadPath_;
  bool allowResumeForFileDownloads_ = false;
  std::string username_;
  std::string password_;
  std::string userAgentString_;
  ASIHeaderFields requestHeaders_;

  // Body.
  std::unique_ptr<ASIPostBody> postBody_;
  std::unique_ptr<ASIPostBody> compressedBody_;
  bool haveBuiltPostBody_ = false;
  std::string bodyError_;  // a file that could not be added; the run fails on it

  // Delegates, guarded by cancelledLock_.
  ASIHTTPRequestDelegate* delegate_ = nullptr;
  Selector didStartSelector_;
  Selector didFinishSelector_;
  Selector didFailSelector_;
  DataSelector didReceiveDataSelector_;
  HeadersSelector didReceiveResponseHeadersSelector_;
  RedirectSelector willRedirectSelector_;
  ASIProgressDelegate* uploadProgressDelegate_ = nullptr;

  // Run state. cancelledLock_ guards the state, the delegates and the cancel flag,
  // and is held while an event is delivered.
  mutable std::recursive_mutex cancelledLock_;
  std::condition_variable_any endedCondition_;
  State state_ = State::New;
  std::atomic<bool> cancelled_{false};
  std::shared_ptr<HTTPExchangeControl> control_;
  std::shared_ptr<const Clock> clock_;
  std::shared_ptr<HTTPTransport> transport_;

  // The attempt that runs now (run thread only).
  bool toDelegate_ = false;  // the body goes to the data selector
  bool toFile_ = false;      // a successful body goes to the download file
  bool followingRedirect_ = false;
  bool bodyToFile_ = false;
  int downloadFd_ = -1;
  std::unique_ptr<ASIDataDecompressor> decompressor_;
  std::optional<ASIError> attemptError_;
  double lastProgress_ = -1;

  // Results.
  std::atomic<std::int32_t> responseStatusCode_{0};
  std::string responseStatusMessage_;
  ASIHeaderFields responseHeaders_;
  std::string rawResponseData_;
  std::string inflatedResponseData_;
  std::atomic<bool> isResponseCompressed_{false};
  ASIStringEncoding responseEncoding_ = ASILatin1StringEncoding;
  std::optional<ASIError> error_;
  std::atomic<std::int32_t> retryCount_{0};
  std::atomic<std::int32_t> redirectCount_{0};
};
