// The tray menu from the application's state, and the progress fields from one
// snapshot of the progress record.

#include <gtest/gtest.h>

#include <algorithm>

#include "PollMainLoop.h"
#include "ProgressWatch.h"
#include "SyncListener.h"
#include "SyncProgressView.h"
#include "TrayController.h"
#include "TrayMenuModel.h"

namespace {

std::string Titles(const std::vector<TrayMenuModel::Entry>& menu) {
  std::string titles;
  for (const auto& entry : menu) titles += (entry.separator ? std::string("---") : entry.title) + "|";
  return titles;
}

TEST(DesktopModelTest, TheTrayMenuFollowsTheState) {
  using W = TrayMenuModel::Window;
  struct Case {
    const char* name;
    TrayMenuModel::State state;
    const char* titles;
  };
  TrayMenuModel::State signedIn;
  signedIn.signedIn = true;
  TrayMenuModel::State paused = signedIn;
  paused.syncNowHidden = true;
  paused.pauseTitle = "Start sync";
  TrayMenuModel::State working = signedIn;
  working.syncNowHidden = true;
  working.progressLine = "Download report.txt, 45% — 3 files left";
  working.windows = {W::SyncManager, W::Activity};
  TrayMenuModel::State noAccount;
  noAccount.windows = {W::SyncManager, W::Activity};
  TrayMenuModel::State allWindows = signedIn;
  allWindows.windows = {W::SyncManager, W::AccountTabs, W::SharedFiles};
  TrayMenuModel::State held = working;
  held.windows = {};
  held.heldDeletions = {"Docs", "Team"};
  const Case cases[] = {
      {"no account", noAccount, "Sign in…|---|Exit|"},
      {"every window", allWindows,
       "Sync now|Pause sync|---|Sync status…|Settings…|Storages…|Shared files…|Open Corvalink folder|---|Exit|"},
      {"in step", signedIn, "Sync now|Pause sync|---|Open Corvalink folder|---|Exit|"},
      {"paused", paused, "Start sync|---|Open Corvalink folder|---|Exit|"},
      {"working, with windows", working,
       "Download report.txt, 45% — 3 files left|---|Pause sync|---|Sync status…|Activity…|"
       "Open Corvalink folder|---|Exit|"},
      {"deletions held", held,
       "Download report.txt, 45% — 3 files left|---|Deletions held in \"Docs\"…|Deletions held in \"Team\"…|---|"
       "Pause sync|---|Open Corvalink folder|---|Exit|"},
  };
  for (const auto& c : cases) EXPECT_EQ(Titles(TrayMenuModel::Build(c.state)), c.titles) << c.name;
  EXPECT_FALSE(TrayMenuModel::Build(working).front().enabled);  // the progress line is not a command
}

TEST(DesktopModelTest, ProgressFieldsComeFromOneSnapshot) {
  SyncProgressSnapshot idle;
  idle.lastSync = "Last update at: 24/11/2026 10:00:00";
  auto view = SyncProgressView::From(idle, "");
  EXPECT_EQ(view.syncStateLabel, "Last update at: 24/11/2026 10:00:00");
  EXPECT_EQ(view.buttonImage, "StartSync");
  EXPECT_FALSE(view.storagesBoxShown);
  EXPECT_EQ(SyncProgressView::TrayLine(idle), "");

  SyncProgressSnapshot busy;
  busy.currentSyncState = 1;
  busy.totalFilesNumber = 4;
  busy.processedFilesCount = 5;  // more done than counted: no negative files left
  busy.currentFileName = "big.bin";
  busy.currentFileActionType = "Download";
  busy.currentFileSize = 1000;
  busy.currentFileProgress = 995;  // 99.5% is truncated to 99%
  view = SyncProgressView::From(busy, "Docs");
  EXPECT_EQ(view.syncStateLabel, "Synchronization in process...");
  EXPECT_EQ(view.filesLeftLabel, "0");
  EXPECT_EQ(view.percentsOfFile, "99%");
  EXPECT_EQ(view.percentsOfStorage, "125%");
  EXPECT_TRUE(view.fileBoxShown);
  EXPECT_EQ(SyncProgressView::TrayLine(busy), "Download big.bin, 99%");

  SyncProgressSnapshot none;
  none.currentSyncState = 2;
  view = SyncProgressView::From(none, "Docs");
  EXPECT_EQ(view.percentsOfStorage, "0%");  // no division by zero
  EXPECT_EQ(view.syncStateLabel, "Uploading changes");
  EXPECT_FALSE(view.storagesProcessedBoxShown);
  EXPECT_FALSE(view.fileBoxShown);
}

// The tray as the engine drives it: icons by state, the tool tip once per change,
// the menu redrawn only when it changes, and entries that do what they say.
TEST(DesktopModelTest, TheTrayControllerFollowsTheEngine) {
  struct Recorder : TrayController::View {
    std::vector<std::string> calls;
    void ShowIcon(const std::string& name) override { calls.push_back("icon " + name); }
    void ShowToolTip(const std::string& text) override { calls.push_back("tip " + text); }
    void ShowMenu(const std::vector<TrayMenuModel::Entry>& entries) override { calls.push_back("menu " + Titles(entries)); }
    void Notify(const std::string& title, const std::string& text, const TrayController::NotificationAction& action) override {
      calls.push_back(title + ": " + text + (action.title.empty() ? "" : " [" + action.title + "]"));
    }
  } view;
  std::vector<std::string> done;
  bool signedIn = false;
  TrayController tray(view,
                      {[&] { done.push_back("sync-now"); }, [&] { done.push_back("pause"); },
                       [&] { done.push_back("open-folder"); },
                       [&](TrayMenuModel::Window, int tab) { done.push_back("window " + std::to_string(tab)); },
                       [&] { done.push_back("exit"); },
                       [&](const std::string& storage) { done.push_back("deletions " + storage); }},
                      {TrayMenuModel::Window::SyncManager}, [&] { return signedIn; });
  EXPECT_EQ(view.calls, (std::vector<std::string>{"tip Corvalink", "menu Sign in…|---|Exit|"}));
  EXPECT_FALSE(tray.Activate("sync-now"));  // not in the menu before a sign-in
  view.calls.clear();
  signedIn = true;
  const struct {
    int state;
    const char* icon;
  } icons[] = {{1, "corvalink-sync-state-1"}, {3, "corvalink-sync-state-3"}, {6, "corvalink-sync-state-6"},
               {0, "corvalink-sync-state-2"}, {7, "corvalink-sync-state-2"}, {-1, "corvalink-sync-state-2"}};
  for (const auto& c : icons) {
    tray.SetStatusIcon(c.state);
    auto icon = std::find_if(view.calls.rbegin(), view.calls.rend(), [](const std::string& call) { return call.rfind("icon ", 0) == 0; });
    EXPECT_EQ(*icon, std::string("icon ") + c.icon) << c.state;
  }
  EXPECT_EQ(view.calls[1], "menu Sync now|Pause sync|---|Sync status…|Open Corvalink folder|---|Exit|");
  const std::size_t before = view.calls.size();
  tray.SetTooltip("Corvalink");  // unchanged: nothing drawn
  tray.SetSyncNowHidden(false);
  EXPECT_EQ(view.calls.size(), before);

  SyncProgressSnapshot busy;
  busy.currentSyncState = 1;
  busy.currentFileName = "a.txt";
  busy.currentFileActionType = "Upload";
  tray.ShowProgress(busy);
  tray.ShowProgress(busy);
  EXPECT_EQ(view.calls.size(), before + 1);
  EXPECT_FALSE(tray.Activate("progress"));
  tray.ShowNotification("Corvalink Sync", "Synced with errors");
  EXPECT_EQ(view.calls.back(), "Corvalink Sync: Synced with errors [Open the logs]");
  tray.ShowNotification("Corvalink Sync", "Synchronization paused");
  EXPECT_EQ(view.calls.back(), "Corvalink Sync: Synchronization paused");
  EXPECT_FALSE(tray.Activate("deletions:Docs"));  // nothing held yet
  tray.SetHeldDeletions({"Docs"});
  for (const char* id : {"sync-now", "pause", "sync-manager-0", "open-folder", "exit", "deletions:Docs"}) {
    EXPECT_TRUE(tray.Activate(id));
  }
  EXPECT_EQ(done, (std::vector<std::string>{"sync-now", "pause", "window 0", "open-folder", "exit", "deletions Docs"}));
}

// A burst of progress events costs one redraw, of the latest values; a watch gone
// before its hop runs is not called.
TEST(DesktopModelTest, ProgressEventsReachTheMainThreadOnceAndLatest) {
  SyncListenerAddInfo::ResetForTests();
  Clock clock(1.0);
  PollMainLoop loop(clock);
  std::vector<SyncProgressSnapshot> drawn;
  {
    ProgressWatch watch(loop, [&](const SyncProgressSnapshot& record) { drawn.push_back(record); });
    SyncListener::SendFileInProgressChangedNotification("big.bin", 1000, 2);
    for (int i = 0; i < 100; ++i) SyncListener::SendFileAmountChangedNotification(10);
    loop.Post([&] { loop.Quit(0); });
    loop.Run();
    ASSERT_EQ(drawn.size(), 1u);
    EXPECT_EQ(drawn[0].currentFileProgress, 1000);
    EXPECT_EQ(drawn[0].currentFileActionType, "Download");
    SyncListener::SendOneMoreFileSyncedNotification();
  }
  loop.Post([&] { loop.Quit(0); });
  loop.Run();
  EXPECT_EQ(drawn.size(), 1u);
}

}  // namespace
