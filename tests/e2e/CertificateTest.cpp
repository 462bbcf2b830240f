// A server with a self-signed certificate, with real processes: the sign-in shows
// its fingerprint and goes on only once it is accepted; the sync then runs; the
// same address with another key stops the sync with a message the user sees, and
// no password reaches that server.

#include <signal.h>

#include <filesystem>
#include <regex>

#include "E2EFixture.h"
#include "TestCertificates.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class CertificateE2ETest : public E2ETest {
 protected:
  void ServeWith(const TestCertificates::Pair& pair, const std::string& port = "0") {
    StartServer({"--tls", pair.certificate, pair.key, "--listen", "127.0.0.1:" + port});
  }
};

TEST_F(CertificateE2ETest, AnAcceptedFingerprintLetsTheSyncRunAndAnotherKeyStopsIt) {
  TestCertificates certs(root_.string());
  Write(ServerDocs() / "plan.txt", "the plan\n");
  ServeWith(certs.selfSigned);
  ASSERT_EQ(serverUrl_.rfind("https://", 0), 0u) << serverUrl_;
  const std::string port = std::regex_replace(serverUrl_, std::regex(".*:([0-9]+)/$"), "$1");
  const std::string home = MakeEmptyHome("alice");

  // --yes answers no certificate question.
  auto shown = RunCommand(home, {"login", serverUrl_, "alice", "--password-stdin", "--yes"}, "secret\n");
  EXPECT_EQ(shown.code, 7) << shown.output;
  std::smatch match;
  ASSERT_TRUE(std::regex_search(shown.output, match, std::regex("SHA-256 fingerprint: ([0-9A-F:]{95})")))
      << shown.output;
  const std::string fingerprint = match[1];
  EXPECT_NE(shown.output.find("give --accept-fingerprint"), std::string::npos) << shown.output;
  EXPECT_EQ(server_->Output().find("Login"), std::string::npos) << server_->Output();

  auto login = RunCommand(
      home, {"login", serverUrl_, "alice", "--password-stdin", "--accept-fingerprint", fingerprint}, "secret\n");
  ASSERT_EQ(login.code, 0) << login.output;
  ASSERT_EQ(RunCommand(home, {"select", "Docs", "all"}).code, 0);
  auto client = StartClient(home);
  ASSERT_TRUE(WaitFor([&] { return Read(ClientDocs(home) / "plan.txt") == "the plan\n"; })) << client->Output();

  // The same address now shows another key.
  StopServer();
  ServeWith(certs.otherKey, port);
  Write(ServerDocs() / "bait.txt", "from the other server\n");
  ASSERT_TRUE(client->WaitForLine("another key than the one accepted for it", 30s)) << client->Output();
  auto status = RunCommand(home, {"status"});
  EXPECT_NE(status.output.find("Client: running, stopped: The server 127.0.0.1:" + port), std::string::npos)
      << status.output;
  EXPECT_EQ(RunCommand(home, {"sync-now"}).code, 7);
  EXPECT_FALSE(fs::exists(ClientDocs(home) / "bait.txt"));
  EXPECT_EQ(server_->Output().find("Login"), std::string::npos) << server_->Output();
  // Told once, not at every tick.
  const std::string output = client->Output();
  const std::string told = "Notification: Corvalink Sync: The server 127.0.0.1";
  EXPECT_EQ(output.find(told), output.rfind(told)) << output;

  ASSERT_EQ(RunCommand(home, {"quit"}).code, 0);
  EXPECT_EQ(client->Wait(20s), 0) << client->Output();
  EXPECT_EQ(ExceptionLog(home), "");
}

}  // namespace
