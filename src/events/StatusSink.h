#pragma once
// StatusSink: what the user sees of the client's state. The desktop build draws
// the tray icon and sends desktop notifications; the headless client writes the
// same states and texts to the console and the main log. Called on the main thread.

#include <string>
#include <vector>

class StatusSink {
 public:
  virtual ~StatusSink() = default;
  // 1 start, 2 in step, 3 a run in progress, 4 offline, 6 ended with errors.
  virtual void SetStatusIcon(int state) = 0;
  virtual void SetTooltip(const std::string& text) = 0;
  virtual void ShowNotification(const std::string& title, const std::string& text) = 0;
  // The "Sync now" entry: hidden while a sync runs or the sync is paused.
  virtual void SetSyncNowHidden(bool hidden) = 0;
  virtual void SetSyncNowTitle(const std::string& title) = 0;
  virtual void SetPauseTitle(const std::string& title) = 0;
  // The storages whose deletions wait for the user's answer (none: nothing
  // waits). The headless client tells them through "status" instead.
  virtual void SetHeldDeletions(const std::vector<std::string>& storages) { (void)storages; }
};
