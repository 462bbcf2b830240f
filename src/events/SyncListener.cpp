#include "SyncListener.h"

#include <exception>
#include <mutex>

#include "CVEventLogger.h"
#include "NotificationCenter.h"
#include "SyncListenerAddInfo.h"

namespace {
std::mutex gHandlerLock;
std::function<void(bool)> gSyncNewEnable;

void LogFailure(const char* method, const std::exception& error) {
  CVEventLogger::LogException("SyncListener", method, error.what());
}
}  // namespace

void SyncListener::SetSyncNewEnableHandler(std::function<void(bool hidden)> handler) {
  std::lock_guard<std::mutex> lock(gHandlerLock);
  gSyncNewEnable = std::move(handler);
}

void SyncListener::SendSyncStateChangedNotification(std::int32_t state) {
  try {
    SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) {
      r.processedFilesCount = 0;
      r.currentSyncState = state;
      if (state == 0) {
        // The end of a pass clears the file it worked on (the window's reset, done
        // here under the record's lock), so that no view shows it afterwards.
        r.currentFileSize = 0;
        r.currentFileProgress = 0;
        r.currentFileName.clear();
        r.currentFileActionType.clear();
      }
    });
    std::function<void(bool)> handler;
    {
      std::lock_guard<std::mutex> lock(gHandlerLock);
      handler = gSyncNewEnable;
    }
    try {
      if (handler) handler(state != 0);
    } catch (const std::exception& error) {
      LogFailure("SendSyncStateChangedNotification", error);
    }
    NotificationCenter::Default().Post(kSyncStateChanged, {{kSyncStateValue, std::int64_t{state}}});
  } catch (const std::exception& error) {
    LogFailure("SendSyncStateChangedNotification", error);
  }
}

void SyncListener::SendSyncNumberChangedNotification(std::int32_t storageIndex) {
  SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) {
    if (r.currentSiteNumber != storageIndex) r.processedFilesCount = 0;
    r.currentSiteNumber = storageIndex;
  });
  NotificationCenter::Default().Post(kStorageNumberChanged,
                                     {{kStorageNumberValue, std::int64_t{storageIndex}}});
}

void SyncListener::SendOneMoreFileSyncedNotification() {
  SyncListenerAddInfo::Instance().Update([](SyncProgressSnapshot& r) {
    // The count wraps at 32 bits like the field it lives in.
    r.processedFilesCount =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(r.processedFilesCount) + 1u);
  });
  NotificationCenter::Default().Post(kOneMoreFileSynced);
}

void SyncListener::SendOverallFilesNUmber(std::int64_t total) {
  SyncListenerAddInfo::Instance().Update(
      [&](SyncProgressSnapshot& r) { r.totalFilesNumber = static_cast<std::int32_t>(total); });
  NotificationCenter::Default().Post(kOverallFilesNumberChanged, {{kOverallFilesNumberValue, total}});
}

void SyncListener::SendFileInProgressChangedNotification(const std::string& fileName,
                                                         std::int64_t fileSize,
                                                         std::int32_t fileAction) {
  SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) {
    r.currentFileSize = fileSize;
    r.currentFileProgress = 0;
    r.currentFileName = fileName;
    r.currentFileActionType = getTypeActionFile(fileAction);
  });
  NotificationCenter::Default().Post(kFileNameChanged, {{"fileName", fileName}, {"fileSize", fileSize}});
}

std::string SyncListener::getTypeActionFile(std::int32_t fileAction) {
  switch (fileAction) {
    case 0: return "Upload";
    case 1: case 3: case 7: return "Delete";
    case 2: return "Download";
    case 4: case 5: case 8: return "Create";
    case 6: return "Rename";
    case 99: return "Update";
    default: return "";
  }
}

void SyncListener::SendFileAmountChangedNotification(std::int64_t bytes) {
  SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) { r.currentFileProgress += bytes; });
  NotificationCenter::Default().Post(kFileAmountChanged, {{kFileAmountValue, bytes}});
}

void SyncListener::SendFilePercentsChangedNotification(std::int64_t percent) {
  try {
    SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) {
      r.currentFileProgress = static_cast<std::int64_t>(
          static_cast<double>(percent) / 100.0 * static_cast<double>(r.currentFileSize));
    });
    NotificationCenter::Default().Post(kFilePercentsChanged, {{kFilePercentsValue, percent}});
  } catch (const std::exception& error) {
    LogFailure("SendFilePercentsChangedNotification", error);
  }
}

void SyncListener::SetParametrForPartUploadWithFullSize(std::optional<std::int64_t> fullSize,
                                                        std::optional<std::int64_t> step,
                                                        std::optional<std::int64_t> partSize) {
  if (!fullSize || !partSize) {
    CVEventLogger::WriteMainLogMessage(
        "SyncListener - SetParametrForPartUploadWithFullSize -> Parameter for part upload not "
        "correct! (full size, part size, step)");
    return;
  }
  SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) {
    r.PU_FullFileSize = fullSize;
    r.PU_PartSize = partSize;
    r.PU_Step = step;
  });
}

void SyncListener::SendFilePercentsChangedNotificationForPartUpload(std::int64_t percent) {
  try {
    bool usable = false;
    std::int64_t fullSize = 0;
    SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) {
      if (!r.PU_FullFileSize || !r.PU_PartSize || !r.PU_Step) return;
      std::int64_t full = *r.PU_FullFileSize, part = *r.PU_PartSize, step = *r.PU_Step;
      if (full < 1 || part < 1 || step < 0) return;
      usable = true;
      fullSize = full;
      r.currentFileProgress = std::min(part * step, full) +
                              static_cast<std::int64_t>(static_cast<double>(percent) / 100.0 *
                                                        static_cast<double>(part));
    });
    if (!usable) {
      SendFilePercentsChangedNotification(percent);
      return;
    }
    NotificationCenter::Default().Post(kFilePercentsChanged, {{kFilePercentsValue, fullSize}});
  } catch (const std::exception& error) {
    LogFailure("SendFilePercentsChangedNotificationForPartUpload", error);
  }
}

void SyncListener::setLastSyncText(const std::string& text) {
  SyncListenerAddInfo::Instance().Update([&](SyncProgressSnapshot& r) { r.lastSync = text; });
}
