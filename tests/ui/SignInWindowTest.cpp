// The sign-in window against the local server: the attempts and the lock, a new
// address, the storage step, a change of account declined and confirmed, and the
// folders of a storage chosen on the tree sheet.

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
#include "SelectiveSyncSheet.h"
#include "SettingsContext.h"
#include "ServerTrust.h"
#include "SignInWindow.h"
#include "TestCertificates.h"

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
    ServerTrust::ResetForTests();
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
  // the questions that come (a certificate, a change of account), asked keeps them.
  void SignIn(const std::string& url, const std::string& user, const std::string& password, bool answer = false,
              std::vector<std::string>* asked = nullptr) {
    Find<QLineEdit>("connectField")->setText(QString::fromStdString(url));
    Find<QLineEdit>("usernameField")->setText(QString::fromStdString(user));
    Find<QLineEdit>("tpassField")->setText(QString::fromStdString(password));
    QTest::keyClick(Find<QLineEdit>("tpassField"), Qt::Key_Return);
    ASSERT_TRUE(Busy());
    EXPECT_FALSE(Find<QLineEdit>("connectField")->isEnabled());
    EXPECT_FALSE(Find<QPushButton>("loginButton")->isEnabled());
    for (;;) {
      QMessageBox* question = nullptr;
      ASSERT_TRUE(QTest::qWaitFor([&] { return !Busy() || (question = window_->findChild<QMessageBox*>()); }, 20000));
      if (!question) return;
      if (asked) asked->push_back(question->objectName().toStdString() + ": " + question->text().toStdString() + "\n" +
                                  question->informativeText().toStdString());
      question->button(answer ? QMessageBox::Yes : QMessageBox::No)->click();
      // The box goes at the end of this turn of the loop.
      ASSERT_TRUE(QTest::qWaitFor([&] { return !window_->findChild<QMessageBox*>(); }, 20000));
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

  std::vector<std::string> asked;
  SignIn(url, "bob", "pw", false, &asked);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].substr(0, asked[0].find('\n')),
            std::string("accountChangeQuestion: ") + LoginController::kWarningText);
  EXPECT_EQ(Text("LabelErrorText"), "Nothing was changed.");
  EXPECT_FALSE(OnStorageStep());
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "alice");

  SignIn(url, "bob", "pw", true);
  ASSERT_TRUE(OnStorageStep());
  ASSERT_EQ(Rows().size(), 2u);  // Docs is everyone's, Team bob's
  EXPECT_EQ(Rows()[1].substr(0, 5), "Team ");
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, "bob");
}

// A self-signed server: its fingerprint is shown, a "No" signs nothing in, a
// "Yes" does.
TEST_F(SignInWindowTest, ACertificateNobodyVouchesForIsAskedAboutWithItsFingerprint) {
  TestCertificates certificates(home_->path());
  ServerTrust::SetAuthorityFile(certificates.authority);
  auto options = DefaultOptions();
  options.tlsCertificate = certificates.selfSigned.certificate;
  options.tlsKey = certificates.selfSigned.key;
  StartServer(options);
  for (const bool answer : {false, true}) {
    std::vector<std::string> asked;
    SignIn(server_->BaseUrl(), "alice", "secret", answer, &asked);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].rfind("certificateQuestion: Trust this certificate and connect to 127.0.0.1:", 0), 0u) << asked[0];
    EXPECT_NE(asked[0].find("SHA-256 fingerprint: "), std::string::npos) << asked[0];
    EXPECT_EQ(OnStorageStep(), answer) << Text("LabelErrorText");
  }
}

// The tree: a folder loads when opened, another cannot open meanwhile, checks
// spread down and up, and OK writes the rules that the storage row then shows.
TEST_F(SignInWindowTest, TheFoldersOfAStorageAreChosenOnTheTreeSheet) {
  for (const char* file : {"A/a1/x.txt", "A/a2/y.txt", "B/z.txt", "top.txt"}) PutServerFile("Docs", file, "x");
  SignIn(server_->BaseUrl(), "alice", "secret");
  ASSERT_TRUE(OnStorageStep());
  Find<QPushButton>("chooseButton")->click();
  auto* sheet = window_->findChild<SelectiveSyncSheet*>("selectiveSyncSheet");
  ASSERT_NE(sheet, nullptr);
  auto idle = [&] { return QTest::qWaitFor([&] { return !sheet->busy(); }, 20000); };
  ASSERT_TRUE(idle());
  auto* view = sheet->findChild<QTreeWidget*>("folderTree");
  auto item = [&](const std::string& path) {
    QTreeWidgetItem* at = view->topLevelItem(0);
    for (std::size_t start = 0; at && start < path.size();) {
      const std::size_t slash = std::min(path.find('/', start), path.size());
      QTreeWidgetItem* next = nullptr;
      for (int i = 0; i < at->childCount(); ++i) {
        if (at->child(i)->text(0).toStdString() == path.substr(start, slash - start)) next = at->child(i);
      }
      at = next;
      start = slash + 1;
    }
    return at;
  };
  auto open = [&](const std::string& path) {
    item(path)->setExpanded(true);
    return idle();
  };
  ASSERT_TRUE(open(""));
  ASSERT_NE(item("A"), nullptr);
  ASSERT_NE(item("B"), nullptr);
  // While A loads, it shows so, and B does not open.
  item("A")->setExpanded(true);
  EXPECT_TRUE(sheet->busy());
  ASSERT_EQ(item("A")->childCount(), 1);
  EXPECT_EQ(item("A")->child(0)->text(0).toStdString(), SelectiveSyncTree::kLoading);
  item("B")->setExpanded(true);
  EXPECT_FALSE(item("B")->isExpanded());
  ASSERT_TRUE(idle());
  ASSERT_NE(item("A/a1"), nullptr);

  struct Click {
    std::string path;
    Qt::CheckState to, a, root;
  } clicks[] = {
      {"", Qt::Checked, Qt::Checked, Qt::Checked},
      {"A/a1", Qt::Unchecked, Qt::PartiallyChecked, Qt::PartiallyChecked},
      {"A/a2", Qt::Unchecked, Qt::Unchecked, Qt::PartiallyChecked},
      {"A", Qt::Checked, Qt::Checked, Qt::Checked},
      {"A/a2", Qt::Unchecked, Qt::PartiallyChecked, Qt::PartiallyChecked},
  };
  for (const auto& click : clicks) {
    item(click.path)->setCheckState(0, click.to);
    EXPECT_EQ(item("A")->checkState(0), click.a) << click.path;
    EXPECT_EQ(item("")->checkState(0), click.root) << click.path;
  }
  EXPECT_EQ(item("A/a1")->checkState(0), Qt::Checked);
  sheet->findChild<QPushButton*>("okButton")->click();
  ASSERT_TRUE(QTest::qWaitFor([&] { return !window_->findChild<SelectiveSyncSheet*>("selectiveSyncSheet"); }, 20000));
  EXPECT_EQ(Rows(), std::vector<std::string>{"Docs (Custom sync)"});
  EXPECT_EQ(LoginController::RowForStorage("Docs", "CIFS").statusType, "(Custom sync)");
}

// A folder of more entries than one batch gets them all, in the server's order.
TEST_F(SignInWindowTest, AFolderOfManyEntriesIsFilledInPieces) {
  for (int i = 0; i < 300; ++i) PutServerFile("Docs", "Many/f" + std::to_string(10000 + i), "x");
  ASSERT_EQ(login_.LoginMethodRun({server_->BaseUrl(), "alice", "secret", {}}, nullptr).outcome,
            LoginController::Outcome::SignedIn);
  SelectiveSyncSheet sheet("Docs", settings_, loop_, nullptr);
  auto idle = [&] { return QTest::qWaitFor([&] { return !sheet.busy(); }, 20000); };
  ASSERT_TRUE(idle());
  auto* view = sheet.findChild<QTreeWidget*>("folderTree");
  view->topLevelItem(0)->setExpanded(true);
  ASSERT_TRUE(idle());
  ASSERT_EQ(view->topLevelItem(0)->childCount(), 1);
  QTreeWidgetItem* many = view->topLevelItem(0)->child(0);
  many->setExpanded(true);
  ASSERT_TRUE(idle());
  EXPECT_TRUE(QTest::qWaitFor([&] { return many->childCount() == 300; }, 20000)) << many->childCount();
  EXPECT_EQ(many->child(299)->text(0).toStdString(), "f10299");
}

}  // namespace
