#include <gtest/gtest.h>

#include <vector>

#include "NotificationCenter.h"
#include "SyncListener.h"
#include "SyncListenerAddInfo.h"
#include "TempHome.h"

namespace {
struct Recorder {
  explicit Recorder(const std::string& name) {
    token = NotificationCenter::Default().AddObserver(
        name, [this](const std::string&, const NotificationInfo& info) { posts.push_back(info); });
  }
  ~Recorder() { NotificationCenter::Default().RemoveObserver(token); }
  NotificationCenter::Token token;
  std::vector<NotificationInfo> posts;
};

std::int64_t IntOf(const NotificationInfo& info, const std::string& key) {
  return std::get<std::int64_t>(info.at(key));
}
}  // namespace

TEST(SyncListener, StateChangesResetTheCountAndTellTheDelegate) {
  TempHome home;
  Recorder states(SyncListener::kSyncStateChanged);
  std::vector<bool> hidden;
  SyncListener::SetSyncNewEnableHandler([&](bool h) { hidden.push_back(h); });

  SyncListener::SendSyncStateChangedNotification(1);
  SyncListener::SendOneMoreFileSyncedNotification();
  SyncListener::SendOneMoreFileSyncedNotification();
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().processedFilesCount, 2);
  SyncListener::SendSyncStateChangedNotification(1);  // the same state still resets
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().processedFilesCount, 0);
  SyncListener::SendSyncStateChangedNotification(0);
  SyncListener::SetSyncNewEnableHandler(nullptr);

  ASSERT_EQ(states.posts.size(), 3u);
  EXPECT_EQ(IntOf(states.posts[2], SyncListener::kSyncStateValue), 0);
  EXPECT_EQ(hidden, (std::vector<bool>{true, true, false}));
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().currentSyncState, 0);
}

TEST(SyncListener, StorageNumberKeepsTheCountOnlyForTheSameIndex) {
  TempHome home;
  SyncListener::SendSyncNumberChangedNotification(0);
  SyncListener::SendOneMoreFileSyncedNotification();
  SyncListener::SendSyncNumberChangedNotification(0);
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().processedFilesCount, 1);
  SyncListener::SendSyncNumberChangedNotification(2);
  auto record = SyncListenerAddInfo::Instance().Snapshot();
  EXPECT_EQ(record.processedFilesCount, 0);
  EXPECT_EQ(record.currentSiteNumber, 2);
}

TEST(SyncListener, FileProgressAndActionWords) {
  TempHome home;
  Recorder names(SyncListener::kFileNameChanged);
  SyncListener::SendFileInProgressChangedNotification("a.txt", 1000, 2);
  SyncListener::SendFileAmountChangedNotification(300);
  auto record = SyncListenerAddInfo::Instance().Snapshot();
  EXPECT_EQ(record.currentFileName, "a.txt");
  EXPECT_EQ(record.currentFileActionType, "Download");
  EXPECT_EQ(record.currentFileProgress, 300);
  ASSERT_EQ(names.posts.size(), 1u);
  EXPECT_EQ(std::get<std::string>(names.posts[0].at("fileName")), "a.txt");
  EXPECT_EQ(IntOf(names.posts[0], "fileSize"), 1000);

  SyncListener::SendFilePercentsChangedNotification(37);
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().currentFileProgress, 370);
  // The end of the pass leaves no file of it behind for the next one to show.
  SyncListener::SendSyncStateChangedNotification(0);
  record = SyncListenerAddInfo::Instance().Snapshot();
  EXPECT_EQ(record.currentFileName, "");
  EXPECT_EQ(record.currentFileProgress, 0);

  EXPECT_EQ(SyncListener::getTypeActionFile(9), "");
  EXPECT_EQ(SyncListener::getTypeActionFile(98), "");
  EXPECT_EQ(SyncListener::getTypeActionFile(99), "Update");
  EXPECT_EQ(SyncListener::getTypeActionFile(7), "Delete");
  EXPECT_EQ(SyncListener::getTypeActionFile(8), "Create");
}

TEST(SyncListener, PartUploadProgressCountsWholePartsAndFallsBackWhenParametersAreBad) {
  TempHome home;
  Recorder percents(SyncListener::kFilePercentsChanged);
  SyncListener::SendFileInProgressChangedNotification("big.bin", 2500, 0);

  SyncListener::SetParametrForPartUploadWithFullSize(2500, 1, 1000);
  SyncListener::SendFilePercentsChangedNotificationForPartUpload(50);
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().currentFileProgress, 1500);
  EXPECT_EQ(IntOf(percents.posts.back(), SyncListener::kFilePercentsValue), 2500);

  // The last part: whole parts are capped at the file size, the running part is not.
  SyncListener::SetParametrForPartUploadWithFullSize(2500, 3, 1000);
  SyncListener::SendFilePercentsChangedNotificationForPartUpload(10);
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().currentFileProgress, 2600);

  // A missing part size leaves the earlier parameters in place.
  SyncListener::SetParametrForPartUploadWithFullSize(2500, 0, std::nullopt);
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().PU_Step, 3);

  // A negative step fails the test and falls back to plain percents of the file.
  SyncListener::SetParametrForPartUploadWithFullSize(2500, -1, 1000);
  SyncListener::SendFilePercentsChangedNotificationForPartUpload(40);
  EXPECT_EQ(SyncListenerAddInfo::Instance().Snapshot().currentFileProgress, 1000);
  EXPECT_EQ(IntOf(percents.posts.back(), SyncListener::kFilePercentsValue), 40);
}
