#pragma once
// ServerTrust: which TLS servers the request engine trusts, process-wide. A
// server whose certificate an authority of the system vouches for needs nothing
// here. A server with an authority of its own (or a self-signed certificate) is
// trusted only by the public key the user accepted for it: that key is pinned
// per origin ("https://host:443"), and a connection whose key differs fails. A
// certificate that fails is recorded for its origin, so that the sync can stop
// and say why instead of trying again; only a sign-in that checked the server
// anew clears it.
//
// Pins are "sha256//" followed by the base64 SHA-256 of the key's
// SubjectPublicKeyInfo, the form libcurl checks.

#include <optional>
#include <string>

class ServerTrust {
 public:
  struct Failure {
    enum class Kind {
      KeyChanged,  // the pinned key is not the one the server showed
      Untrusted,   // no authority vouches for the certificate, or it does not fit
    };
    Kind kind = Kind::Untrusted;
    std::string origin;
    std::string detail;  // the TLS layer's words
  };

  // The pin of url's origin; "" trusts the system's authorities only. A pin
  // other than the one kept clears the origin's recorded failure: the user
  // accepted a key.
  static void SetPin(const std::string& url, const std::string& pin);
  // The pin for url's origin: this thread's ScopedPin first, else the one set.
  static std::string PinFor(const std::string& url);

  // For a sign-in that tries a server before anything is saved: on this thread
  // only, url's origin is trusted by pin ("" for the authorities alone).
  class ScopedPin {
   public:
    ScopedPin(const std::string& url, const std::string& pin);
    ~ScopedPin();
    ScopedPin(const ScopedPin&) = delete;
    ScopedPin& operator=(const ScopedPin&) = delete;

   private:
    std::optional<std::pair<std::string, std::string>> previous_;
  };

  static void RecordFailure(const std::string& url, Failure::Kind kind, const std::string& detail);
  static std::optional<Failure> FailureFor(const std::string& url);
  static void ClearFailure(const std::string& url);
  // What a user reads about a failure.
  static std::string Describe(const Failure& failure);

  // A file of authorities used instead of the system's (tests, or a machine
  // that names its own with SSL_CERT_FILE); "" for the system's.
  static void SetAuthorityFile(const std::string& path);
  static std::string AuthorityFile();

  static void ResetForTests();
};
