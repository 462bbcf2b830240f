// Certificates: the engine trusts the system's authorities, or the key pinned
// for a server; a key other than the pinned one fails and is recorded for the
// sync to stop on; a server's certificate is read and judged for the sign-in.

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "ASIHTTPRequest.h"
#include "ServerCertificate.h"
#include "ServerTrust.h"
#include "TempHome.h"
#include "TestCertificates.h"

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The fingerprint as the openssl tool prints it, independently of the client.
std::string ToolFingerprint(const std::string& certificate) {
  std::string command = "openssl x509 -noout -fingerprint -sha256 -in '" + certificate + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "";
  char line[256] = {0};
  std::string text = fgets(line, sizeof(line), pipe) ? line : "";
  pclose(pipe);
  auto equals = text.find('=');
  if (equals == std::string::npos) return "";
  text = text.substr(equals + 1);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

// An https server on loopback with one certificate, answering "secure".
class TlsServer {
 public:
  explicit TlsServer(const TestCertificates::Pair& pair) : server_(pair.certificate.c_str(), pair.key.c_str()) {
    server_.set_keep_alive_max_count(1);
    server_.Get("/", [](const httplib::Request&, httplib::Response& res) { res.set_content("secure", "text/plain"); });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~TlsServer() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  httplib::SSLServer server_;
  int port_ = 0;
  std::thread thread_;
};

class ServerTrustTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerTrust::ResetForTests();
    ServerTrust::SetAuthorityFile(certs_.authority);
  }
  void TearDown() override { ServerTrust::ResetForTests(); }

  std::string PinOf(const TestCertificates::Pair& pair) {
    std::string error;
    auto certificate = ServerCertificate::FromChain(ReadFile(pair.certificate), "127.0.0.1", error);
    return certificate ? certificate->publicKeyPin : "";
  }

  TempHome home_;
  TestCertificates certs_{home_.path()};
};

TEST_F(ServerTrustTest, TheAuthoritiesOrThePinnedKeyDecide) {
  struct Case {
    const char* name;
    const TestCertificates::Pair& served;
    const TestCertificates::Pair* pinned;
    int errorCode;  // 0: the request passes
    std::optional<ServerTrust::Failure::Kind> recorded;
  };
  using Kind = ServerTrust::Failure::Kind;
  const int ssl = ASIError::ASIConnectionFailureErrorType;
  const Case cases[] = {
      {"an authority vouches", certs_.good, nullptr, 0, std::nullopt},
      {"self-signed", certs_.selfSigned, nullptr, ssl, Kind::Untrusted},
      {"self-signed, its key pinned", certs_.selfSigned, &certs_.selfSigned, 0, std::nullopt},
      {"self-signed, another key pinned", certs_.selfSigned, &certs_.otherKey, ASIError::ASIServerKeyChangedErrorType,
       Kind::KeyChanged},
      {"expired", certs_.expired, nullptr, ssl, Kind::Untrusted},
      {"expired, its key pinned", certs_.expired, &certs_.expired, 0, std::nullopt},
      {"another host name", certs_.wrongHost, nullptr, ssl, Kind::Untrusted},
      {"another host name, its key pinned", certs_.wrongHost, &certs_.wrongHost, ssl, Kind::Untrusted},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ServerTrust::ResetForTests();
    ServerTrust::SetAuthorityFile(certs_.authority);
    TlsServer server(c.served);
    if (c.pinned) ServerTrust::SetPin(server.url(), PinOf(*c.pinned));
    auto request = ASIHTTPRequest::requestWithURL(server.url());
    request->startSynchronous();
    if (c.errorCode == 0) {
      EXPECT_FALSE(request->error()) << request->error()->description();
      EXPECT_EQ(request->responseString(), "secure");
    } else {
      ASSERT_TRUE(request->error());
      EXPECT_EQ(request->error()->code(), c.errorCode) << request->error()->description();
    }
    auto failure = ServerTrust::FailureFor(server.url());
    EXPECT_EQ(failure.has_value(), c.recorded.has_value());
    if (failure && c.recorded) {
      EXPECT_EQ(failure->kind, *c.recorded);
    }
  }
}

TEST_F(ServerTrustTest, AcceptingAKeyEndsTheStopAndASignInTriesItOnItsThreadOnly) {
  TlsServer server(certs_.selfSigned);
  ServerTrust::SetPin(server.url(), PinOf(certs_.otherKey));
  auto refused = ASIHTTPRequest::requestWithURL(server.url());
  refused->startSynchronous();
  ASSERT_TRUE(ServerTrust::FailureFor(server.url()));
  EXPECT_NE(ServerTrust::Describe(*ServerTrust::FailureFor(server.url())).find("another key"), std::string::npos);

  {
    // The sign-in's trial: this thread alone uses the key under test.
    ServerTrust::ScopedPin trial(server.url(), PinOf(certs_.selfSigned));
    auto tried = ASIHTTPRequest::requestWithURL(server.url());
    tried->startSynchronous();
    EXPECT_FALSE(tried->error());
    std::string elsewhere;
    std::thread([&] { elsewhere = ServerTrust::PinFor(server.url()); }).join();
    EXPECT_EQ(elsewhere, PinOf(certs_.otherKey));
  }
  EXPECT_EQ(ServerTrust::PinFor(server.url()), PinOf(certs_.otherKey));
  // The same pin again changes nothing; the accepted key ends the stop.
  ServerTrust::SetPin(server.url(), PinOf(certs_.otherKey));
  EXPECT_TRUE(ServerTrust::FailureFor(server.url()));
  ServerTrust::SetPin(server.url(), PinOf(certs_.selfSigned));
  EXPECT_FALSE(ServerTrust::FailureFor(server.url()));
}

TEST_F(ServerTrustTest, TheServersCertificateIsReadAndJudged) {
  struct Case {
    const char* name;
    const TestCertificates::Pair& served;
    bool trusted, authority, selfSigned, hostMatches, expired;
  };
  const Case cases[] = {
      {"an authority vouches", certs_.good, true, true, false, true, false},
      {"self-signed", certs_.selfSigned, false, false, true, true, false},
      {"expired", certs_.expired, false, true, false, true, true},
      {"another host name", certs_.wrongHost, false, true, false, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TlsServer server(c.served);
    std::string error;
    auto certificate = ServerCertificate::Fetch(server.url(), error);
    ASSERT_TRUE(certificate) << error;
    EXPECT_EQ(certificate->TrustedBySystem(), c.trusted);
    EXPECT_EQ(certificate->authorityTrusted, c.authority);
    EXPECT_EQ(certificate->selfSigned, c.selfSigned);
    EXPECT_EQ(certificate->hostMatches, c.hostMatches);
    EXPECT_EQ(certificate->expired, c.expired);
    EXPECT_EQ(certificate->fingerprint, ToolFingerprint(c.served.certificate));
    EXPECT_EQ(certificate->publicKeyPin, PinOf(c.served));
  }
  // Nothing listens: no certificate, and why.
  std::string error;
  EXPECT_FALSE(ServerCertificate::Fetch("https://127.0.0.1:1/", error));
  EXPECT_FALSE(error.empty());
}

TEST_F(ServerTrustTest, AFingerprintIsRecognisedInTheFormsPeopleTypeIt) {
  std::string error;
  auto certificate = ServerCertificate::FromChain(ReadFile(certs_.selfSigned.certificate), "127.0.0.1", error);
  ASSERT_TRUE(certificate) << error;
  std::string plain;
  for (char c : certificate->fingerprint) {
    if (c != ':') plain += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  for (const std::string& typed : {certificate->fingerprint, plain, "SHA256:" + certificate->fingerprint,
                                   "sha256:" + plain, "SHA-256 " + certificate->fingerprint}) {
    EXPECT_TRUE(certificate->HasFingerprint(typed)) << typed;
  }
  std::string other = plain;
  other[0] = other[0] == 'a' ? 'b' : 'a';
  for (const std::string& typed : {other, std::string(""), plain.substr(0, 20), std::string("not hex at all")}) {
    EXPECT_FALSE(certificate->HasFingerprint(typed)) << typed;
  }
  EXPECT_FALSE(ServerCertificate::FromChain("no certificate here", "127.0.0.1", error));
}

}  // namespace
