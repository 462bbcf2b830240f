#pragma once
// CurlTransport: the HTTP transport over libcurl. Each thread that runs requests
// keeps its own easy and multi handle for the life of the thread, so connections
// are reused by that thread alone; cookies, DNS answers and TLS sessions are
// shared by all threads through a share handle with locks. Redirects are never
// followed here (the engine decides), bodies are never decoded here (the engine
// inflates), and time-outs are limits on inactivity, never on the whole exchange.

#include <memory>

#include "HTTPTransport.h"

class CurlTransport : public HTTPTransport {
 public:
  // The one instance of the process.
  static std::shared_ptr<CurlTransport> Shared();

  HTTPExchangeResult Perform(HTTPExchange& exchange) override;
  // Forgets every cookie of the shared store.
  void ClearCookies();
};
