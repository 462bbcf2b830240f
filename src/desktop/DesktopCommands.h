#pragma once
// DesktopCommands: what the tray's entries and the sync manager's button do to
// the sync. Each runs on a worker: stopping a pass waits for it, and the main
// thread never waits on the sync.

#include <string>

#include "WorkerThreads.h"

class AppDelegate;

class DesktopCommands {
 public:
  explicit DesktopCommands(AppDelegate& app) : app_(app) {}
  ~DesktopCommands() { workers_.JoinAll(); }

  void SyncNow();
  void Pause();
  // The sync manager's start and stop button: a running pass is stopped and the
  // loop started again, so no storage is due for a whole interval; otherwise a
  // paused sync resumes, or a pass starts now.
  void StartStop();
  // The user's answer to the deletions held in a storage.
  void AnswerDeletions(const std::string& storage, bool confirm);

 private:
  AppDelegate& app_;
  WorkerThreads workers_;
};
