// The shared files and upload request windows over scripted services: rows
// opened as a user opens them, the buttons of each tab, and the questions that
// guard what goes.

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QMessageBox>
#include <QPushButton>
#include <QTabBar>
#include <QTest>
#include <QTreeWidget>
#include <filesystem>

#include "FakeSharedFilesService.h"
#include "FakeUploadRequestService.h"
#include "QtMainLoop.h"
#include "SharedCache.h"
#include "SharedFilesWindow.h"
#include "TempHome.h"
#include "UploadRequestsWindow.h"

namespace {

std::vector<std::string> Texts(const QTreeWidget& table) {
  std::vector<std::string> texts;
  for (int row = 0; row < table.topLevelItemCount(); ++row) texts.push_back(table.topLevelItem(row)->text(0).toStdString());
  return texts;
}

// Presses the button of that name, then answers the question it raised, if any.
std::string Press(QWidget& window, const char* button, QMessageBox::StandardButton answer = QMessageBox::NoButton,
                  const char* question = "sharedFilesQuestion") {
  window.findChild<QPushButton*>(button)->click();
  auto* box = window.findChild<QMessageBox*>(question);
  if (answer == QMessageBox::NoButton || !box) return "";
  const std::string text = box->text().toStdString();
  box->button(answer)->click();
  return text;
}

std::string Message(QWidget& window, const char* name) {
  QMessageBox* box = nullptr;
  if (!QTest::qWaitFor([&] { return (box = window.findChild<QMessageBox*>(name)) != nullptr; })) return "";
  const std::string text = box->text().toStdString();
  delete box;
  return text;
}

}  // namespace

TEST(SharingWindows, SharedFilesOpenDownloadClearAndChangeTheirShares) {
  TempHome home;
  Clock clock;
  QtMainLoop loop(clock);
  FakeSharedFilesService service;
  service.top = {Item("1", "report.txt", false, "alice@x", "Alice"), Item("2", "Plans", true, "alice@x", "Alice")};
  SharedFilesWindow window(service, loop);
  auto& view = window.controller();
  auto* table = window.findChild<QTreeWidget*>("sharedTable");
  auto settle = [&] { ASSERT_TRUE(QTest::qWaitFor([&] { return !view.isBusy; })); };
  const std::string alice = "Alice" + std::string(ViewSharedFilesController::kPersonMark) + "(alice@x)";
  for (const auto tab : {ViewSharedFilesController::kSharedIn, ViewSharedFilesController::kSharedOut}) {
    view.currentWindowState = tab;
    window.Open(CVConnection{});
    settle();
    EXPECT_EQ(Texts(*table), (std::vector<std::string>{"A", alice}));
    Press(window, "openButton");  // on the first row that opens: the person
    settle();
    EXPECT_EQ(Texts(*table), (std::vector<std::string>{"Plans", "report.txt"}));
    EXPECT_EQ(window.findChild<QPushButton*>("downloadButton")->isVisible(), tab == ViewSharedFilesController::kSharedIn);
    EXPECT_EQ(window.findChild<QPushButton*>("unshareButton")->isVisible(), tab == ViewSharedFilesController::kSharedOut);
    table->topLevelItem(1)->setSelected(true);
  }
  // Shared Out: each sheet lists the item's recipients and acts on those left checked.
  EXPECT_EQ(Press(window, "unshareButton", QMessageBox::No), ViewSharedFilesController::kUnshareOne);
  EXPECT_TRUE(service.deleted.empty());
  struct Sheet {
    const char* open;
    QDialog& sheet;
    const char* table;
    const char* act;
    std::string message;
  } sheets[] = {
      {"resendButton", window.resendSheet(), "recipientsTable", "sendResendButton", ViewSharedFilesController::kResent},
      {"editShareButton", window.expirySheet(), "sharesTable", "saveExpiryButton", ViewSharedFilesController::kExtended},
      {"editShareButton", window.expirySheet(), "sharesTable", "unshareLinksButton", ViewSharedFilesController::kUnshared},
  };
  for (const auto& s : sheets) {
    Press(window, s.open);
    ASSERT_TRUE(QTest::qWaitFor([&] { return s.sheet.isVisible(); })) << s.open;
    auto* rows = s.sheet.findChild<QTreeWidget*>(s.table);
    ASSERT_EQ(rows->topLevelItemCount(), 1);
    rows->topLevelItem(0)->setCheckState(0, Qt::Unchecked);
    EXPECT_FALSE(s.sheet.findChild<QPushButton*>(s.act)->isEnabled());
    rows->topLevelItem(0)->setCheckState(0, Qt::Checked);
    if (auto* expires = s.sheet.findChild<QCheckBox*>("expiresCheckBox")) expires->setChecked(false);
    Press(s.sheet, s.act);
    EXPECT_EQ(Message(window, "sharedFilesMessage"), s.message) << s.act;
    settle();
    if (&s.sheet == &window.resendSheet()) continue;
    // The edit sheet goes back to the people of Shared Out.
    EXPECT_EQ(Texts(*table), (std::vector<std::string>{"A", alice})) << s.act;
    Press(window, "openButton");
    settle();
    table->topLevelItem(1)->setSelected(true);
  }
  EXPECT_EQ(service.resent, std::vector<std::string>{"1"});
  ASSERT_EQ(service.extended.size(), 1u);
  EXPECT_EQ(service.extended[0].second, CorvalinkWS::kNoExpiry);
  EXPECT_EQ(service.deleted, std::vector<std::string>{"1"});

  // Shared In: the file into the cache, then the whole cache away after the question.
  window.findChild<QTabBar*>("tabs")->setCurrentIndex(0);
  settle();
  Press(window, "openButton");
  settle();
  table->topLevelItem(1)->setSelected(true);
  Press(window, "downloadButton");
  EXPECT_EQ(Message(window, "sharedFilesMessage"), "1 downloaded to " + SharedCache::SharedInRoot());
  settle();
  EXPECT_EQ(table->topLevelItem(1)->text(4).toStdString(), "yes");
  table->clearSelection();
  EXPECT_EQ(Press(window, "clearCacheButton", QMessageBox::Yes), ViewSharedFilesController::kClearQuestion);
  EXPECT_FALSE(std::filesystem::exists(SharedCache::SharedInRoot() + "/1_report.txt"));
}

TEST(SharingWindows, UploadRequestsOpenPeopleAndDeleteAfterTheQuestion) {
  TempHome home;
  Clock clock;
  QtMainLoop loop(clock);
  FakeUploadRequestService service;
  int newRequests = 0;
  UploadRequestsWindow window(service, loop, [&] { ++newRequests; });
  auto* table = window.findChild<QTreeWidget*>("requestsTable");
  auto settle = [&] { ASSERT_TRUE(QTest::qWaitFor([&] { return !window.controller().isBusy; })); };
  window.Open();
  settle();
  EXPECT_EQ(Texts(*table), (std::vector<std::string>{"Rent", "Tax"}));
  table->setCurrentItem(table->topLevelItem(1));
  Press(window, "openButton");
  EXPECT_EQ(Texts(*table), (std::vector<std::string>{"ann", "joe"}));
  EXPECT_FALSE(window.findChild<QPushButton*>("deleteButton")->isEnabled());  // nothing checked
  table->topLevelItem(1)->setCheckState(0, Qt::Checked);
  EXPECT_EQ(Press(window, "deleteButton", QMessageBox::Yes, "uploadRequestsQuestion"), CVViewUploadRequest::kDeleteQuestion);
  EXPECT_EQ(Message(window, "uploadRequestsMessage"), CVViewUploadRequest::kDeleted);
  EXPECT_EQ(service.deleted, std::vector<std::string>{"2"});
  Press(window, "newRequestButton");
  EXPECT_EQ(newRequests, 1);
}
