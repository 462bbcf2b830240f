#pragma once
// HTTPTransport: one HTTP exchange on the wire, under the request engine. The
// engine decides about redirects, retries and events; the transport sends one
// request, reports the response head and the body bytes as they come, and stops
// on an inactivity limit or when asked. The libcurl transport is the real one;
// tests may install another.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "ASIHeaderFields.h"

class Clock;

// A request body that can be read from any offset, so that a retried or
// redirected request sends it again from the start.
class HTTPBodyReader {
 public:
  virtual ~HTTPBodyReader() = default;
  virtual std::int64_t Size() const = 0;
  // Moves the read position; false when the offset is outside the body.
  virtual bool Seek(std::int64_t offset) = 0;
  // Up to length bytes; 0 at the end, -1 on a failure (see LastError).
  virtual std::int64_t Read(char* buffer, std::size_t length) = 0;
  virtual std::string LastError() const = 0;
};

struct HTTPResponseHead {
  std::int32_t statusCode = 0;
  std::string statusLine;  // "HTTP/1.1 200 OK"
  ASIHeaderFields headers;
};

// Lets another thread wake a running exchange, so that a cancel acts at once.
class HTTPExchangeControl {
 public:
  void SetWaker(std::function<void()> waker) {
    std::lock_guard<std::mutex> lock(mutex_);
    waker_ = std::move(waker);
  }
  void Wake() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (waker_) waker_();
  }

 private:
  std::mutex mutex_;
  std::function<void()> waker_;
};

struct HTTPExchange {
  std::string url;
  std::string method = "GET";
  ASIHeaderFields headers;  // sent as given; an empty value is sent empty
  HTTPBodyReader* body = nullptr;

  bool validatesSecureCertificate = true;
  bool attemptPersistentConnection = true;  // false: a new connection, closed after
  bool freshConnection = false;             // a new connection even when one is kept
  bool useCookies = true;                   // the process-wide cookie store
  std::string username;                     // credentials, "" for none
  std::string password;
  bool presentCredentialsBeforeChallenge = true;

  // Both already scaled by the clock.
  std::chrono::nanoseconds inactivityLimit{std::chrono::seconds(10)};
  std::chrono::nanoseconds persistentConnectionTimeout{std::chrono::seconds(60)};
  std::shared_ptr<const Clock> clock;
  std::shared_ptr<HTTPExchangeControl> control;

  // Called once, before the first body byte (or at the end when there is none).
  std::function<void(const HTTPResponseHead&)> onResponseHead;
  // A piece of the body as it came off the wire; false stops the exchange.
  std::function<bool(const char* bytes, std::size_t length)> onBody;
  std::function<void(std::int64_t sent, std::int64_t total)> onUploadProgress;
  // Polled while the exchange runs; true stops it.
  std::function<bool()> shouldStop;
};

struct HTTPExchangeResult {
  enum class Outcome {
    Completed,          // a whole response came back, whatever its status
    Stopped,            // shouldStop or onBody asked to stop
    TimedOut,           // nothing moved for the inactivity limit
    InvalidRequest,     // the URL or a header cannot be sent
    SSLFailure,         // the secure connection could not be made or trusted
    ServerKeyChanged,   // the server's key is not the one pinned for it
    ConnectionFailure,  // refused, reset, dropped, unresolved...
    BodyReadFailure,    // the request body could not be read
  };
  Outcome outcome = Outcome::ConnectionFailure;
  std::string detail;              // the transport's own words
  bool connectionReused = false;   // the exchange ran on a kept connection
};

class HTTPTransport {
 public:
  virtual ~HTTPTransport() = default;
  virtual HTTPExchangeResult Perform(HTTPExchange& exchange) = 0;
};
