#include "SyncControl.h"

#include "AppDelegate.h"
#include "AsyncFileCommonPart.h"
#include "FSW_Queues.h"
#include "NewFilesParser.h"
#include "SmartSync.h"

namespace {

class AppSyncControl : public SyncControl {
 public:
  explicit AppSyncControl(AppDelegate& app) : app_(app) {}

  void Apply(const std::function<void()>& change) override {
    app_.ApplySettings(change);
    // The lists changed: every storage is due, and a pass starts now.
    app_.ResetSyncTime();
    app_.SyncNow();
  }

  void StartAfterLogin() override { app_.StartAfterLogin(); }

  std::size_t PendingLocalChanges() override {
    SmartSync* sync = app_.mainSyncObject();
    if (!sync) return AsyncFileCommonPart::GetAllFilesFromNewFiles().size();
    std::size_t pending = sync->fswQueue().RawCount();
    std::lock_guard<std::mutex> lock(sync->fswQueue().FSW_FQ_Lock);
    const auto size = sync->fswQueue().FQ_FilteredQueue.size();
    const auto index = static_cast<std::size_t>(std::max(0, sync->fswQueueIndex));
    return pending + (size > index ? size - index : 0);
  }

  void RenameFilesInQueue(const std::string& oldName, const std::string& newName) override {
    if (SmartSync* sync = app_.mainSyncObject()) {
      sync->fswQueue().RenameFilesInQueue(oldName, newName);
    } else {
      AsyncFileCommonPart::RenameSiteOld(oldName, newName);
    }
  }

  void ForgetQueuedWork() override { app_.ForgetQueuedWork(); }

  bool IsOperationRunning() override {
    SmartSync* sync = app_.mainSyncObject();
    return sync && (sync->syncOperationInProcess || sync->fswOperationInProcess);
  }

  bool IsRunningClient() const override { return true; }

 private:
  AppDelegate& app_;
};

class FilesOnlyControl : public SyncControl {
 public:
  void Apply(const std::function<void()>& change) override { change(); }
  void StartAfterLogin() override {}
  std::size_t PendingLocalChanges() override { return AsyncFileCommonPart::GetAllFilesFromNewFiles().size(); }
  void RenameFilesInQueue(const std::string& oldName, const std::string& newName) override {
    AsyncFileCommonPart::RenameSiteOld(oldName, newName);
  }
  void ForgetQueuedWork() override {}
  bool IsOperationRunning() override { return false; }
  bool IsRunningClient() const override { return false; }
};

}  // namespace

std::unique_ptr<SyncControl> SyncControl::ForApp(AppDelegate& app) { return std::make_unique<AppSyncControl>(app); }

std::unique_ptr<SyncControl> SyncControl::FilesOnly() { return std::make_unique<FilesOnlyControl>(); }
