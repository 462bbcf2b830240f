#include "VersionWindowController.h"

#include <ctime>
#include <filesystem>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "MyParser.h"
#include "ShareReplyParsers.h"

VersionWindowController::VersionWindowController(VersionService& service, Post toMain, std::string localPath)
    : service_(service), storedLocalFilePath_(std::move(localPath)), worker_(std::move(toMain), "Versions") {
  std::string serverPath = CVStaticHelpers::serverPathFromLocalPath(storedLocalFilePath_);
  if (!serverPath.empty()) {
    file_ = FileOnServer{CVStaticHelpers::GetSiteNameForLocalPath(storedLocalFilePath_), std::move(serverPath)};
  }
}

VersionWindowController::~VersionWindowController() { worker_.Stop(); }

bool VersionWindowController::GetVersionsForFile() {
  std::vector<StorageVersionInfo> found;
  bool read = false;
  if (file_) {
    if (auto reply = service_.GetVersions(*file_)) {
      StorageVersionInfoArray parsed(*reply);
      read = !parsed.error();
      found = std::move(parsed).GetVersionCollection();
      // A reply without records may be a refusal: its result text says which.
      if (found.empty() && read) {
        std::string result = MyParser::GetParsedStringForNode("GetVersionsResult", *reply);
        read = result.empty() || result.starts_with("0;");
        if (!read) CVEventLogger::WriteMainLogMessage("Versions - GetVersionsForFile -> " + result);
      }
    }
  }
  std::lock_guard<std::recursive_mutex> lock(versionsWindowLock);
  versionsArray = std::move(found);
  return read;
}

std::string VersionWindowController::RestoreVersion(const std::string& version) {
  if (!file_) return kNotInStorage;
  const std::string answer = service_.SwitchToVersion(*file_, version);
  CVEventLogger::WriteMainLogMessage("Versions - RestoreVersion -> " + file_->serverPath + ", version " + version +
                                     ": " + answer);
  if (answer == "2") return kVersionNotFound;
  if (answer.starts_with("0;")) return "";
  return kRestoreError;
}

std::string VersionWindowController::DownloadFile(const StorageVersionInfo& version, const std::string& target,
                                                  const std::function<void(std::int64_t)>& progress) {
  if (!file_) return kNotInStorage;
  // The listed size is checked only when the server gave one.
  const std::int64_t size = version.Size > 0 ? version.Size : -1;
  return service_.DownloadFileVersionToPath(target, version.Version, *file_, size, progress) ? "" : kSaveFailed;
}

std::string VersionWindowController::SavedText(const std::string& version, const std::string& target) {
  return "Version " + version + " was saved to " + target + ".";
}

bool VersionWindowController::IsInsideStorage(const std::string& target) {
  return !CVStaticHelpers::serverPathFromLocalPath(target).empty();
}

std::string VersionWindowController::DateText(const WSDate& date) {
  if (!date) return "";
  std::time_t seconds = std::chrono::system_clock::to_time_t(*date);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
  return text;
}

// --- The window's side ---

std::vector<VersionWindowController::Row> VersionWindowController::Rows() const {
  std::vector<Row> rows;
  for (const auto& version : versions()) {
    rows.push_back({version.Version, DateText(version.Created), version.Owner,
                    CVStaticHelpers::ConvertBytesToReadableFromat(version.Size)});
  }
  return rows;
}

std::vector<StorageVersionInfo> VersionWindowController::versions() const {
  std::lock_guard<std::recursive_mutex> lock(versionsWindowLock);
  return versionsArray;
}

std::optional<StorageVersionInfo> VersionWindowController::VersionAt(std::optional<std::size_t> row) const {
  std::lock_guard<std::recursive_mutex> lock(versionsWindowLock);
  if (!row || *row >= versionsArray.size()) return std::nullopt;
  return versionsArray[*row];
}

void VersionWindowController::windowDidLoad() {
  inProgress = true;
  Changed();
  worker_.Run([this]() -> std::function<void()> {
    const bool read = GetVersionsForFile();
    return [this, read] {
      inProgress = false;
      Changed();
      if (!read && onMessage) onMessage(file_ ? kListFailed : kNotInStorage);
    };
  });
}

void VersionWindowController::restoreButtonClick(std::optional<std::size_t> selectedRow) {
  auto version = VersionAt(selectedRow);
  if (!version || inProgress) return;
  inProgress = true;
  Changed();
  worker_.Run([this, number = version->Version]() -> std::function<void()> {
    std::string message = RestoreVersion(number);
    // A refused restore changes nothing, but the list may have changed meanwhile.
    const bool restored = message.empty();
    GetVersionsForFile();
    return [this, message, restored] {
      inProgress = false;
      Changed();
      if (restored && onRestored && file_) onRestored(file_->siteName);
      if (!message.empty() && onMessage) onMessage(message);
    };
  });
}

void VersionWindowController::downloadButtonClick(std::optional<std::size_t> selectedRow, const std::string& target) {
  auto version = VersionAt(selectedRow);
  if (!version || inProgress || target.empty()) return;
  inProgress = true;
  Changed();
  worker_.Run([this, version = *version, target]() -> std::function<void()> {
    std::string message = DownloadFile(version, target, [this, total = version.Size](std::int64_t received) {
      worker_.ToMain([this, received, total] {
        if (onProgress) onProgress(received, total);
      });
    });
    return [this, message = message.empty() ? SavedText(version.Version, target) : message] {
      inProgress = false;
      Changed();
      if (onMessage) onMessage(message);
    };
  });
}

void VersionWindowController::Changed() {
  if (onChange) onChange();
}
