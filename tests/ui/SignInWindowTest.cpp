// The sign-in window against the local server: the attempts and the lock, a new
// address, the storage step, and a change of account declined and confirmed.

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>

#include "CVConfiguration.h"
#include "ClientServerFixture.h"
#include "Clock.h"
#include "LoginController.h"
#include "QtMainLoop.h"
#include "SettingsContext.h"
#include "SignInWindow.h"

namespace {

class SignInWindowTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    auto options = DefaultOptions();
    options.users.push_back({"bob", "pw"});
    options.storages[1].users = {"bob"};  // Team is bob's
    StartServer(options);
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
    window_ = std::make_unique<SignInWindow>(login_, settings_, loop_, [this] { ++closed_; });
    window_->ShowInFront();
  }
  void TearDown() override {
    window_.reset();
    ClientServerTest::TearDown();
  }
  template <typename T>
  T* Find(const char* name) {
    T* found = window_->findChild<T*>(name);
    EXPECT_NE(found, nullptr) << name;
    return found;
  }
  std::string Text(const char* label) { return Find<QLabel>(label)->text().toStdString(); }
  bool Busy() { return Find<QProgressBar>("progressBar")->isVisible(); }

  // Types the form and presses Enter in the password field; answer is given to
  // the account change question if one comes.
  void SignIn(const std::string& url, const std::string& user, const std::string& password, bool answer = false) {
    Find<QLineEdit>("connectField")->setText(QString::fromStdString(url));
    Find<QLineEdit>("usernameField")->setText(QString::fromStdString(user));
    Find<QLineEdit>("tpassField")->setText(QString::fromStdString(password));
    QTest::keyClick(Find<QLineEdit>("tpassField"), Qt::Key_Return);
    ASSERT_TRUE(Busy());
    EXPECT_FALSE(Find<QLineEdit>("connectField")->isEnabled());
    EXPECT_FALSE(Find<QPushButton>("loginButton")->isEnabled());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !Busy() || window_->findChild<QMessageBox*>("accountChangeQuestion"); },
                                20000));
    if (auto* question = window_->findChild<QMessageBox*>("accountChangeQuestion")) {
      EXPECT_EQ(question->text().toStdString(), LoginController::kWarningText);
      question->button(answer ? QMessageBox::Yes : QMessageBox::No)->click();
      ASSERT_TRUE(QTest::qWaitFor([&] { return !Busy(); }, 20000));
    }
  }
  bool OnStorageStep() { return Find<QTreeWidget>("storageList")->isVisible(); }
  std::vector<std::string> Rows() {
    std::vector<std::string> rows;
    auto* list = Find<QTreeWidget>("storageList");
    for (int i = 0; i < list->topLevelItemCount(); ++i) {
      auto* item = list->topLevelItem(i);
      rows.push_back(item->text(0).toStdString() + " " + item->text(2).toStdString());
    }
    return rows;
  }

  Clock clock_{1.0};
  QtMainLoop loop_{clock_};
  SettingsContext settings_{SyncControl::FilesOnly()};
  LoginController login_{settings_};
  std::unique_ptr<SignInWindow> window_;
  int closed_ = 0;
};

TEST_F(SignInWindowTest, WrongPasswordsLockTheAddressAndANewAddressSignsIn) {
  EXPECT_EQ(Find<QLineEdit>("tpassField")->echoMode(), QLineEdit::Password);
  const std::string url = server_->BaseUrl();
  struct Attempt {
    std::string url, password, error;
    bool buttonAfter;
  } attempts[] = {
      {url, "wrong", LoginController::kFirstFailure, true},
      {url, "wrong", LoginController::kSecondFailure, true},
      {url, "wrong", LoginController::kLockedText, false},
  };
  for (const auto& attempt : attempts) {
    SignIn(attempt.url, "alice", attempt.password);
    EXPECT_EQ(Text("LabelErrorText"), attempt.error);
    EXPECT_EQ(Find<QPushButton>("loginButton")->isEnabled(), attempt.buttonAfter);
    EXPECT_FALSE(OnStorageStep());
  }
  // Another spelling of the address gives three attempts again.
  Find<QLineEdit>("connectField")->setText(QString::fromStdString(url + "/"));
  EXPECT_TRUE(Find<QPushButton>("loginButton")->isEnabled());
  SignIn(url + "/", "alice", "secret");
  EXPECT_EQ(Text("LabelErrorText"), "");
  ASSERT_TRUE(OnStorageStep());
  EXPECT_EQ(Rows(), std::vector<std::string>{"Docs " + LoginController::RowForStorage("Docs", "CIFS").statusType});
  EXPECT_EQ(Find<QLineEdit>("tpassField")->text().toStdString(), "");
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "alice");
  Find<QPushButton>("closeButton")->click();
  EXPECT_EQ(closed_, 1);
  EXPECT_FALSE(window_->isVisible());
}

TEST_F(SignInWindowTest, AnotherAccountIsAskedForAndDecliningChangesNothing) {
  const std::string url = server_->BaseUrl();
  SignIn(url, "alice", "secret");
  ASSERT_TRUE(OnStorageStep());
  Find<QPushButton>("closeButton")->click();
  window_->ShowInFront();

  SignIn(url, "bob", "pw", false);
  EXPECT_EQ(Text("LabelErrorText"), "Nothing was changed.");
  EXPECT_FALSE(OnStorageStep());
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "alice");

  SignIn(url, "bob", "pw", true);
  ASSERT_TRUE(OnStorageStep());
  ASSERT_EQ(Rows().size(), 2u);  // Docs is everyone's, Team bob's
  EXPECT_EQ(Rows()[1].substr(0, 5), "Team ");
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "bob");
}

}  // namespace
