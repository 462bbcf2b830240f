#include "CVEventLogger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <string_view>
#include <utility>

#include "CVStaticHelpers.h"
#include "LogRedaction.h"

namespace fs = std::filesystem;

namespace {

std::mutex gMainLock;
std::mutex gSettingsLock;
std::mutex gExceptionsLock;
std::mutex gSyncLock;  // the sync and unit test logs share it
std::mutex gConsoleLock;
std::atomic<bool> gConsoleEcho{true};
std::atomic<bool> gEnabled{true};
// The main log lines this thread holds back, if any (see HeldLines).
thread_local std::string* tHeldMainLines = nullptr;

std::string FormatTime(const char* format, bool utc) {
  std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm parts{};
  if (utc) {
    gmtime_r(&now, &parts);
  } else {
    localtime_r(&now, &parts);
  }
  char buffer[64];
  std::size_t length = std::strftime(buffer, sizeof buffer, format, &parts);
  return std::string(buffer, length);
}

std::string LoggerFolder() { return CVStaticHelpers::GenerateSettingsPath() + "/CVLogger"; }

// The file a kind writes to, kept open between lines: a busy sync logs many
// lines a second, and opening the file and checking its folders for each one
// cost more than the line. It is opened again on a new day, in another home,
// when it is full, or when it was removed under us. Guarded by the kind's lock.
struct OpenLog {
  std::string folder;  // the day folder the file lies in
  int fd = -1;
  std::int64_t size = 0;

  void Close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  bool Usable(const std::string& dayFolder) {
    if (fd < 0 || folder != dayFolder || size >= CVEventLogger::kMaxLogFileSize) return false;
    struct stat info {};
    return ::fstat(fd, &info) == 0 && info.st_nlink > 0;
  }
  void Open(const std::string& kindFolder, const std::string& dayFolder) {
    Close();
    std::string file = CVEventLogger::GetCorrectFileName(kindFolder);
    if (file.empty()) return;
    fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    struct stat info {};
    if (fd < 0 || ::fchmod(fd, 0600) != 0 || ::fstat(fd, &info) != 0) {
      Close();
      return;
    }
    folder = dayFolder;
    size = info.st_size;
  }
};

// Lines as they stand in the file: "\n[<date>]: <message>" each.
void WriteLinesLocked(OpenLog& open, const std::string& kindFolder, const std::string& lines) {
  if (!gEnabled) return;
  const std::string dayFolder = LoggerFolder() + kindFolder + "/" + CVEventLogger::DayText();
  if (!open.Usable(dayFolder)) open.Open(kindFolder, dayFolder);
  if (open.fd < 0) return;
  std::string_view rest(lines);
  while (!rest.empty()) {
    ssize_t written = ::write(open.fd, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    rest.remove_prefix(static_cast<std::size_t>(written));
    open.size += written;
  }
}

void WriteLocked(std::mutex& lock, OpenLog& open, const std::string& kindFolder, const std::string& text,
                 std::string* held = nullptr) {
  if (!gEnabled) return;
  try {
    const std::string message = LogRedaction::Redacted(text);
    std::lock_guard<std::mutex> guard(lock);
    if (gConsoleEcho) {
      std::lock_guard<std::mutex> console(gConsoleLock);
      std::cerr << message << '\n';
    }
    const std::string line = "\n[" + CVEventLogger::DateText() + "]: " + message;
    if (held) {
      *held += line;
      return;
    }
    WriteLinesLocked(open, kindFolder, line);
  } catch (...) {
    // A log line that cannot be written is dropped; logging never stops the caller.
  }
}

OpenLog gMainFile;
OpenLog gSettingsFile;
OpenLog gExceptionsFile;
OpenLog gSyncFile;
OpenLog gUnitTestFile;

}  // namespace

std::string CVEventLogger::DayText() { return FormatTime("%Y-%m-%d", false); }
std::string CVEventLogger::DateText() { return FormatTime("%Y-%m-%d %H:%M:%S +0000", true); }

void CVEventLogger::SetConsoleEcho(bool on) { gConsoleEcho = on; }
void CVEventLogger::SetEnabled(bool on) { gEnabled = on; }

std::string CVEventLogger::GetCorrectFileName(const std::string& kindFolder) {
  std::string day = CVEventLogger::DayText();
  fs::path folder = fs::path(LoggerFolder() + kindFolder) / day;
  std::error_code error;
  CVStaticHelpers::CreateSettingsFolder();
  fs::create_directories(folder, error);
  std::string candidate;
  for (int n = 1; n <= 999; ++n) {
    candidate = (folder / ("LOG " + day + "_" + std::to_string(n) + ".txt")).string();
    struct stat info {};
    if (stat(candidate.c_str(), &info) != 0) {
      if (errno == ENOENT) return candidate;
      return "";
    }
    if (info.st_size < kMaxLogFileSize) return candidate;
  }
  return candidate;  // past 999 the last name is used even when full
}

void CVEventLogger::CommonLogWriting(const std::string& text, const std::string& logName) {
  if (!gEnabled) return;
  try {
    const std::string message = LogRedaction::Redacted(text);
    if (gConsoleEcho) {
      std::lock_guard<std::mutex> guard(gConsoleLock);
      std::cerr << message << '\n';
    }
    if (logName.empty()) return;
    std::string line = "\n[" + DateText() + "]: " + message;
    std::FILE* file = std::fopen(logName.c_str(), "ab");
    if (!file) return;
    fchmod(fileno(file), 0600);
    std::fwrite(line.data(), 1, line.size(), file);
    std::fclose(file);
  } catch (...) {
    // A log line that cannot be written is dropped; logging never stops the caller.
  }
}

void CVEventLogger::WriteMainLogMessage(const std::string& message) {
  WriteLocked(gMainLock, gMainFile, "/CVMainLogs", message, tHeldMainLines);
}

CVEventLogger::HeldLines::HeldLines() {
  if (!tHeldMainLines) {
    tHeldMainLines = &lines_;
  } else {
    holding_ = false;  // an outer one holds already
  }
}

CVEventLogger::HeldLines::~HeldLines() {
  if (holding_) tHeldMainLines = nullptr;
}

void CVEventLogger::HeldLines::Keep() {
  if (!holding_) return;
  holding_ = false;
  KeepHeldLines();
}

void CVEventLogger::KeepHeldLines() {
  std::string* held = std::exchange(tHeldMainLines, nullptr);
  if (!held) return;
  try {
    std::lock_guard<std::mutex> guard(gMainLock);
    WriteLinesLocked(gMainFile, "/CVMainLogs", *held);
  } catch (...) {
  }
  held->clear();
}
void CVEventLogger::WriteSettingsLogMessage(const std::string& message) {
  WriteLocked(gSettingsLock, gSettingsFile, "/CVSettingsLogs", message);
}
void CVEventLogger::WriteExceptionsLog(const std::string& message) {
  WriteLocked(gExceptionsLock, gExceptionsFile, "/CVExceptionLogs", message);
}
void CVEventLogger::WriteSyncMessage(const std::string& message) {
  WriteLocked(gSyncLock, gSyncFile, "/CVSyncLogs", message);
}
void CVEventLogger::WriteUnitTestMessage(const std::string& message) {
  WriteLocked(gSyncLock, gUnitTestFile, "/CVUnitTest", message);
}
void CVEventLogger::WriteMainLogMessageDebug(const std::string&) {}

void CVEventLogger::WriteFSWMark() {
  if (!gEnabled) return;
  try {
    std::string file = GetCorrectFileName("/CVMainLogs");
    if (file.empty()) return;
    std::ofstream out(file, std::ios::app | std::ios::binary);
    out << "\n--------------------------------------";
  } catch (...) {
  }
}

void CVEventLogger::WriteTestMessage(const std::string& message, const std::string& kindFolder) {
  CommonLogWriting(message, GetCorrectFileName(kindFolder));
}

void CVEventLogger::killMyLock() {
  // The locks are plain process-lifetime mutexes: nothing to release before exit.
}

void CVEventLogger::LogException(const std::string& className, const std::string& method,
                                 const std::string& description) {
  WriteExceptionsLog(className + " - " + method + " -|*Exception: " + description);
}

void CVEventLogger::LogMethodRun(const std::string& className, const std::string& method) {
  WriteMainLogMessage(className + " - " + method + " -> MethodRun!");
}

void CVEventLogger::LogMethodEnd(const std::string& className, const std::string& method) {
  WriteMainLogMessage(className + " - " + method + " -> MethodEnd!");
}

void CVEventLogger::DeleteOldLogFolders(int maxAgeDays) {
  std::error_code error;
  fs::path root(LoggerFolder());
  if (!fs::is_directory(root, error)) return;
  std::time_t cutoff = std::time(nullptr) - static_cast<std::time_t>(maxAgeDays) * 86400;
  for (const auto& kind : fs::directory_iterator(root, error)) {
    if (!kind.is_directory(error)) continue;
    for (const auto& day : fs::directory_iterator(kind.path(), error)) {
      // Day folders are named yyyy-MM-dd; anything else is not ours to remove.
      std::string name = day.path().filename().string();
      std::tm parts{};
      if (name.size() != 10 || !strptime(name.c_str(), "%Y-%m-%d", &parts)) continue;
      parts.tm_isdst = -1;
      std::time_t dayTime = std::mktime(&parts);
      if (dayTime != -1 && dayTime < cutoff) fs::remove_all(day.path(), error);
    }
  }
}
