#include "ServerTrust.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "HTTPURLHelpers.h"

namespace {

struct TrustTable {
  std::mutex lock;
  std::map<std::string, std::string> pins;  // by origin
  std::map<std::string, ServerTrust::Failure> failures;
  std::optional<std::string> authorityFile;  // unset: SSL_CERT_FILE or the system's
};

// Lives to the end of the process: queue threads may still ask while statics go.
TrustTable& Table() {
  static auto* table = new TrustTable();
  return *table;
}

// The sign-in's pin, on the thread that tries the server: origin and pin.
thread_local std::optional<std::pair<std::string, std::string>> tScopedPin;

}  // namespace

void ServerTrust::SetPin(const std::string& url, const std::string& pin) {
  const std::string origin = HTTPURLHelpers::Origin(url);
  if (origin.empty()) return;
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  auto kept = table.pins.find(origin);
  const std::string before = kept == table.pins.end() ? "" : kept->second;
  if (before == pin) return;
  if (pin.empty()) {
    table.pins.erase(origin);
  } else {
    table.pins[origin] = pin;
  }
  table.failures.erase(origin);
}

std::string ServerTrust::PinFor(const std::string& url) {
  const std::string origin = HTTPURLHelpers::Origin(url);
  if (tScopedPin && tScopedPin->first == origin) return tScopedPin->second;
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  auto kept = table.pins.find(origin);
  return kept == table.pins.end() ? "" : kept->second;
}

ServerTrust::ScopedPin::ScopedPin(const std::string& url, const std::string& pin) : previous_(tScopedPin) {
  tScopedPin = std::make_pair(HTTPURLHelpers::Origin(url), pin);
}

ServerTrust::ScopedPin::~ScopedPin() { tScopedPin = previous_; }

void ServerTrust::RecordFailure(const std::string& url, Failure::Kind kind, const std::string& detail) {
  const std::string origin = HTTPURLHelpers::Origin(url);
  if (origin.empty()) return;
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  table.failures[origin] = Failure{kind, origin, detail};
}

std::optional<ServerTrust::Failure> ServerTrust::FailureFor(const std::string& url) {
  const std::string origin = HTTPURLHelpers::Origin(url);
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  auto found = table.failures.find(origin);
  if (found == table.failures.end()) return std::nullopt;
  return found->second;
}

void ServerTrust::ClearFailure(const std::string& url) {
  const std::string origin = HTTPURLHelpers::Origin(url);
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  table.failures.erase(origin);
}

std::string ServerTrust::Describe(const Failure& failure) {
  std::string host = failure.origin;
  if (auto scheme = host.find("://"); scheme != std::string::npos) host = host.substr(scheme + 3);
  if (failure.kind == Failure::Kind::KeyChanged) {
    return "The server " + host +
           " showed a certificate with another key than the one accepted for it; someone may be "
           "intercepting the connection. The sync is stopped. If the server's certificate was renewed, "
           "sign in again to check and accept it (corvalink-sync login).";
  }
  return "The certificate of the server " + host + " is not trusted (" + failure.detail +
         "). The sync is stopped; sign in again to check it (corvalink-sync login).";
}

void ServerTrust::SetAuthorityFile(const std::string& path) {
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  table.authorityFile = path;
}

std::string ServerTrust::AuthorityFile() {
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  if (!table.authorityFile) {
    // OpenSSL's own variable: a machine (or a test) that names its authorities.
    const char* named = std::getenv("SSL_CERT_FILE");
    table.authorityFile = named ? named : "";
  }
  return *table.authorityFile;
}

void ServerTrust::ResetForTests() {
  TrustTable& table = Table();
  std::lock_guard<std::mutex> lock(table.lock);
  table.pins.clear();
  table.failures.clear();
  table.authorityFile.reset();
}
