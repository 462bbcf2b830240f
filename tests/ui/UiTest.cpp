// The engine's main loop on Qt's event loop, the sync manager's progress tab, and
// the info tab's log export, the version window and the activity window.

#include <gtest/gtest.h>
#include <unistd.h>

#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QTreeWidget>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "ActivityWindow.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "HeldDeletionsBox.h"
#include "InfoTab.h"
#include "LogExport.h"
#include "QtMainLoop.h"
#include "SyncManagerWindow.h"
#include "TempHome.h"
#include "TrayIcon.h"
#include "TrayMenuModel.h"
#include "VersionWindow.h"

namespace {

TEST(UiTest, TheQtLoopRunsTimersWatchesAndPostsOnItsThread) {
  Clock clock(0.01);  // the program's 10 s are 100 ms here
  QtMainLoop loop(clock);
  int ticks = 0;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::string read_;
  std::atomic<bool> postedOnMain{false};
  std::thread::id mainThread = std::this_thread::get_id();

  MainLoop::TimerId timer = 0;
  timer = loop.AddTimer(std::chrono::seconds(10), [&] {
    // A timer that cancels itself from its own tick.
    if (++ticks == 3) loop.CancelTimer(timer);
  }, true);
  MainLoop::WatchId watch = loop.AddReadWatch(fds[0], [&] {
    char byte;
    if (read(fds[0], &byte, 1) == 1) read_ += byte;
    if (read_ == "ok") loop.RemoveReadWatch(watch);
  });
  std::thread worker([&] {
    EXPECT_FALSE(loop.IsMainThread());
    ASSERT_EQ(write(fds[1], "ok", 2), 2);
    loop.Post([&] { postedOnMain = std::this_thread::get_id() == mainThread && loop.IsMainThread(); });
  });
  loop.AddTimer(std::chrono::seconds(60), [&] { loop.Quit(7); }, false);
  EXPECT_EQ(loop.Run(), 7);
  worker.join();
  EXPECT_EQ(ticks, 3);
  EXPECT_EQ(read_, "ok");
  EXPECT_TRUE(postedOnMain);

  // Quit before Run ends the run that follows, once; the loop runs again after it.
  loop.Quit(3);
  loop.Quit(3);
  EXPECT_EQ(loop.Run(), 3);
  loop.Post([&] { loop.Quit(4); });
  EXPECT_EQ(loop.Run(), 4);
  close(fds[0]);
  close(fds[1]);
}

TEST(UiTest, TheSyncTabDrawsTheProgressAndItsButtonAsksToStartOrStop) {
  int pressed = 0;
  SyncManagerWindow window([&] { ++pressed; });
  SyncProgressSnapshot busy;
  busy.currentSyncState = 1;
  busy.totalFilesNumber = 10;
  busy.processedFilesCount = 4;
  busy.currentFileName = "report.pdf";
  busy.currentFileActionType = "Download";
  busy.currentFileSize = 2048;
  busy.currentFileProgress = 1024;
  window.Draw(SyncProgressView::From(busy, "Docs"));
  window.show();
  auto label = [&](const char* name) { return window.findChild<QLabel*>(name)->text().toStdString(); };
  EXPECT_EQ(label("syncStateLabel"), "Synchronization in process...");
  EXPECT_EQ(label("filesLeftLabel"), "6");
  EXPECT_EQ(label("currentFileName"), "report.pdf");
  EXPECT_TRUE(window.findChild<QLabel*>("currentFileName")->isVisible());
  auto* button = window.findChild<QPushButton*>("buttonStopStart");
  EXPECT_EQ(button->text().toStdString(), "Stop sync");
  QTest::mouseClick(button, Qt::LeftButton);
  EXPECT_EQ(pressed, 1);

  SyncProgressSnapshot idle;
  idle.lastSync = "Last update at: 24/11/2026 10:00:00";
  window.Draw(SyncProgressView::From(idle, ""));
  EXPECT_EQ(label("syncStateLabel"), "Last update at: 24/11/2026 10:00:00");
  EXPECT_FALSE(window.findChild<QLabel*>("currentFileName")->isVisible());
  EXPECT_EQ(button->text().toStdString(), "Start sync");

  // Tabs take their places by number whatever the order they come in; a number
  // the window lacks leaves the choice as it is.
  auto* info = new QWidget;
  auto* storages = new QWidget;
  window.AddTab(3, info, "Info");
  window.AddTab(2, storages, "Storages");
  auto* tabs = window.findChild<QTabWidget*>();
  EXPECT_EQ(tabs->indexOf(storages), 1);
  EXPECT_EQ(tabs->indexOf(info), 2);
  window.SetTabNumber(2);
  window.SetTabNumber(1);
  EXPECT_EQ(tabs->currentWidget(), storages);
}

// Each button of the held-deletions question answers once, or not at all.
TEST(UiTest, TheHeldDeletionsQuestionAnswersByItsButtons) {
  const struct {
    const char* button;
    std::vector<bool> answers;
  } cases[] = {{"Move to Trash", {true}}, {"Put back on the server", {false}}, {"Decide later", {}}};
  for (const auto& c : cases) {
    std::vector<bool> answers;
    QPointer<QMessageBox> box =
        HeldDeletionsBox::Open({"Docs", 120, 130}, [&](bool confirm) { answers.push_back(confirm); });
    EXPECT_EQ(box->text().toStdString(),
              "The server no longer lists 120 of the 130 files of \"Docs\". They stay on this computer until you "
              "decide.");
    QAbstractButton* button = nullptr;
    for (QAbstractButton* candidate : box->buttons()) {
      if (candidate->text() == c.button) button = candidate;
    }
    ASSERT_NE(button, nullptr) << c.button;
    button->click();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(answers, c.answers) << c.button;
    EXPECT_TRUE(box.isNull()) << c.button;  // closed and gone
  }
}

// Page 0 of the history holds one record, page 1 none; two local records.
class ScriptedActivity : public ActivityService {
 public:
  std::vector<CVFileForCompare> records{2};
  ScriptedActivity() {
    records[0].localPath = "/h/a.txt";
    records[1].localPath = "/h/b.txt";
    records[1].fileStatus = 1;
  }
  std::optional<std::vector<WSUsageHistory>> GetUsageHistory(long page) override {
    WSUsageHistory record;
    record.Action = "Uploaded";
    record.FileURL = "\\\\devserver\\Docs\\a.txt";
    return page == 0 ? std::vector<WSUsageHistory>{record} : std::vector<WSUsageHistory>{};
  }
  std::optional<std::vector<CVFileForCompare>> readDownloadedFiles() override { return records; }
  bool SetNothingStatusForFile(const std::string& url) override {
    std::erase_if(records, [&](const auto& r) { return r.localPath == url; });
    return true;
  }
};

TEST(UiTest, TheActivityWindowPagesTheHistoryAndMarksLocalRowsSeen) {
  Clock clock;
  QtMainLoop loop(clock);
  ScriptedActivity service;
  ActivityWindow window(service, loop);
  window.show();
  auto* table = window.findChild<QTreeWidget*>("tableView");
  auto* next = window.findChild<QPushButton*>("nextButton");
  auto* prev = window.findChild<QPushButton*>("prevButton");
  auto* page = window.findChild<QLabel*>("textFieldPageNum");
  auto idle = [&] { return !window.controller().inProgressNow && !window.controller().inProgressNowLocal; };
  ASSERT_TRUE(QTest::qWaitFor([&] { return idle() && table->topLevelItemCount() == 1; }));
  EXPECT_EQ(table->headerItem()->data(2, Qt::UserRole).toString().toStdString(), "fileurlcolumn");
  EXPECT_EQ(table->topLevelItem(0)->text(2).toStdString(), "\\\\devserver\\Docs\\a.txt");
  EXPECT_EQ(page->text().toStdString() + (prev->isEnabled() ? " prev" : "") + (next->isEnabled() ? " next" : ""), "0 next");
  next->click();
  ASSERT_TRUE(QTest::qWaitFor(idle));
  EXPECT_EQ(page->text().toStdString() + (prev->isEnabled() ? " prev" : "") + (next->isEnabled() ? " next" : ""), "1 prev");
  EXPECT_EQ(table->topLevelItemCount(), 0);

  window.findChild<QTabWidget*>("tabs")->setCurrentIndex(1);
  auto* local = window.findChild<QTreeWidget*>("tableViewLocalFiles");
  ASSERT_TRUE(QTest::qWaitFor([&] { return idle() && local->topLevelItemCount() == 2; }));
  EXPECT_EQ(local->topLevelItem(1)->text(0).toStdString() + " " + local->topLevelItem(1)->text(1).toStdString(),
            "/h/b.txt Updated");
  emit local->itemDoubleClicked(local->topLevelItem(0), 0);
  ASSERT_TRUE(QTest::qWaitFor([&] { return idle() && local->topLevelItemCount() == 1; }));
  EXPECT_EQ(local->topLevelItem(0)->text(0).toStdString(), "/h/b.txt");
}

}  // namespace

// The tray host knows entries by their actions: an entry that stays through a
// redraw keeps its action, so a click sent just before the redraw still counts.
TEST(UiTest, TrayEntriesThatStayKeepTheirActionsThroughRedraws) {
  TrayIcon tray;
  std::vector<std::string> activated;
  tray.SetActivateHandler([&](const std::string& id) { activated.push_back(id); });
  auto titles = [&] {
    std::string shown;
    for (QAction* action : tray.Menu().actions()) shown += (action->isSeparator() ? "---" : action->text().toStdString()) + "|";
    return shown;
  };
  auto find = [&](const char* id) { return tray.Menu().findChild<QAction*>(id); };
  TrayMenuModel::State state;
  state.signedIn = true;
  state.windows = {TrayMenuModel::Window::SyncManager};
  tray.ShowMenu(TrayMenuModel::Build(state));
  QAction* exit = find("exit");
  QAction* pause = find("pause");
  ASSERT_NE(exit, nullptr);
  struct Step {
    bool syncNowHidden;
    std::string progressLine, pauseTitle, titles;
  } steps[] = {
      {true, "Download a.txt — 2 files left", "Pause sync",
       "Download a.txt — 2 files left|---|Pause sync|---|Sync status…|Open Corvalink folder|---|Exit|"},
      {true, "", "Start sync", "Start sync|---|Sync status…|Open Corvalink folder|---|Exit|"},
      {false, "", "Pause sync", "Sync now|Pause sync|---|Sync status…|Open Corvalink folder|---|Exit|"},
  };
  for (const auto& step : steps) {
    state.syncNowHidden = step.syncNowHidden;
    state.progressLine = step.progressLine;
    state.pauseTitle = step.pauseTitle;
    tray.ShowMenu(TrayMenuModel::Build(state));
    EXPECT_EQ(titles(), step.titles);
    EXPECT_EQ(find("exit"), exit);
    EXPECT_EQ(find("pause"), pause);
  }
  exit->trigger();
  QCoreApplication::processEvents();
  EXPECT_EQ(activated, std::vector<std::string>{"exit"});
}

TEST(UiTest, TheInfoTabExportsTheLogsThroughItsPanelOffTheMainThread) {
  TempHome home;
  CVEventLogger::SetConsoleEcho(false);
  CVEventLogger::WriteMainLogMessage("a line to export");
  InfoTab tab;
  tab.show();
  tab.findChild<QPushButton*>("sendLogsButton")->click();
  auto* panel = tab.findChild<QFileDialog*>("exportLogsPanel");
  ASSERT_NE(panel, nullptr);
  // The panel opens in the download folder, on the archive's name.
  EXPECT_EQ(panel->selectedFiles().value(0).toStdString(),
            home.path() + "/Downloads/" + LogExport::ArchiveName());
  const std::string target = home.path() + "/logs.zip";
  panel->selectFile(QString::fromStdString(target));
  QMetaObject::invokeMethod(panel, "accept");
  QMessageBox* box = nullptr;
  ASSERT_TRUE(QTest::qWaitFor([&] { return (box = tab.findChild<QMessageBox*>("exportLogsMessage")) != nullptr; }));
  EXPECT_EQ(box->text().toStdString(), "Logs files were saved to " + home.path());
  EXPECT_EQ(box->informativeText().toStdString(), "File name: logs.zip");
  EXPECT_EQ(box->buttons().value(0)->text().toStdString(), "Ok");
  EXPECT_TRUE(std::filesystem::is_regular_file(target));
  EXPECT_TRUE(tab.findChild<QPushButton*>("sendLogsButton")->isEnabled());
}

// The server's side of the version window, scripted.
class ScriptedVersions : public VersionService {
 public:
  std::optional<std::string> GetVersions(const FileOnServer& file) override {
    ++lists;
    path = file.serverPath;
    return "<r><StorageVersionInfo><Version>1</Version><Created>2026-01-02T03:04:05.000Z</Created><Size>5</Size>"
           "<Owner>alice</Owner></StorageVersionInfo><StorageVersionInfo><Version>2</Version><Size/>"
           "</StorageVersionInfo></r>";
  }
  std::string SwitchToVersion(const FileOnServer&, const std::string&) override { return answer; }
  bool DownloadFileVersionToPath(const std::string& target, const std::string& version, const FileOnServer&,
                                 std::int64_t, const std::function<void(std::int64_t)>& progress) override {
    progress(1);
    std::ofstream(target) << "version " << version;
    return true;
  }
  std::atomic<int> lists{0};
  std::string answer, path;
};

TEST(UiTest, TheVersionWindowListsRestoresAndSaves) {
  TempHome home;
  auto site = std::make_shared<CVSharepoint>();
  site->Name = "Docs";
  site->Url = "\\\\devserver\\Docs\\";
  CVConfiguration::Instance().fSpSites.push_back(site);
  Clock clock;
  QtMainLoop loop(clock);
  ScriptedVersions server;
  std::vector<std::string> restored;
  VersionWindow window(server, loop, home.root() + "/Docs/a.txt", [&](const std::string& s) { restored.push_back(s); });
  window.show();
  auto* table = window.findChild<QTreeWidget*>("versionsTableView");
  ASSERT_TRUE(QTest::qWaitFor([&] { return table->topLevelItemCount() == 2 && !window.controller().inProgress; }));
  EXPECT_EQ(server.path, "\\\\devserver\\Docs\\a.txt");
  EXPECT_EQ(table->topLevelItem(0)->text(2).toStdString() + " " + table->topLevelItem(0)->text(3).toStdString(),
            "alice 5 bytes");
  EXPECT_EQ(table->topLevelItem(1)->text(1).toStdString(), "");  // no date
  auto* restore = window.findChild<QPushButton*>("restoreButton");
  EXPECT_FALSE(restore->isEnabled());  // nothing chosen yet
  table->setCurrentItem(table->topLevelItem(0));
  for (QWidget* control : window.findChildren<QWidget*>()) {
    if (control->focusPolicy() == Qt::NoFocus) continue;
    EXPECT_FALSE(control->accessibleName().isEmpty()) << control->objectName().toStdString();
  }

  const struct {
    std::string answer, message;  // "" for no message
  } cases[] = {{"2", "Version not found."}, {"-5;busy", "Error occured, please try again later."}, {"0;", ""}};
  for (const auto& c : cases) {
    server.answer = c.answer;
    const int lists = server.lists;
    ASSERT_TRUE(restore->isEnabled());
    restore->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window.controller().inProgress; }));
    EXPECT_EQ(server.lists, lists + 1);  // the list is read again in every case
    auto* box = window.findChild<QMessageBox*>("versionMessage");
    EXPECT_EQ(box ? box->text().toStdString() : "", c.message);
    delete box;
  }
  EXPECT_EQ(restored, std::vector<std::string>{"Docs"});

  window.SaveSelectedTo(QString::fromStdString(home.path() + "/saved.txt"));
  ASSERT_TRUE(QTest::qWaitFor([&] { return window.findChild<QMessageBox*>("versionMessage") != nullptr; }));
  EXPECT_EQ(window.findChild<QMessageBox*>("versionMessage")->text().toStdString(),
            "Version 1 was saved to " + home.path() + "/saved.txt.");
}
