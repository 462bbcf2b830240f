#pragma once
// CurlTransport: the HTTP transport over libcurl. Each thread that runs requests
// keeps its own easy and multi handle for the life of the thread, so connections
// are reused by that thread alone; cookies, DNS answers and TLS sessions are
// shared by all threads through a share handle with locks. Redirects are never
// followed here (the engine decides), bodies are never decoded here (the engine
// inflates), and time-outs are limits on inactivity, never on the whole exchange.

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "HTTPTransport.h"

// The head of a response, read line by line as the server sends it.
class ResponseHeadReader {
 public:
  // One line, its line end included or not. A status line starts the head anew
  // (an interim response is replaced); a line that begins with white space
  // continues the header before it; a line without a name is ignored.
  void AddLine(std::string line);
  const HTTPResponseHead& head() const { return head_; }

  // How long the connection may serve again after this head: fallback when the
  // server names no limit, nothing when it closes the connection.
  static std::optional<std::chrono::nanoseconds> KeepFor(const HTTPResponseHead& head,
                                                         std::chrono::nanoseconds fallback);

 private:
  HTTPResponseHead head_;
  std::string lastHeaderName_;
};

class CurlTransport : public HTTPTransport {
 public:
  // The one instance of the process.
  static std::shared_ptr<CurlTransport> Shared();

  HTTPExchangeResult Perform(HTTPExchange& exchange) override;
  // Forgets every cookie of the shared store.
  void ClearCookies();
};
