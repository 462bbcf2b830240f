// Signing in to servers over TLS: the system's authorities, a server of its own
// authority trusted by its key once the user accepted its fingerprint, a key that
// changed later, and certificates that never pass. No password goes out before
// the certificate has passed.

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>

#include "CVConfiguration.h"
#include "CVHandler.h"
#include "ClientServerFixture.h"
#include "LoginController.h"
#include "ServerCertificate.h"
#include "ServerTrust.h"
#include "SessionConnectionService.h"
#include "SettingsContext.h"
#include "TestCertificates.h"

namespace {

class CertificateSignInTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    ServerTrust::ResetForTests();
    certs_ = std::make_unique<TestCertificates>(home_->path());
    ServerTrust::SetAuthorityFile(certs_->authority);
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
  }
  void TearDown() override {
    ClientServerTest::TearDown();
    ServerTrust::ResetForTests();
  }

  // Serves https with the pair, on the port of the server before when asked.
  void Serve(const TestCertificates::Pair& pair, bool samePort = false) {
    auto options = DefaultOptions();
    options.tlsCertificate = pair.certificate;
    options.tlsKey = pair.key;
    if (samePort) options.port = server_->port();
    StartServer(options);
  }

  LoginController::Result SignIn(bool answer, const std::string& fingerprint = "") {
    questions_.clear();
    return login_.LoginMethodRun({server_->BaseUrl(), "alice", "secret", fingerprint}, nullptr,
                                 [&](const CertificateQuestion& question) {
                                   questions_.push_back(question);
                                   return answer;
                                 });
  }

  ServerCertificate CertificateOf(const TestCertificates::Pair& pair) {
    std::ifstream in(pair.certificate);
    std::stringstream pem;
    pem << in.rdbuf();
    std::string error;
    return ServerCertificate::FromChain(pem.str(), "127.0.0.1", error).value();
  }

  std::string SavedPin() {
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
    return CVConfiguration::Instance().Corvalink.ServerKeyPin;
  }

  std::unique_ptr<TestCertificates> certs_;
  SettingsContext settings_{SyncControl::FilesOnly()};
  LoginController login_{settings_};
  std::vector<CertificateQuestion> questions_;
};

TEST_F(CertificateSignInTest, ACertificateTheAuthoritiesVouchForNeedsNoQuestion) {
  Serve(certs_->good);
  auto result = SignIn(false);
  ASSERT_EQ(result.outcome, LoginController::Outcome::SignedIn) << result.message;
  EXPECT_TRUE(questions_.empty());
  EXPECT_TRUE(result.notices.empty());
  EXPECT_EQ(SavedPin(), "");
}

TEST_F(CertificateSignInTest, CertificatesThatDoNotPassGetNoPassword) {
  struct Case {
    const char* name;
    const TestCertificates::Pair& served;
    bool answer;
    std::string fingerprint;
    std::size_t questions;
    const char* message;
  };
  const Case cases[] = {
      {"expired", certs_->expired, true, "", 0, "expired on"},
      {"another host name", certs_->wrongHost, true, "", 0, "issued for another name"},
      {"self-signed, not accepted", certs_->selfSigned, false, "", 1, "was not accepted"},
      {"self-signed, another fingerprint given", certs_->selfSigned, false,
       CertificateOf(certs_->otherKey).fingerprint, 1, "was not accepted"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Serve(c.served);
    auto result = SignIn(c.answer, c.fingerprint);
    EXPECT_EQ(result.outcome, LoginController::Outcome::Untrusted);
    EXPECT_NE(result.message.find(c.message), std::string::npos) << result.message;
    EXPECT_EQ(questions_.size(), c.questions);
    EXPECT_EQ(server_->CallCount("Login"), 0);
    EXPECT_EQ(CVConfiguration::Instance().Corvalink.Url, "");
  }
}

TEST_F(CertificateSignInTest, AnAcceptedKeyIsPinnedAndAnotherOneStopsTheSync) {
  Serve(certs_->selfSigned);
  const ServerCertificate shown = CertificateOf(certs_->selfSigned);
  auto accepted = SignIn(true);
  ASSERT_EQ(accepted.outcome, LoginController::Outcome::SignedIn) << accepted.message;
  ASSERT_EQ(questions_.size(), 1u);
  EXPECT_FALSE(questions_[0].keyChanged);
  EXPECT_NE(questions_[0].Details().find("SHA-256 fingerprint: " + shown.fingerprint), std::string::npos);
  EXPECT_NE(questions_[0].Details().find("self-signed"), std::string::npos);
  EXPECT_EQ(SavedPin(), shown.publicKeyPin);
  // The sync's calls trust the pinned key; the next sign-in asks nothing.
  CVHandler::Instance().RemoveAllTokens();
  EXPECT_NE(CVHandler::Instance().CheckCVToken(CVHandler::kMainTokenKey), "");
  EXPECT_EQ(SignIn(false).outcome, LoginController::Outcome::SignedIn);
  EXPECT_TRUE(questions_.empty());

  // The same address with another key: no password reaches it, and the sync stops.
  const int logins = server_->CallCount("Login");
  Serve(certs_->otherKey, true);
  CVHandler::Instance().RemoveAllTokens();
  EXPECT_EQ(CVHandler::Instance().CheckCVToken(CVHandler::kMainTokenKey), "");
  EXPECT_EQ(server_->CallCount("Login"), 0);
  auto problem = SessionConnectionService().CertificateProblem();
  ASSERT_TRUE(problem);
  EXPECT_NE(problem->find("another key than the one accepted"), std::string::npos) << *problem;

  // Signing in again asks, and says that the key changed; declined, the old key stands.
  EXPECT_EQ(SignIn(false).outcome, LoginController::Outcome::Untrusted);
  ASSERT_EQ(questions_.size(), 1u);
  EXPECT_TRUE(questions_[0].keyChanged);
  EXPECT_NE(questions_[0].Details().find("Warning"), std::string::npos);
  EXPECT_EQ(SavedPin(), shown.publicKeyPin);
  EXPECT_TRUE(SessionConnectionService().CertificateProblem());
  // Accepted, the new key is pinned and the stop is over.
  ASSERT_EQ(SignIn(true).outcome, LoginController::Outcome::SignedIn);
  EXPECT_EQ(SavedPin(), CertificateOf(certs_->otherKey).publicKeyPin);
  EXPECT_FALSE(SessionConnectionService().CertificateProblem());
  EXPECT_GT(logins, 0);
}

TEST_F(CertificateSignInTest, AFingerprintGivenBeforehandAnswersTheQuestion) {
  Serve(certs_->selfSigned);
  std::string typed;
  for (char c : CertificateOf(certs_->selfSigned).fingerprint) {
    if (c != ':') typed += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  auto result = SignIn(false, "SHA256:" + typed);
  ASSERT_EQ(result.outcome, LoginController::Outcome::SignedIn) << result.message;
  EXPECT_TRUE(questions_.empty());
  EXPECT_EQ(SavedPin(), CertificateOf(certs_->selfSigned).publicKeyPin);
}

TEST_F(CertificateSignInTest, APlainAddressSaysTheConnectionIsNotEncrypted) {
  auto result = SignIn(false);
  ASSERT_EQ(result.outcome, LoginController::Outcome::SignedIn) << result.message;
  ASSERT_EQ(result.notices.size(), 1u);
  EXPECT_NE(result.notices[0].find("is not encrypted (http://)"), std::string::npos);
  EXPECT_TRUE(questions_.empty());
}

}  // namespace
