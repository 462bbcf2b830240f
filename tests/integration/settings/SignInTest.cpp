// Signing in against the local server: attempts and the lock, the first sign-in,
// the same account in another spelling, and a change of account that wipes only
// after the new account passed and the user agreed.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "AsyncFileCommonPart.h"
#include "CVConfiguration.h"
#include "CVHandler.h"
#include "CVSelectiveSync.h"
#include "CVStateXMLFile.h"
#include "ClientServerFixture.h"
#include "Clock.h"
#include "RecordFiles.h"
#include "LoginController.h"
#include "NewFilesParser.h"
#include "PollMainLoop.h"
#include "ServerState.h"
#include "SettingsContext.h"
#include "SyncManagerSettings.h"

namespace fs = std::filesystem;

namespace {

class SignInTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    auto options = DefaultOptions();
    options.users.push_back({"bob", "pw"});
    options.storages[1].users = {"bob"};  // Team is bob's
    StartServer(options);
    // A first start: no account in memory or on disk.
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
    url_ = server_->BaseUrl();
  }

  LoginController::Result SignIn(const std::string& user, const std::string& password,
                                 std::optional<bool> answer = std::nullopt, std::string url = "") {
    asked_.reset();
    return login_.LoginMethodRun({url.empty() ? url_ : url, user, password, ""},
                                 [&](const LoginController::AccountChange& change) {
                                   asked_ = change;
                                   return answer.value_or(false);
                                 });
  }

  // Everything a change of account may touch: the state files' bytes, the
  // storages' files, and the account and storage list in memory.
  std::string Everything() {
    std::string all;
    for (const char* name : {"Configuration.xml", "DownloadedFiles.xml", "NewFiles.xml", "SelectiveSync.xml"}) {
      all += std::string(name) + ":" + CVStateXMLFile::ReadWholeFile(home_->settings() + "/" + name).value_or("") + "\n";
    }
    for (const auto& entry : fs::recursive_directory_iterator(home_->root())) {
      std::string path = entry.path().string();
      if (path.find("/.Settings") == std::string::npos) all += path + "\n";
    }
    CVConfiguration& config = CVConfiguration::Instance();
    all += config.Corvalink.Url + " " + config.Corvalink.UserName + " " + config.Corvalink.Password + "\n";
    for (const auto& site : config.SitesCopy()) all += site->Name + "\n";
    return all;
  }

  // Alice signed in, with a synced file, its record and a queued local change.
  void AliceWithData() {
    ASSERT_EQ(SignIn("alice", "secret").outcome, LoginController::Outcome::SignedIn);
    const std::string file = home_->root() + "/Docs/report.txt";
    fs::create_directories(home_->root() + "/Docs");
    std::ofstream(file) << "alice's";
    CVFileWithAction item;
    item.nFilePath = file;
    item.fileSize = 7;
    ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(item, false));
    item.nFilePath = home_->root() + "/Docs/new.txt";
    ASSERT_TRUE(AsyncFileCommonPart::ChangeNewFiles(item, 0));
  }

  std::string TrashFiles() {
    std::string names;
    const std::string trash = home_->path() + "/.local/share/Trash/files";
    if (!fs::exists(trash)) return names;
    for (const auto& entry : fs::recursive_directory_iterator(trash)) names += entry.path().filename().string() + " ";
    return names;
  }

  std::string url_;
  SettingsContext settings_{SyncControl::FilesOnly()};
  LoginController login_{settings_};
  std::optional<LoginController::AccountChange> asked_;
};

TEST_F(SignInTest, ThreeWrongPasswordsLockTheAddressAndANewAddressTriesAgain) {
  const std::string before = Everything();
  auto first = SignIn("alice", "nope");
  EXPECT_EQ(first.outcome, LoginController::Outcome::WrongCredentials);
  EXPECT_EQ(first.message, LoginController::kFirstFailure);
  auto second = SignIn("alice", "nope");
  EXPECT_EQ(second.message, LoginController::kSecondFailure);
  auto third = SignIn("alice", "nope");
  EXPECT_EQ(third.outcome, LoginController::Outcome::Locked);
  EXPECT_TRUE(login_.isLocked());
  EXPECT_EQ(server_->state().LoginFailures("alice"), 3);
  // Locked: even the right password does not reach the server for this address.
  EXPECT_EQ(SignIn("alice", "secret").outcome, LoginController::Outcome::Locked);
  EXPECT_EQ(server_->CallCount("Login"), 3);
  EXPECT_EQ(Everything(), before);  // no password was kept
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("3 step password not correct - LOCKED"), std::string::npos);

  const std::string otherForm = url_.substr(0, url_.size() - 1);  // no final "/"
  auto good = SignIn("alice", "secret", std::nullopt, otherForm);
  EXPECT_EQ(good.outcome, LoginController::Outcome::SignedIn) << good.message;
  EXPECT_EQ(login_.ColSteps(), 3);
}

TEST_F(SignInTest, AFirstSignInTakesThePolicysStorages) {
  auto result = SignIn("alice", "secret");
  ASSERT_EQ(result.outcome, LoginController::Outcome::SignedIn) << result.message;
  EXPECT_FALSE(asked_);
  CVConfiguration& config = CVConfiguration::Instance();
  EXPECT_FALSE(config.Corvalink.IsFirstRun);
  EXPECT_EQ(config.Corvalink.Password, "secret");
  ASSERT_EQ(result.storages.size(), 1u);  // Team is bob's
  EXPECT_EQ(result.storages[0].name, "Docs");
  EXPECT_EQ(result.storages[0].statusType, "(No sync)");
  EXPECT_EQ(result.storages[0].iconStorage, "storage_sync_grey");
  EXPECT_EQ(config.GetSiteByName("Docs")->Url, server_->LocationOf("Docs"));
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("Docs"));
  // The account is on disk, enciphered: a new start reads it back.
  CVConfiguration::ResetForTests();
  CVConfiguration::Instance().ReadConfigFromFile();
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "alice");
  EXPECT_EQ(CVConfiguration::Instance().SitesCopy().size(), 1u);
}

TEST_F(SignInTest, TheSameAccountInAnotherSpellingKeepsEverything) {
  AliceWithData();
  auto result = SignIn("ALICE", "secret", std::nullopt, url_.substr(0, url_.size() - 1));
  ASSERT_EQ(result.outcome, LoginController::Outcome::SignedIn) << result.message;
  EXPECT_FALSE(asked_);
  EXPECT_TRUE(fs::exists(home_->root() + "/Docs/report.txt"));
  EXPECT_TRUE(RecordOf(home_->root() + "/Docs/report.txt"));
  EXPECT_EQ(AsyncFileCommonPart::GetAllFilesFromNewFiles().size(), 1u);
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "ALICE");
  EXPECT_EQ(TrashFiles(), "");
}

TEST_F(SignInTest, AnotherAccountIsAskedForAndWipedOnlyWhenAgreed) {
  AliceWithData();
  const std::string before = Everything();

  auto declined = SignIn("bob", "pw", false);
  EXPECT_EQ(declined.outcome, LoginController::Outcome::Declined);
  ASSERT_TRUE(asked_);
  EXPECT_EQ(asked_->storages, std::vector<std::string>{"Docs"});
  EXPECT_EQ(asked_->pendingChanges, 1u);
  EXPECT_NE(asked_->Details().find("Docs"), std::string::npos);
  EXPECT_EQ(Everything(), before);

  auto agreed = SignIn("bob", "pw", true);
  ASSERT_EQ(agreed.outcome, LoginController::Outcome::SignedIn) << agreed.message;
  EXPECT_FALSE(fs::exists(home_->root() + "/Docs"));
  EXPECT_NE(TrashFiles().find("report.txt"), std::string::npos);
  EXPECT_FALSE(RecordOf(home_->root() + "/Docs/report.txt"));
  EXPECT_TRUE(AsyncFileCommonPart::GetAllFilesFromNewFiles().empty());
  CVConfiguration& config = CVConfiguration::Instance();
  EXPECT_EQ(config.Corvalink.UserName, "bob");
  std::vector<std::string> names;
  for (const auto& site : config.SitesCopy()) names.push_back(site->Name);
  EXPECT_EQ(names, (std::vector<std::string>{"Docs", "Team"}));
  EXPECT_FALSE(CVSelectiveSync::Instance().GetSiteRulesByName("Docs")->SyncItems().size());
}

TEST_F(SignInTest, AFailedChangeOfAccountChangesNothing) {
  AliceWithData();
  const std::string before = Everything();
  struct Case {
    const char* name;
    std::function<void()> arrange;
    LoginController::Outcome outcome;
  };
  const Case cases[] = {
      {"wrong password", [] {}, LoginController::Outcome::WrongCredentials},
      {"device blocked", [this] { server_->state().SetDeviceStatus("bob", "1;B"); },
       LoginController::Outcome::DeviceRefused},
      {"server gone", [this] { server_->Stop(); }, LoginController::Outcome::Unreachable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.arrange();
    auto result = SignIn("bob", std::string(c.name) == "wrong password" ? "nope" : "pw", true);
    EXPECT_EQ(result.outcome, c.outcome) << result.message;
    EXPECT_FALSE(asked_);  // the question comes only once the new account passed
    EXPECT_EQ(Everything(), before);
  }
}

TEST_F(SignInTest, TheSettingsTabSavesLikeTheSignIn) {
  AliceWithData();
  SyncManagerSettings manager(settings_);
  int questions = 0;
  auto answerNo = [&](const AccountSwitch::AccountChange&) {
    ++questions;
    return false;
  };
  EXPECT_EQ(manager.SaveSettingsNew({url_, "alice", "", 15}, answerNo).message, SyncManagerSettings::kEmptyField);
  const std::string before = Everything();
  EXPECT_EQ(manager.SaveSettingsNew({url_, "alice", "nope", 15}, answerNo).message, SyncManagerSettings::kAccessFailed);
  EXPECT_FALSE(manager.SaveSettingsNew({url_, "bob", "pw", 15}, answerNo).ok);
  EXPECT_EQ(questions, 1);
  EXPECT_EQ(Everything(), before);
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.SyncCV, 5);

  auto saved = manager.SaveSettingsNew({url_, "Alice", "secret", 15}, answerNo);
  ASSERT_TRUE(saved.ok) << saved.message;
  EXPECT_EQ(questions, 1);
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.SyncCV, 15);
  EXPECT_TRUE(fs::exists(home_->root() + "/Docs/report.txt"));
}

TEST_F(SignInTest, WorkDoneInTheBackgroundComesBackOnTheMainLoop) {
  Clock clock;
  PollMainLoop loop(clock);
  std::thread::id worker, handedBack;
  settings_.RunInBackground<LoginController::Result>(
      loop,
      [&] {
        worker = std::this_thread::get_id();
        return login_.LoginMethodRun({url_, "alice", "secret", ""}, nullptr);
      },
      [&](LoginController::Result result) {
        handedBack = std::this_thread::get_id();
        EXPECT_EQ(result.outcome, LoginController::Outcome::SignedIn);
        loop.Quit(0);
      });
  loop.Run();
  EXPECT_EQ(handedBack, std::this_thread::get_id());
  EXPECT_NE(worker, handedBack);
}

}  // namespace
