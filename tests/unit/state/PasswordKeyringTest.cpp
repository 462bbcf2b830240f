// Where the account's password lives: with a keyring it leaves Configuration.xml
// (a password still there moves at the next read), follows the account in and
// out of the keyring, and survives a keyring that does not answer; without one,
// or when the keyring refuses, it stays in the enciphered file.

#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "CVConfiguration.h"
#include "CVStorageDataProtection.h"
#include "TempHome.h"

namespace {

// A keyring in memory that can stop answering or refuse to keep anything.
struct KeyringState {
  std::map<std::pair<std::string, std::string>, std::string> items;
  bool answers = true;
  bool keeps = true;
  int stores = 0;
};

class FakeKeyring : public Keyring {
 public:
  explicit FakeKeyring(std::shared_ptr<KeyringState> state) : state_(std::move(state)) {}
  std::optional<std::string> Lookup(const std::string& server, const std::string& user, std::string& error) override {
    if (!state_->answers) {
      error = "locked";
      return std::nullopt;
    }
    auto found = state_->items.find({server, user});
    return found == state_->items.end() ? "" : found->second;
  }
  bool Store(const std::string& server, const std::string& user, const std::string&, const std::string& password,
             std::string& error) override {
    if (!state_->answers || !state_->keeps) {
      error = "refused";
      return false;
    }
    ++state_->stores;
    state_->items[{server, user}] = password;
    return true;
  }
  bool Clear(const std::string& server, const std::string& user, std::string& error) override {
    if (!state_->answers) {
      error = "locked";
      return false;
    }
    state_->items.erase({server, user});
    return true;
  }

 private:
  std::shared_ptr<KeyringState> state_;
};

class PasswordKeyringTest : public ::testing::Test {
 protected:
  // A new start of the client, with the keyring or without.
  CVConfiguration& Start(bool withKeyring) {
    CVConfiguration::ResetForTests();
    CVConfiguration& config = CVConfiguration::Instance();
    if (withKeyring) config.SetKeyring(std::make_unique<FakeKeyring>(keyring_));
    config.ReadConfigFromFile();
    return config;
  }
  void SignIn(CVConfiguration& config, const std::string& user, const std::string& password) {
    config.Corvalink.Url = "https://files.example.com/";
    config.Corvalink.UserName = user;
    config.Corvalink.Password = password;
    config.SaveConfigXML();
  }
  // The file's account as it stands on disk, deciphered.
  std::string FileText() {
    return CVStorageDataProtection::DecryptFile(home_.settings() + "/Configuration.xml").value_or("");
  }

  TempHome home_;
  std::shared_ptr<KeyringState> keyring_ = std::make_shared<KeyringState>();
  const std::pair<std::string, std::string> alice_{"https://files.example.com", "alice"};
};

TEST_F(PasswordKeyringTest, APasswordInTheFileMovesToTheKeyringAtTheNextStart) {
  SignIn(Start(false), "alice", "s3cret&<");
  ASSERT_NE(FileText().find("<Password>s3cret&amp;&lt;</Password>"), std::string::npos);

  CVConfiguration& config = Start(true);
  EXPECT_EQ(keyring_->items[alice_], "s3cret&<");
  EXPECT_NE(FileText().find("<Password></Password>"), std::string::npos) << FileText();
  EXPECT_NE(FileText().find("<PasswordInKeyring>true</PasswordInKeyring>"), std::string::npos);
  EXPECT_EQ(FileText().find("s3cret"), std::string::npos);
  EXPECT_TRUE(config.IsSignedIn());
  EXPECT_EQ(config.AccountPassword(), "s3cret&<");
  // The next start reads it from the keyring; saves do not store it again.
  CVConfiguration& again = Start(true);
  EXPECT_EQ(again.AccountPassword(), "s3cret&<");
  again.SaveConfigXML();
  again.SaveConfigXML();
  EXPECT_EQ(keyring_->stores, 1);
}

TEST_F(PasswordKeyringTest, AKeyringThatDoesNotAnswerKeepsTheAccountSignedIn) {
  SignIn(Start(true), "alice", "s3cret");
  keyring_->answers = false;
  CVConfiguration& config = Start(true);
  EXPECT_TRUE(config.IsSignedIn());
  EXPECT_TRUE(config.PasswordUnreachable());
  EXPECT_EQ(config.AccountPassword(), "");
  config.SaveConfigXML();  // the file keeps saying where the password is
  EXPECT_NE(FileText().find("<PasswordInKeyring>true</PasswordInKeyring>"), std::string::npos);
  // Unlocked later: the next reader gets it.
  keyring_->answers = true;
  EXPECT_EQ(config.AccountPassword(), "s3cret");
  EXPECT_FALSE(config.PasswordUnreachable());
  // A session without any keyring cannot read it either, and keeps the account.
  CVConfiguration& elsewhere = Start(false);
  EXPECT_TRUE(elsewhere.IsSignedIn());
  EXPECT_EQ(elsewhere.AccountPassword(), "");
}

TEST_F(PasswordKeyringTest, TheKeyringFollowsTheAccountOutAndIn) {
  CVConfiguration& config = Start(true);
  SignIn(config, "alice", "one");
  EXPECT_EQ(keyring_->items[alice_], "one");
  SignIn(config, "bob", "two");
  EXPECT_EQ(keyring_->items.count(alice_), 0u);
  EXPECT_EQ(keyring_->items[std::make_pair(alice_.first, std::string("bob"))], "two");

  config.ForgetPassword();
  config.SaveConfigXML();
  EXPECT_TRUE(keyring_->items.empty());
  EXPECT_FALSE(config.IsSignedIn());
  EXPECT_EQ(FileText().find("PasswordInKeyring"), std::string::npos);
  EXPECT_FALSE(Start(true).IsSignedIn());

  // Signed out while the keyring was locked: the item goes once it answers.
  SignIn(Start(true), "alice", "three");
  keyring_->answers = false;
  CVConfiguration& locked = Start(true);
  locked.ForgetPassword();
  EXPECT_FALSE(locked.IsSignedIn());
  keyring_->answers = true;
  locked.SaveConfigXML();
  EXPECT_TRUE(keyring_->items.empty());
}

TEST_F(PasswordKeyringTest, WithoutAKeyringThatKeepsItThePasswordStaysInTheFile) {
  keyring_->keeps = false;
  CVConfiguration& config = Start(true);
  SignIn(config, "alice", "s3cret");
  EXPECT_NE(FileText().find("<Password>s3cret</Password>"), std::string::npos);
  EXPECT_EQ(FileText().find("PasswordInKeyring"), std::string::npos);
  EXPECT_EQ(Start(true).AccountPassword(), "s3cret");
  EXPECT_EQ(Start(false).AccountPassword(), "s3cret");
}

}  // namespace
