#pragma once
// SyncControl: the running sync as a settings operation sees it. A change of the
// account, the storage list or the selective sync rules holds the sync still
// while it changes what the sync reads: the watcher and the main loop stop, the
// change is made and saved, then both start again (also when offline) and a pass
// runs. When no client runs (the command line working on the files), FilesOnly
// stands in: there is nothing to stop, and queued local changes live only in
// NewFiles.xml.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class AppDelegate;

class SyncControl {
 public:
  virtual ~SyncControl() = default;

  // Stops the watcher and the main loop, runs the change, starts both again and
  // asks for a pass. Blocks; never on the main thread.
  virtual void Apply(const std::function<void()>& change) = 0;
  // The start that waits for the first sign-in: runs once, later calls do nothing.
  virtual void StartAfterLogin() = 0;
  // Local changes the sync has not sent yet.
  virtual std::size_t PendingLocalChanges() = 0;
  // Re-aims the queued local changes of a storage that takes another name.
  virtual void RenameFilesInQueue(const std::string& oldName, const std::string& newName) = 0;
  // Forgets the queued work of every storage (an account's data is wiped).
  virtual void ForgetQueuedWork() = 0;
  // True while a file operation of the sync runs, so that a change reaches it
  // only when the operation has ended.
  virtual bool IsOperationRunning() = 0;
  virtual bool IsRunningClient() const = 0;

  // The control of the client running in this process.
  static std::unique_ptr<SyncControl> ForApp(AppDelegate& app);
  // No client runs: changes go to the files.
  static std::unique_ptr<SyncControl> FilesOnly();
};
