#pragma once
// ServerCertificate: what a TLS server shows of itself, read for the sign-in
// before any password goes out: its certificate with the SHA-256 fingerprint a
// user can compare, the pin of its public key, and how it fares against the
// system's authorities, the clock and the host name. Fetching it checks nothing:
// the handshake is all that runs, no request is sent.

#include <optional>
#include <string>

class ServerCertificate {
 public:
  std::string subject;      // "CN=files.example.com,O=Example"
  std::string issuer;
  std::string validFrom;    // "2026-01-31 12:00:00 UTC"
  std::string validUntil;
  std::string fingerprint;  // SHA-256 of the certificate, "AB:CD:...:EF"
  std::string publicKeyPin; // "sha256//" + base64 SHA-256 of the public key
  bool authorityTrusted = false;  // an authority of the system vouches for the chain
  bool selfSigned = false;
  bool hostMatches = false;       // issued for the host of the URL
  bool expired = false;
  bool notYetValid = false;

  // The certificate of url's server (https only); nothing, with error filled,
  // when no handshake could be made.
  static std::optional<ServerCertificate> Fetch(const std::string& url, std::string& error);
  // Reads a PEM chain, the server's certificate first, as seen for host.
  static std::optional<ServerCertificate> FromChain(const std::string& pemChain, const std::string& host,
                                                   std::string& error);

  // True when every check passes: the authorities, the dates and the host name.
  bool TrustedBySystem() const { return authorityTrusted && hostMatches && !expired && !notYetValid; }
  // Whether a fingerprint a user typed ("AB:CD:..", "abcd..", "SHA256:AB:..")
  // names this certificate.
  bool HasFingerprint(const std::string& typed) const;
};
