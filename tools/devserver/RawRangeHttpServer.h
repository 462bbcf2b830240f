#pragma once
// RawRangeHttpServer: cpp-httplib's server with our own connection loop, for
// two things the library does not offer:
//  - The client sends Range without the "bytes=" unit ("100-", "100-150", or
//    empty), which the library answers with 416 before any handler runs. The
//    connection stream renames the header on its way in, so the value reaches
//    the handlers untouched under kRawRangeHeader; an empty Range, which the
//    library would drop, arrives as kEmptyRangeHeader.
//  - Tests need a connection to die on purpose: DropCurrentConnection() makes the
//    calling handler's connection write nothing more and close.
// Keep-alive, time-outs and stopping behave as in the library's own loop. With a
// certificate and key (UseTls) every connection speaks TLS (OpenSSL) under the
// same loop.

#include <openssl/ssl.h>

#include <filesystem>
#include <memory>

#include <httplib.h>

namespace devserver {

// Exactly as long as "Range", so that the stream can rename the header in place.
inline constexpr const char* kRawRangeHeader = "X-Rng";
inline constexpr const char* kEmptyRangeHeader = "X-Rng-Empty";

class RawRangeHttpServer : public httplib::Server {
 public:
  // From inside a handler: no byte more goes out on this connection, and it
  // closes once the handler returns.
  static void DropCurrentConnection();

  // Serves TLS with the certificate chain and key of these PEM files; throws
  // std::invalid_argument when they cannot be used. Before listening.
  void UseTls(const std::filesystem::path& certificateChain, const std::filesystem::path& key);
  bool tls() const { return tls_ != nullptr; }

 private:
  bool process_and_close_socket(socket_t sock) override;

  struct ContextDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  std::unique_ptr<SSL_CTX, ContextDeleter> tls_;
};

}  // namespace devserver
