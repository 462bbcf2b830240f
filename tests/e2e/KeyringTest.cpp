// The password in the desktop's keyring, with real processes and a real Secret
// Service (run by with-keyring.sh in a D-Bus session of its own): it is in no
// file under ~/Corvalink, the client signs in with it from the keyring, a
// password left in the file moves there at the next start, and signing out takes
// it from the keyring.

#include <stdlib.h>

#include <filesystem>
#include <random>
#include <thread>

#include "CVStorageDataProtection.h"
#include "E2EFixture.h"
#include "Keyring.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class KeyringE2ETest : public E2ETest {
 protected:
  void SetUp() override {
    const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!bus || !*bus) {
      GTEST_SKIP() << "no session bus: run it through tests/e2e/with-keyring.sh";
    }
    std::string reason;
    keyring_ = SecretServiceKeyring::IfOnSessionBus(reason);
    if (!keyring_) GTEST_SKIP() << "no Secret Service on the session bus: " << reason;
    E2ETest::SetUp();
    keepSessionBus_ = true;
  }

  std::string Kept(const std::string& user) {
    std::string server = serverUrl_.substr(0, serverUrl_.size() - 1);
    std::string error;
    return keyring_->Lookup(server, user, error).value_or("<" + error + ">");
  }

  // Configuration.xml of a home, deciphered as its client reads it.
  static std::string Configuration(const std::string& home) {
    const char* before = std::getenv("HOME");
    const std::string saved = before ? before : "";
    setenv("HOME", home.c_str(), 1);
    auto text = CVStorageDataProtection::DecryptFile(home + "/Corvalink/.Settings/Configuration.xml");
    setenv("HOME", saved.c_str(), 1);
    return text.value_or("");
  }

  std::unique_ptr<Keyring> keyring_;
};

TEST_F(KeyringE2ETest, ThePasswordLivesInTheKeyringAndInNoFile) {
  std::random_device random;
  const std::string password = "kr-" + std::to_string(random()) + "-" + std::to_string(random());
  Write(ServerDocs() / "notes.txt", "notes\n");
  StartServer({"--user", "carol:" + password});
  const std::string home = MakeEmptyHome("carol");
  auto login = RunCommand(home, {"login", serverUrl_, "carol", "--password-stdin"}, password + "\n");
  ASSERT_EQ(login.code, 0) << login.output;
  ASSERT_EQ(RunCommand(home, {"select", "Docs", "all"}).code, 0);
  EXPECT_EQ(Kept("carol"), password);

  // A start signs in with the password from the keyring.
  auto client = StartClient(home, true);
  ASSERT_EQ(client->Wait(60s), 0) << client->Output();
  EXPECT_EQ(Read(ClientDocs(home) / "notes.txt"), "notes\n");

  const std::string configuration = Configuration(home);
  EXPECT_NE(configuration.find("<UserName>carol</UserName>"), std::string::npos) << configuration;
  EXPECT_NE(configuration.find("<Password></Password>"), std::string::npos) << configuration;
  for (const auto& entry : fs::recursive_directory_iterator(fs::path(home) / "Corvalink")) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(Read(entry.path()).find(password), std::string::npos) << entry.path();
    }
  }
  EXPECT_EQ(configuration.find(password), std::string::npos);

  ASSERT_EQ(RunCommand(home, {"logout"}).code, 0);
  EXPECT_EQ(Kept("carol"), "");
  EXPECT_EQ(ExceptionLog(home), "");
}

TEST_F(KeyringE2ETest, APasswordInTheFileMovesToTheKeyringAtTheNextStart) {
  Write(ServerDocs() / "plan.txt", "plan\n");
  StartServer();
  const std::string home = MakeClientHome("older-client");  // alice's password in the file
  ASSERT_NE(Read(fs::path(home) / "Corvalink/.Settings/Configuration.xml").find("<Password>secret</Password>"),
            std::string::npos);
  auto client = StartClient(home, true);
  ASSERT_EQ(client->Wait(60s), 0) << client->Output();
  EXPECT_EQ(Read(ClientDocs(home) / "plan.txt"), "plan\n");
  EXPECT_EQ(Kept("alice"), "secret");
  const std::string configuration = Configuration(home);
  EXPECT_NE(configuration.find("<Password></Password>"), std::string::npos) << configuration;
  EXPECT_NE(configuration.find("<PasswordInKeyring>true</PasswordInKeyring>"), std::string::npos) << configuration;
  auto status = RunCommand(home, {"status"});
  EXPECT_NE(status.output.find("Account: alice on " + serverUrl_ + "\n"), std::string::npos) << status.output;
}

// A keyring that must first be unlocked or made shows a prompt (run by the
// test's script with no login keyring, on a virtual display); nobody answers it.
// The call that waits for it ends when the client quits, as the client's quit
// cannot wait for a person.
TEST(KeyringPromptTest, ACallWaitingForAnUnansweredPromptEndsWhenTheClientQuits) {
  if (!std::getenv("CORVALINK_KEYRING_LOCKED")) GTEST_SKIP() << "run with CORVALINK_KEYRING_LOCKED by its CTest entry";
  std::string reason;
  auto keyring = SecretServiceKeyring::IfOnSessionBus(reason);
  if (!keyring) GTEST_SKIP() << "no Secret Service on the session bus: " << reason;
  std::string error;
  bool stored = true;
  const auto start = std::chrono::steady_clock::now();
  std::thread store([&] { stored = keyring->Store("https://example.test/", "alice", "label", "pw", error); });
  std::this_thread::sleep_for(1s);  // the prompt is up by now; a call that ended already fails below
  SecretServiceKeyring::CancelWaits();
  store.join();
  EXPECT_FALSE(stored);
  EXPECT_NE(error, "") << "the call ended without saying why";
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

}  // namespace
