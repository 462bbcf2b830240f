#include "DesktopCommands.h"

#include "AppDelegate.h"
#include "CVEventLogger.h"
#include "SmartSync.h"
#include "SyncListenerAddInfo.h"

void DesktopCommands::SyncNow() {
  workers_.Start([this] {
    if (app_.IsSyncStarted()) app_.syncNowCommand();
  });
}

void DesktopCommands::Pause() {
  workers_.Start([this] { app_.pauseSync(); });
}

void DesktopCommands::StartStop() {
  workers_.Start([this] {
    if (!app_.IsSyncStarted()) return;
    if (SyncListenerAddInfo::Instance().Snapshot().currentSyncState != 0) {
      CVEventLogger::WriteMainLogMessage("Stop button pressed");
      app_.ResetSyncTime2();
      if (SmartSync* sync = app_.mainSyncObject()) {
        sync->StopMainSyncThread();
        sync->RunSyncThread();
      }
    } else {
      CVEventLogger::WriteMainLogMessage("Start button pressed");
      if (app_.syncWasPaused) {
        app_.pauseSync();
      } else {
        app_.ResetSyncTime();
        app_.SyncNow();
      }
    }
  });
}

void DesktopCommands::AnswerDeletions(const std::string& storage, bool confirm) {
  workers_.Start([this, storage, confirm] { app_.AnswerHeldDeletions(storage, confirm); });
}
