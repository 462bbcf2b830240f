#pragma once
// NotificationWindowController: the activity window's workflow without any
// widget. Two lists: the account's usage history, one server page at a time
// from page 0, and the local updates, the records of the last sync that the
// user has not seen yet. Lives on the main thread, which alone touches the
// lists and flags; the server call and the record file are read on workers,
// whose results come back through the main-thread hop it is given. The
// synchronous steps (GetUsageHistory, GetLocalUpdates) are public for callers
// that are workers already, such as the terminal command.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ActivityService.h"
#include "WindowWorker.h"

class NotificationWindowController {
 public:
  using Post = WindowWorker::Post;

  static constexpr const char* kCreated = "Created";
  static constexpr const char* kUpdated = "Updated";
  static constexpr const char* kNoConnection = "The usage history could not be read from the server.";

  // A row of either list, by column: "actioncolumn", "datecolumn" and
  // "fileurlcolumn" of the usage history; "filestatus", "statusdate" and
  // "filepath" of the local updates.
  struct Row {
    std::string action, date, fileURL;
  };

  NotificationWindowController(ActivityService& service, Post toMain);

  // --- The window's side; main thread ---

  // Starts reading the usage history's page 0.
  void windowDidLoad();
  // Tab "1" reads the usage history again, "2" the local updates.
  void SelectTab(const std::string& identifier);
  // Each starts its worker unless one for its list runs.
  void UpdateUsageHistoryInformation();
  void UpdateLocalHistoryInformation();
  // Nothing while a page is read, or at page 0 for PrevPage; no upper limit.
  void PrevPage();
  void NextPage();
  // Marks the local row as seen and reads the local list again, on a worker.
  void RowDoubleClicked(std::size_t row);

  const std::vector<WSUsageHistory>& uHistArray() const { return uHistArray_; }
  const std::vector<WSUsageHistory>& localUpdatesArray() const { return localUpdatesArray_; }
  std::vector<Row> UsageRows() const { return RowsOf(uHistArray_); }
  std::vector<Row> LocalRows() const { return RowsOf(localUpdatesArray_); }
  long uHistPageNumber() const { return uHistPageNumber_; }
  // The page number as shown, "%d".
  std::string PageText() const { return std::to_string(uHistPageNumber_); }
  bool nextEnabled() const { return !uHistArray_.empty(); }
  bool prevEnabled() const { return uHistPageNumber_ != 0; }
  // Why the last page is empty when the server could not be asked; "" otherwise.
  const std::string& usageError() const { return usageError_; }

  bool inProgressNow = false;
  bool inProgressNowLocal = false;
  std::function<void()> onChange;  // a list, the page or a flag changed

  // --- The steps, on the calling thread ---

  // The page from the server; nothing when it could not be asked.
  std::optional<std::vector<WSUsageHistory>> GetUsageHistory(long pageNum);
  // The unseen records as rows: "Created" for status 0, "Updated" for any other;
  // broken downloads and records marked seen (-1) are left out.
  std::vector<WSUsageHistory> GetLocalUpdates();
  // "yyyy MMMM dd HH:mm:ss" in local time, English month names; "" for no date.
  static std::string DateText(const WSDate& date);
  static std::vector<Row> RowsOf(const std::vector<WSUsageHistory>& list);

 private:
  void StartUsageHistory();
  // Reads the local list after before (a mark, or nothing) on a worker; only
  // the newest of overlapping reads is shown.
  void StartLocalUpdates(std::function<void()> before);
  void Changed();

  ActivityService& service_;
  std::vector<WSUsageHistory> uHistArray_;
  std::vector<WSUsageHistory> localUpdatesArray_;
  long uHistPageNumber_ = 0;
  std::string usageError_;
  std::uint64_t localGeneration_ = 0;
  WindowWorker worker_;  // last: joined before the rest goes away
};
