#pragma once
// SyncListener: the one channel by which the sync core tells the rest of the
// program how far it has come. Each class operation writes the shared record
// (SyncListenerAddInfo) and then posts one "CV_SYNC_*" notification. Callable
// from any thread.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

class SyncListener {
 public:
  static constexpr const char* kSyncStateChanged = "CV_SYNC_SyncStateChanged_Notification";
  static constexpr const char* kSyncStateValue = "CV_SYNC_SyncStateValue";
  static constexpr const char* kStorageNumberChanged = "CV_SYNC_StorageNumberChanged_Notification";
  static constexpr const char* kStorageNumberValue = "CV_SYNC_StorageNumberValue";
  static constexpr const char* kOneMoreFileSynced = "CV_SYNC_OneMoreFileSynced";
  static constexpr const char* kOverallFilesNumberChanged = "CV_SYNC_OverallFilesNumberChanged";
  static constexpr const char* kOverallFilesNumberValue = "CV_SYNC_OverallFilesNumberValue";
  static constexpr const char* kFileNameChanged = "CV_SYNC_FileNameChanged";
  static constexpr const char* kFileAmountChanged = "CV_SYNC_FileAmountChanged";
  static constexpr const char* kFileAmountValue = "CV_SYNC_FileAmountValue";
  static constexpr const char* kFilePercentsChanged = "CV_SYNC_FilePercentsChanged";
  static constexpr const char* kFilePercentsValue = "CV_SYNC_FilePercentsValue";

  // The application delegate's "Sync now" entry: hidden while a sync runs.
  static void SetSyncNewEnableHandler(std::function<void(bool hidden)> handler);

  static void SendSyncStateChangedNotification(std::int32_t state);
  static void SendSyncNumberChangedNotification(std::int32_t storageIndex);
  static void SendOneMoreFileSyncedNotification();
  static void SendOverallFilesNUmber(std::int64_t total);
  static void SendFileInProgressChangedNotification(const std::string& fileName,
                                                    std::int64_t fileSize,
                                                    std::int32_t fileAction);
  static std::string getTypeActionFile(std::int32_t fileAction);
  static void SendFileAmountChangedNotification(std::int64_t bytes);
  static void SendFilePercentsChangedNotification(std::int64_t percent);
  static void SetParametrForPartUploadWithFullSize(std::optional<std::int64_t> fullSize,
                                                   std::optional<std::int64_t> step,
                                                   std::optional<std::int64_t> partSize);
  static void SendFilePercentsChangedNotificationForPartUpload(std::int64_t percent);
  static void setLastSyncText(const std::string& text);
};
