#pragma once
// TestCertificates: the certificates of the TLS tests, made at test time with
// OpenSSL in a folder of the test (no key is ever committed): a test authority
// and, for the loopback address 127.0.0.1, a certificate it signed, a
// self-signed one, a self-signed one with another key, one it signed that has
// expired, and one it signed for another host name.

#include <string>

class TestCertificates {
 public:
  struct Pair {
    std::string certificate;  // PEM file
    std::string key;          // PEM file
  };

  // Makes them all in folder; throws std::runtime_error when OpenSSL fails.
  explicit TestCertificates(const std::string& folder);

  std::string authority;  // the test authority's certificate, PEM
  Pair good, selfSigned, otherKey, expired, wrongHost;
};
