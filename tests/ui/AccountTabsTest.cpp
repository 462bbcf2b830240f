// The account tabs against the local server: the storages tab and its sheet
// (adding with the sheet's refusals, removing by name, retrieving a policy that
// locks the list) and the settings tab (the account kept, refused, changed).

#include <gtest/gtest.h>

#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QCheckBox>
#include <QDateTimeEdit>
#include <QListWidget>
#include <QSpinBox>
#include <QTest>
#include <QTreeWidget>
#include <fstream>

#include "CVConfiguration.h"
#include "ClientServerFixture.h"
#include "Clock.h"
#include "InfoTab.h"
#include "LoginController.h"
#include "QtMainLoop.h"
#include "SelectiveSyncSheet.h"
#include "SettingsContext.h"
#include "ServerState.h"
#include "SettingsTab.h"
#include "ShareWindow.h"
#include "SharingService.h"
#include "SignInWindow.h"
#include "StorageSheet.h"
#include "StoragesTab.h"
#include "SyncManagerSettings.h"
#include "SyncManagerWindow.h"
#include "UniversalShareWindow.h"

namespace {

class AccountTabsTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    policyFile_ = serverRoot_ / "alice.policy";
    auto options = DefaultOptions();
    options.policies.push_back({"alice", policyFile_});
    options.users.push_back({"bob", "pw"});
    options.users.push_back({"carol", "pw"});
    StartServer(options);
    WritePolicy("true");
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
    ASSERT_EQ(login_.LoginMethodRun({server_->BaseUrl(), "alice", "secret", {}}, nullptr).outcome,
              LoginController::Outcome::SignedIn);
    tab_ = std::make_unique<StoragesTab>(settings_, loop_);
    tab_->show();
  }
  void TearDown() override {
    tab_.reset();
    ClientServerTest::TearDown();
  }
  void WritePolicy(const char* editable) {
    WritePolicyFile(policyFile_,
                    "<Storage><Type>CIFS</Type><Name>Docs</Name><Path>" + server_->LocationOf("Docs") + "</Path></Storage>",
                    editable);
  }
  template <typename T>
  T* Find(QObject* in, const char* name) {
    T* found = in->findChild<T*>(name);
    EXPECT_NE(found, nullptr) << name;
    return found;
  }
  QPushButton* Button(const char* name) { return Find<QPushButton>(tab_.get(), name); }
  std::vector<std::string> Names() {
    std::vector<std::string> names;
    auto* list = Find<QTreeWidget>(tab_.get(), "storageList");
    for (int i = 0; i < list->topLevelItemCount(); ++i) names.push_back(list->topLevelItem(i)->text(0).toStdString());
    return names;
  }
  void Select(const std::string& name) {
    auto* list = Find<QTreeWidget>(tab_.get(), "storageList");
    list->setCurrentItem(list->findItems(QString::fromStdString(name), Qt::MatchExactly).value(0));
  }
  void Answer(const char* question, QMessageBox::StandardButton button) {
    ASSERT_TRUE(QTest::qWaitFor([&] { return tab_->findChild<QMessageBox*>(question) != nullptr; }, 5000));
    tab_->findChild<QMessageBox*>(question)->button(button)->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !tab_->busy(); }, 20000));
  }

  std::filesystem::path policyFile_;
  Clock clock_{1.0};
  QtMainLoop loop_{clock_};
  SettingsContext settings_{SyncControl::FilesOnly()};
  LoginController login_{settings_};
  std::unique_ptr<StoragesTab> tab_;
};

// The controls a keyboard reaches that have no accessible name, by class.
std::vector<std::string> Unnamed(QWidget& window) {
  std::vector<std::string> unnamed;
  for (QWidget* widget : window.findChildren<QWidget*>()) {
    QWidget* owner = widget->parentWidget();
    // The parts of a spin box or a combo box are named by their owner.
    if (qobject_cast<QAbstractSpinBox*>(owner) || qobject_cast<QComboBox*>(owner)) continue;
    if (widget->focusPolicy() != Qt::NoFocus && widget->accessibleName().isEmpty()) {
      unnamed.push_back(widget->metaObject()->className());
    }
  }
  return unnamed;
}

TEST_F(AccountTabsTest, EveryControlHasAnAccessibleName) {
  SettingsTab settings(settings_, loop_, nullptr);
  StorageSheet sheet(std::nullopt, true, settings_, loop_, nullptr);
  SignInWindow signIn(login_, settings_, loop_, nullptr);
  SelectiveSyncSheet tree("Docs", settings_, loop_, nullptr);
  ASSERT_TRUE(QTest::qWaitFor([&] { return !tree.busy(); }, 20000));
  SyncManagerWindow manager(nullptr);
  manager.AddTab(3, new InfoTab, "Info");
  ServerSharingService service;
  ShareWindow share(service, loop_, CVConnection{});
  UniversalShareWindow firstShare(service, loop_, CVConnection{});
  for (QWidget* window : std::initializer_list<QWidget*>{tab_.get(), &settings, &sheet, &signIn, &tree, &manager,
                                                         &share, &firstShare}) {
    EXPECT_EQ(Unnamed(*window), std::vector<std::string>{}) << window->objectName().toStdString();
  }
}

// The text of the next message box of the share window, which it then closes.
std::string ShareMessage() {
  QWidget* box = nullptr;
  (void)QTest::qWaitFor([&] {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
      if (widget->objectName() == "shareMessage" && widget->isVisible()) box = widget;
    }
    return box != nullptr;
  }, 20000);
  if (!box) return "";
  const std::string text = static_cast<QMessageBox*>(box)->text().toStdString();
  box->close();
  return text;
}

TEST_F(AccountTabsTest, SharesMadeInTheShareWindowReachTheServer) {
  PutServerFile("Docs", "report.txt", "abc");
  const std::string file = home_->root() + "/Docs/report.txt";
  std::filesystem::create_directories(home_->root() + "/Docs");
  std::ofstream(file) << "abc";
  ServerSharingService service;
  CVConnection policy = CVConfiguration::Instance().Corvalink;
  struct Case {
    ShareWindow::Controller::WindowType type;
    std::string typed;  // the search, or the outside recipient's address
    int days;           // 0: no expiry
  } cases[] = {{ShareWindow::Controller::kInternalShare, "bo", 2}, {ShareWindow::Controller::kExternalShare, "x@example.com", 0}};
  std::int64_t chosen = 0;  // the expiry picked, in seconds
  for (const auto& c : cases) {
    bool closed = false;
    auto window = std::make_unique<ShareWindow>(service, loop_, policy);
    ASSERT_TRUE(window->Open({file}, c.type, [&] { closed = true; }));
    window->show();
    auto* found = Find<QListWidget>(window.get(), "searchList");
    if (c.type == ShareWindow::Controller::kInternalShare) {
      QTest::keyClicks(Find<QLineEdit>(window.get(), "searchTextField"), QString::fromStdString(c.typed));
      ASSERT_TRUE(QTest::qWaitFor([&] { return found->count() > 0; }, 20000));
      found->setCurrentRow(0);
      Find<QPushButton>(window.get(), "addSearchButton")->click();
    } else {
      QTest::keyClicks(Find<QLineEdit>(window.get(), "nameField"), "X");
      QTest::keyClicks(Find<QLineEdit>(window.get(), "emailField"), QString::fromStdString(c.typed));
      Find<QPushButton>(window.get(), "addExternalButton")->click();
    }
    ASSERT_EQ(Find<QListWidget>(window.get(), "recipientList")->count(), 1);
    auto* picker = Find<QDateTimeEdit>(window.get(), "datePicker");
    if (c.days == 0) Find<QCheckBox>(window.get(), "expiresCheckBox")->click();
    picker->setDateTime(picker->minimumDateTime().addDays(c.days));
    EXPECT_EQ(picker->isEnabled(), c.days > 0);
    if (c.days > 0) chosen = picker->dateTime().toSecsSinceEpoch();
    Find<QPushButton>(window.get(), "shareButton")->click();
    EXPECT_TRUE(window->busy());
    ASSERT_TRUE(QTest::qWaitFor([&] { return closed; }, 20000));
    EXPECT_EQ(ShareMessage(), ShareWindow::Controller::kSharedOne);
  }
  const auto shares = server_->state().shares().All();
  ASSERT_EQ(shares.size(), 2u);
  EXPECT_EQ(shares[0].recipientUser, "bob");
  ASSERT_TRUE(shares[0].expiry);
  // The time picked, within the call's margin of two minutes.
  EXPECT_NEAR(std::chrono::duration_cast<std::chrono::seconds>(shares[0].expiry->time_since_epoch()).count(), chosen,
              180);
  EXPECT_EQ(shares[1].recipientEmail, "x@example.com");
  EXPECT_TRUE(shares[1].external);
  EXPECT_FALSE(shares[1].expiry);

  // The first-generation window: a user found in its sheet, a day's validity.
  bool closed = false;
  UniversalShareWindow first(service, loop_, policy);
  ASSERT_TRUE(first.Open({file}, UniversalShareWindow::Controller::kInternalShare, [&] { closed = true; }));
  first.show();
  Find<QPushButton>(&first, "addButton")->click();
  Find<QLineEdit>(&first, "searchField")->setText("carol");
  Find<QPushButton>(&first, "searchButton")->click();
  auto* found = Find<QListWidget>(&first, "foundList");
  ASSERT_TRUE(QTest::qWaitFor([&] { return found->count() == 1; }, 20000));
  found->item(0)->setSelected(true);
  Find<QPushButton>(&first, "sheetAddButton")->click();
  Find<QPushButton>(&first, "shareButton")->click();
  ASSERT_TRUE(QTest::qWaitFor([&] { return closed; }, 20000));
  EXPECT_EQ(ShareMessage(), ShareWindow::Controller::kSharedOne);
  const auto third = server_->state().shares().All().at(2);
  EXPECT_EQ(third.recipientUser, "carol");
  ASSERT_TRUE(third.expiry);
  using Hours = std::chrono::duration<double, std::ratio<3600>>;
  EXPECT_NEAR(Hours(*third.expiry - std::chrono::system_clock::now()).count(), 24, 0.1);

  // No shares outside: the window does not open, and says why.
  policy.ExternalSharing = false;
  ShareWindow refused(service, loop_, policy);
  EXPECT_FALSE(refused.Open({file}, ShareWindow::Controller::kExternalShare, nullptr));
  EXPECT_EQ(ShareMessage(), ShareWindow::Controller::kExternalOff);
}

TEST_F(AccountTabsTest, AStorageIsAddedThroughTheSheetAndRemovedByName) {
  ASSERT_EQ(Names(), std::vector<std::string>{"Docs"});
  Button("addButton")->click();
  QPointer<StorageSheet> sheet = tab_->findChild<StorageSheet*>("storageSheet");
  ASSERT_NE(sheet, nullptr);
  const std::string team = server_->LocationOf("Team");
  struct Case {
    std::string name, url;
    const char* kind;
    std::string message;  // "" when the storage is added
  } cases[] = {
      {"shared in", team, "sharePointRadio", StorageController::kReservedName},
      {"Docs", team, "sharePointRadio", StorageController::kNameExists},
      {"Team", "\\\\server\\share", "sharePointRadio", "Your URL is not correct for Sharepoint Storage."},
      {"Team", team, "sharePointRadio", ""},
  };
  for (const auto& c : cases) {
    Find<QLineEdit>(sheet, "nameField")->setText(QString::fromStdString(c.name));
    Find<QLineEdit>(sheet, "storageURLField")->setText(QString::fromStdString(c.url));
    Find<QRadioButton>(sheet, c.kind)->setChecked(true);
    Find<QPushButton>(sheet, "saveButton")->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !sheet || !sheet->busy(); }, 20000));
    if (c.message.empty()) {
      // Added: the sheet closes.
      EXPECT_TRUE(QTest::qWaitFor([&] { return !sheet; }, 5000));
    } else {
      ASSERT_TRUE(sheet) << c.name;
      EXPECT_EQ(Find<QLabel>(sheet, "messageLabel")->text().toStdString(), c.message) << c.name;
    }
  }
  EXPECT_EQ(Names(), (std::vector<std::string>{"Docs", "Team"}));

  Select("Team");
  Button("removeButton")->click();
  Answer("removeQuestion", QMessageBox::Yes);
  EXPECT_EQ(Names(), std::vector<std::string>{"Docs"});
  EXPECT_EQ(CVConfiguration::Instance().GetSiteByName("Team"), nullptr);
}

TEST_F(AccountTabsTest, ARetrievedPolicyThatLocksStoragesLeavesOnlyTheViewOfThem) {
  WritePolicy("false");
  Button("retrieveButton")->click();
  Answer("retrieveQuestion", QMessageBox::Yes);
  EXPECT_EQ(Find<QLabel>(tab_.get(), "messageLabel")->text().toStdString(), SyncManagerSettings::kRetrieved);
  EXPECT_FALSE(Button("addButton")->isEnabled());
  EXPECT_FALSE(Button("removeButton")->isEnabled());
  ASSERT_TRUE(Button("editButton")->isEnabled());
  Button("editButton")->click();
  auto* sheet = tab_->findChild<StorageSheet*>("storageSheet");
  ASSERT_NE(sheet, nullptr);
  EXPECT_FALSE(Find<QPushButton>(sheet, "saveButton")->isVisible());
  EXPECT_FALSE(Find<QLineEdit>(sheet, "nameField")->isEnabled());
  EXPECT_EQ(Find<QLineEdit>(sheet, "nameField")->text().toStdString(), "Docs");
}

TEST_F(AccountTabsTest, TheSettingsTabKeepsRefusesOrChangesTheAccount) {
  int closed = 0;
  SettingsTab tab(settings_, loop_, [&] { ++closed; });
  tab.show();
  auto field = [&](const char* name) { return Find<QLineEdit>(&tab, name); };
  EXPECT_EQ(field("userField")->text().toStdString(), "alice");
  EXPECT_EQ(field("passwordField")->text().toStdString(), "");  // never the saved one
  struct Step {
    std::string user, password;
    int interval;
    QMessageBox::StandardButton answer;  // to the account change question, if it comes
    std::string message, userAfter;
  } steps[] = {
      {"alice", "", 7, QMessageBox::NoButton, "", "alice"},  // the saved password stays
      {"bob", "wrong", 7, QMessageBox::NoButton, SyncManagerSettings::kAccessFailed, "alice"},
      {"bob", "pw", 7, QMessageBox::No, "Nothing was changed.", "alice"},
      {"bob", "pw", 9, QMessageBox::Yes, "", "bob"},
  };
  for (const auto& step : steps) {
    field("userField")->setText(QString::fromStdString(step.user));
    field("passwordField")->setText(QString::fromStdString(step.password));
    Find<QSpinBox>(&tab, "intervalField")->setValue(step.interval);
    Find<QPushButton>(&tab, "applyButton")->click();
    ASSERT_TRUE(tab.busy());
    auto asked = [&] { return tab.findChild<QMessageBox*>("accountChangeQuestion"); };
    ASSERT_TRUE(QTest::qWaitFor([&] { return !tab.busy() || asked(); }, 20000));
    EXPECT_EQ(asked() != nullptr, step.answer != QMessageBox::NoButton) << step.user << " " << step.password;
    if (asked()) asked()->button(step.answer)->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !tab.busy(); }, 20000));
    EXPECT_EQ(Find<QLabel>(&tab, "messageLabel")->text().toStdString(), step.message) << step.user;
    EXPECT_EQ(CVConfiguration::Instance().Corvalink.UserName, step.userAfter);
  }
  EXPECT_EQ(CVConfiguration::Instance().Corvalink.SyncCV, 9);
  EXPECT_EQ(closed, 0);  // apply leaves the window open
  Find<QPushButton>(&tab, "cancelButton")->click();
  EXPECT_EQ(closed, 1);
}

}  // namespace
