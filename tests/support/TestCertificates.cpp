#include "TestCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

Key NewKey() {
  Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  if (!key) throw std::runtime_error("no key");
  return key;
}

void AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (!extension || X509_add_ext(certificate, extension, -1) != 1) throw std::runtime_error("no extension");
  X509_EXTENSION_free(extension);
}

// A certificate for subjectName holding key, valid from..until seconds from now,
// signed by issuer (itself when null).
Certificate Make(const char* subjectName, EVP_PKEY* key, long from, long until, const char* altNames, X509* issuer,
                 EVP_PKEY* issuerKey, bool authority) {
  static long serial = 1;
  Certificate certificate(X509_new(), X509_free);
  if (!certificate) throw std::runtime_error("no certificate");
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), from);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), until);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(subjectName), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), issuer ? X509_get_subject_name(issuer) : name);
  X509* signer = issuer ? issuer : certificate.get();
  if (authority) {
    AddExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(certificate.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    AddExtension(certificate.get(), signer, NID_subject_alt_name, altNames);
    AddExtension(certificate.get(), signer, NID_ext_key_usage, "serverAuth");
  }
  if (X509_sign(certificate.get(), issuerKey ? issuerKey : key, EVP_sha256()) <= 0) {
    throw std::runtime_error("cannot sign");
  }
  return certificate;
}

void Write(const std::string& path, X509* certificate, EVP_PKEY* key) {
  FILE* file = std::fopen(path.c_str(), "w");
  bool ok = file && (certificate ? PEM_write_X509(file, certificate)
                                 : PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr));
  if (file) std::fclose(file);
  if (!ok) throw std::runtime_error("cannot write " + path);
}

constexpr long kDay = 24 * 3600;

}  // namespace

TestCertificates::TestCertificates(const std::string& folder) {
  Key authorityKey = NewKey();
  Certificate authorityCertificate =
      Make("Corvalink Test Authority", authorityKey.get(), -kDay, 30 * kDay, nullptr, nullptr, nullptr, true);
  authority = folder + "/authority.pem";
  Write(authority, authorityCertificate.get(), nullptr);

  auto make = [&](const std::string& name, long from, long until, const char* host, bool byAuthority) {
    Key key = NewKey();
    const std::string altNames = std::string(host == std::string("127.0.0.1") ? "IP:" : "DNS:") + host;
    Certificate certificate = Make(host, key.get(), from, until, altNames.c_str(),
                                   byAuthority ? authorityCertificate.get() : nullptr,
                                   byAuthority ? authorityKey.get() : nullptr, false);
    Pair pair{folder + "/" + name + ".pem", folder + "/" + name + ".key"};
    Write(pair.certificate, certificate.get(), nullptr);
    Write(pair.key, nullptr, key.get());
    return pair;
  };
  const char* loopback = "127.0.0.1";
  good = make("good", -kDay, 30 * kDay, loopback, true);
  selfSigned = make("self-signed", -kDay, 30 * kDay, loopback, false);
  otherKey = make("other-key", -kDay, 30 * kDay, loopback, false);
  expired = make("expired", -30 * kDay, -kDay, loopback, true);
  wrongHost = make("wrong-host", -kDay, 30 * kDay, "files.example.com", true);
}
