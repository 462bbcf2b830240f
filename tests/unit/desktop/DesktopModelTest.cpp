// The tray menu from the application's state, and the progress fields from one
// snapshot of the progress record.

#include <gtest/gtest.h>

#include "SyncProgressView.h"
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
  noAccount.windows = {W::SignIn};
  const Case cases[] = {
      {"no account, no sign-in window", {}, "Sign in… (corvalink-sync login)|---|Exit|"},
      {"no account", noAccount, "Sign in…|---|Exit|"},
      {"in step", signedIn, "Sync now|Pause sync|---|Open Corvalink folder|---|Exit|"},
      {"paused", paused, "Start sync|---|Open Corvalink folder|---|Exit|"},
      {"working, with windows", working,
       "Download report.txt, 45% — 3 files left|---|Pause sync|---|Sync status…|Settings…|Storages…|Activity…|"
       "Open Corvalink folder|---|Exit|"},
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

}  // namespace
