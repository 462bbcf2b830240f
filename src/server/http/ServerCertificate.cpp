#include "ServerCertificate.h"

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <memory>
#include <vector>

#include "ServerTrust.h"

namespace {

constexpr long kHandshakeSeconds = 20;

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using BIOPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
struct StackDeleter {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using StackPtr = std::unique_ptr<STACK_OF(X509), StackDeleter>;

std::string NameText(const X509_NAME* name) {
  BIOPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) return "";
  char* data = nullptr;
  long length = BIO_get_mem_data(bio.get(), &data);
  return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : "";
}

std::string TimeText(const ASN1_TIME* time) {
  std::tm parts{};
  if (!time || ASN1_TIME_to_tm(time, &parts) != 1) return "";
  char text[32];
  if (std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0) return "";
  return text;
}

std::string Hex(const unsigned char* bytes, unsigned int length) {
  static const char* digits = "0123456789ABCDEF";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    if (i > 0) text += ':';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0x0F];
  }
  return text;
}

std::string Base64(const unsigned char* bytes, std::size_t length) {
  std::string out(4 * ((length + 2) / 3), '\0');
  int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes, static_cast<int>(length));
  out.resize(written > 0 ? static_cast<std::size_t>(written) : 0);
  return out;
}

std::string PublicKeyPin(X509* certificate) {
  unsigned char* der = nullptr;
  int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
  if (length <= 0) return "";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  bool ok = EVP_Digest(der, static_cast<std::size_t>(length), digest, &digestLength, EVP_sha256(), nullptr) == 1;
  OPENSSL_free(der);
  return ok ? "sha256//" + Base64(digest, digestLength) : "";
}

// Only the hexadecimal digits, upper case: "SHA256:ab:cd" and "ABCD" alike.
std::string FingerprintDigits(std::string text) {
  std::string lowered = text;
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](unsigned char c) { return std::tolower(c); });
  for (const char* prefix : {"sha256:", "sha-256:", "sha256 ", "sha-256 "}) {
    if (lowered.rfind(prefix, 0) == 0) text = text.substr(std::string(prefix).size());
  }
  std::string digits;
  for (unsigned char c : text) {
    if (c == ':' || c == ' ') continue;
    if (!std::isxdigit(c)) return "";
    digits += static_cast<char>(std::toupper(c));
  }
  return digits;
}

// The host of a URL, without the brackets of an IPv6 address.
std::string HostOf(const std::string& url) {
  CURLU* handle = curl_url();
  if (!handle) return "";
  std::string host;
  char* value = nullptr;
  if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(handle, CURLUPART_HOST, &value, 0) == CURLUE_OK && value) {
    host = value;
    curl_free(value);
  }
  curl_url_cleanup(handle);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  return host;
}

bool HostMatches(X509* certificate, const std::string& host) {
  if (host.empty()) return false;
  if (X509_check_ip_asc(certificate, host.c_str(), 0) == 1) return true;
  return X509_check_host(certificate, host.c_str(), host.size(), 0, nullptr) == 1;
}

// Whether the system's authorities (and a named authority file) vouch for the
// chain; the dates are judged apart.
bool ChainTrusted(X509* leaf, STACK_OF(X509) * intermediates) {
  StorePtr store(X509_STORE_new());
  if (!store) return false;
  X509_STORE_set_default_paths(store.get());
  const std::string named = ServerTrust::AuthorityFile();
  if (!named.empty()) X509_STORE_load_locations(store.get(), named.c_str(), nullptr);
  StoreContextPtr context(X509_STORE_CTX_new());
  if (!context || X509_STORE_CTX_init(context.get(), store.get(), leaf, intermediates) != 1) return false;
  X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_NO_CHECK_TIME);
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  return X509_verify_cert(context.get()) == 1;
}

}  // namespace

std::optional<ServerCertificate> ServerCertificate::FromChain(const std::string& pemChain, const std::string& host,
                                                              std::string& error) {
  BIOPtr bio(BIO_new_mem_buf(pemChain.data(), static_cast<int>(pemChain.size())));
  StackPtr intermediates(sk_X509_new_null());
  if (!bio || !intermediates) {
    error = "out of memory";
    return std::nullopt;
  }
  X509Ptr leaf(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  if (!leaf) {
    error = "the server sent no certificate that can be read";
    return std::nullopt;
  }
  while (X509* next = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) sk_X509_push(intermediates.get(), next);

  ServerCertificate certificate;
  certificate.subject = NameText(X509_get_subject_name(leaf.get()));
  certificate.issuer = NameText(X509_get_issuer_name(leaf.get()));
  certificate.validFrom = TimeText(X509_get0_notBefore(leaf.get()));
  certificate.validUntil = TimeText(X509_get0_notAfter(leaf.get()));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (X509_digest(leaf.get(), EVP_sha256(), digest, &digestLength) == 1) {
    certificate.fingerprint = Hex(digest, digestLength);
  }
  certificate.publicKeyPin = PublicKeyPin(leaf.get());
  if (certificate.fingerprint.empty() || certificate.publicKeyPin.empty()) {
    error = "the server's certificate cannot be read";
    return std::nullopt;
  }
  certificate.selfSigned = X509_check_issued(leaf.get(), leaf.get()) == X509_V_OK;
  certificate.hostMatches = HostMatches(leaf.get(), host);
  certificate.expired = X509_cmp_current_time(X509_get0_notAfter(leaf.get())) < 0;
  certificate.notYetValid = X509_cmp_current_time(X509_get0_notBefore(leaf.get())) > 0;
  certificate.authorityTrusted = ChainTrusted(leaf.get(), intermediates.get());
  return certificate;
}

std::optional<ServerCertificate> ServerCertificate::Fetch(const std::string& url, std::string& error) {
  CURL* easy = curl_easy_init();
  if (!easy) {
    error = "Unable to start HTTP connection";
    return std::nullopt;
  }
  char errorBuffer[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // The handshake only: the certificate is looked at here, not trusted.
  curl_easy_setopt(easy, CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(easy, CURLOPT_CERTINFO, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kHandshakeSeconds);
  CURLcode code = curl_easy_perform(easy);
  std::string chain;
  if (code == CURLE_OK) {
    curl_certinfo* info = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_CERTINFO, &info) == CURLE_OK && info) {
      for (int i = 0; i < info->num_of_certs; ++i) {
        for (curl_slist* field = info->certinfo[i]; field; field = field->next) {
          std::string text = field->data;
          if (text.rfind("Cert:", 0) == 0) chain += text.substr(5) + "\n";
        }
      }
    }
  } else {
    error = errorBuffer[0] ? errorBuffer : curl_easy_strerror(code);
  }
  curl_easy_cleanup(easy);
  if (code != CURLE_OK) return std::nullopt;
  if (chain.empty()) {
    error = "the server showed no certificate";
    return std::nullopt;
  }
  return FromChain(chain, HostOf(url), error);
}

bool ServerCertificate::HasFingerprint(const std::string& typed) const {
  std::string digits = FingerprintDigits(typed);
  return !digits.empty() && digits == FingerprintDigits(fingerprint);
}
