#include "NotificationWindowController.h"

#include <cstdio>
#include <ctime>
#include <exception>
#include <utility>

#include "CVEventLogger.h"

NotificationWindowController::NotificationWindowController(ActivityService& service, Post toMain)
    : service_(service), worker_(std::move(toMain)) {}

std::string NotificationWindowController::DateText(const WSDate& date) {
  if (!date) return "";
  // The month by name in English whatever the locale, as the column always shows it.
  static const char* const kMonths[] = {"January", "February", "March",     "April",   "May",      "June",
                                        "July",    "August",   "September", "October", "November", "December"};
  const std::time_t seconds = std::chrono::system_clock::to_time_t(*date);
  std::tm local{};
  if (!localtime_r(&seconds, &local)) return "";
  char clock[16];
  std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
  char day[4];
  std::snprintf(day, sizeof day, "%02d", local.tm_mday);
  return std::to_string(local.tm_year + 1900) + " " + kMonths[local.tm_mon] + " " + day + " " + clock;
}

std::vector<NotificationWindowController::Row> NotificationWindowController::RowsOf(
    const std::vector<WSUsageHistory>& list) {
  std::vector<Row> rows;
  rows.reserve(list.size());
  for (const auto& record : list) rows.push_back({record.Action, DateText(record.Date), record.FileURL});
  return rows;
}

std::optional<std::vector<WSUsageHistory>> NotificationWindowController::GetUsageHistory(long pageNum) {
  std::optional<std::vector<WSUsageHistory>> page;
  try {
    page = service_.GetUsageHistory(pageNum);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException("NotificationWindowController", "GetUsageHistory", failure.what());
  }
  if (!page) {
    CVEventLogger::WriteMainLogMessage("NotificationWindowController - GetUsageHistory -> no answer for page " +
                                       std::to_string(pageNum));
  }
  return page;
}

std::vector<WSUsageHistory> NotificationWindowController::GetLocalUpdates() {
  std::vector<WSUsageHistory> rows;
  std::optional<std::vector<CVFileForCompare>> records;
  try {
    records = service_.readDownloadedFiles();
  } catch (const std::exception& failure) {
    CVEventLogger::LogException("NotificationWindowController", "GetLocalUpdates", failure.what());
  }
  for (const auto& record : records.value_or(std::vector<CVFileForCompare>{})) {
    if (record.brokeDownload || record.fileStatus == -1) continue;
    WSUsageHistory row;
    row.Action = record.fileStatus == 0 ? kCreated : kUpdated;
    if (record.statusChangeTime != 0) {
      row.Date = std::chrono::sys_time<std::chrono::milliseconds>(std::chrono::seconds(record.statusChangeTime));
    }
    row.FileURL = record.localPath;
    rows.push_back(std::move(row));
  }
  return rows;
}

// --- The window's side ---

void NotificationWindowController::Changed() {
  if (onChange) onChange();
}

void NotificationWindowController::windowDidLoad() { UpdateUsageHistoryInformation(); }

void NotificationWindowController::SelectTab(const std::string& identifier) {
  if (identifier == "1") UpdateUsageHistoryInformation();
  if (identifier == "2") UpdateLocalHistoryInformation();
}

void NotificationWindowController::UpdateUsageHistoryInformation() {
  if (!inProgressNow) StartUsageHistory();
}

void NotificationWindowController::UpdateLocalHistoryInformation() {
  if (!inProgressNowLocal) StartLocalUpdates({});
}

void NotificationWindowController::PrevPage() {
  if (inProgressNow || uHistPageNumber_ == 0) return;
  uHistArray_.clear();
  --uHistPageNumber_;
  StartUsageHistory();
}

void NotificationWindowController::NextPage() {
  if (inProgressNow) return;
  uHistArray_.clear();
  ++uHistPageNumber_;
  StartUsageHistory();
}

void NotificationWindowController::RowDoubleClicked(std::size_t row) {
  if (row >= localUpdatesArray_.size()) return;
  // The mark and the read that follows it run in one job: no pause for the file to settle.
  StartLocalUpdates([this, url = localUpdatesArray_[row].FileURL] {
    if (!service_.SetNothingStatusForFile(url)) {
      CVEventLogger::WriteMainLogMessage("NotificationWindowController - RowDoubleClicked -> not marked " + url);
    }
  });
}

void NotificationWindowController::StartUsageHistory() {
  inProgressNow = true;
  Changed();
  const long page = uHistPageNumber_;
  worker_.Run([this, page]() -> std::function<void()> {
    auto records = GetUsageHistory(page);
    return [this, records = std::move(records)]() mutable {
      uHistArray_ = records.value_or(std::vector<WSUsageHistory>{});
      usageError_ = records ? "" : kNoConnection;
      inProgressNow = false;
      Changed();
    };
  });
}

void NotificationWindowController::StartLocalUpdates(std::function<void()> before) {
  inProgressNowLocal = true;
  const std::uint64_t generation = ++localGeneration_;
  Changed();
  worker_.Run([this, generation, before = std::move(before)]() -> std::function<void()> {
    if (before) before();
    auto rows = GetLocalUpdates();
    return [this, generation, rows = std::move(rows)]() mutable {
      if (generation != localGeneration_) return;  // a newer read is on its way
      localUpdatesArray_ = std::move(rows);
      inProgressNowLocal = false;
      Changed();
    };
  });
}
