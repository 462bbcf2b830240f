#pragma once
// VersionWindowController: the workflow of the version window for one file of a
// storage, without any widget: the versions the server keeps (number, date,
// author, size), a restore of one of them on the server, and a save of one to a
// place the user picks. Lives on the main thread; the server calls run on
// workers, whose results come back through the main-thread hop it is given.
// The synchronous steps (GetVersionsForFile, RestoreVersion, DownloadFile) are
// public for callers that are workers already, such as the terminal command.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ShareRecords.h"
#include "VersionService.h"
#include "WindowWorker.h"

class VersionWindowController {
 public:
  using Post = std::function<void(std::function<void()>)>;

  static constexpr const char* kVersionNotFound = "Version not found.";
  static constexpr const char* kRestoreError = "Error occured, please try again later.";
  static constexpr const char* kNotInStorage = "This file is not in a synced storage.";
  static constexpr const char* kListFailed = "The versions of this file could not be read from the server.";
  static constexpr const char* kSaveFailed = "The version could not be saved; nothing was changed at the chosen place.";

  // One row of the table, by column: "vernumberColumn", "modifiedColumn",
  // "modifiedbyColumn", "sizeColumn".
  struct Row {
    std::string version, modified, modifiedBy, size;
  };

  VersionWindowController(VersionService& service, Post toMain, std::string localPath);
  ~VersionWindowController();

  // --- The window's side; main thread ---

  // Starts GetVersionsForFile on a worker.
  void windowDidLoad();
  // Restores the selected row's version on a worker; nothing without a selection.
  void restoreButtonClick(std::optional<std::size_t> selectedRow);
  // Saves the selected row's version to target on a worker.
  void downloadButtonClick(std::optional<std::size_t> selectedRow, const std::string& target);
  // The table under versionsWindowLock.
  std::vector<Row> Rows() const;
  std::vector<StorageVersionInfo> versions() const;

  bool inProgress = false;       // the spinner; the buttons are off while it runs
  std::function<void()> onChange;                        // the table or the state changed
  std::function<void(const std::string&)> onMessage;     // a message box
  // Bytes so far and the version's size, for the amount indicator.
  std::function<void(std::int64_t, std::int64_t)> onProgress;
  // The server's file changed: the storage should be listed again soon.
  std::function<void(const std::string& siteName)> onRestored;

  // --- The steps ---

  // The file's storage and server path; nothing for a file outside the storages.
  const std::optional<FileOnServer>& file() const { return file_; }
  const std::string& storedLocalFilePath() const { return storedLocalFilePath_; }
  // Replaces versionsArray with the server's list; false (and an empty list)
  // when no list could be read.
  bool GetVersionsForFile();
  // The message for the answer of SwitchToVersion: "" when the version is the
  // file's content now.
  std::string RestoreVersion(const std::string& version);
  // "" when the version is at target; the message otherwise.
  std::string DownloadFile(const StorageVersionInfo& version, const std::string& target,
                           const std::function<void(std::int64_t)>& progress = {});
  // "Version N was saved to TARGET."
  static std::string SavedText(const std::string& version, const std::string& target);
  // A target inside a storage is uploaded as a new file by the next sync.
  static bool IsInsideStorage(const std::string& target);
  // "yyyy-MM-dd HH:mm" in local time; "" for no date.
  static std::string DateText(const WSDate& date);

 private:
  std::optional<StorageVersionInfo> VersionAt(std::optional<std::size_t> row) const;
  void Changed();

  VersionService& service_;
  std::string storedLocalFilePath_;
  std::optional<FileOnServer> file_;
  mutable std::recursive_mutex versionsWindowLock;
  std::vector<StorageVersionInfo> versionsArray;
  WindowWorker worker_;  // last: stopped and joined before the rest goes away
};
