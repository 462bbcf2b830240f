#pragma once
// CVEventLogger: the dated text logs under ".Settings/CVLogger", one folder per
// kind, one folder per day, files rotated at 5 MiB. Any thread may log; each kind
// has its own lock (the sync and unit test logs share one). Logging never throws.

#include <cstdint>
#include <string>

class CVEventLogger {
 public:
  static constexpr std::int64_t kMaxLogFileSize = 5242880;  // 0x500000

  static void WriteMainLogMessage(const std::string& message);
  static void WriteSettingsLogMessage(const std::string& message);
  static void WriteExceptionsLog(const std::string& message);
  static void WriteSyncMessage(const std::string& message);
  static void WriteUnitTestMessage(const std::string& message);
  // Kept for callers that log only while debugging: writes nothing.
  static void WriteMainLogMessageDebug(const std::string& message);
  // A separator line in the main log, without time stamp or lock.
  static void WriteFSWMark();
  // Writes to the given kind folder ("/CVSyncLogs"...) without a lock.
  static void WriteTestMessage(const std::string& message, const std::string& kindFolder);

  // The file to write for a kind folder; "" when a full file's size cannot be read.
  static std::string GetCorrectFileName(const std::string& kindFolder);
  // Writes one line "\n[<date>]: <message>" to logName (and the console).
  static void CommonLogWriting(const std::string& message, const std::string& logName);
  // Called at the end of the run; the locks live as long as the process.
  static void killMyLock();

  // "%@ - %@ -|*Exception: %@" to the exceptions log.
  static void LogException(const std::string& className, const std::string& method,
                           const std::string& description);
  // "%@ - %@ -> MethodRun!" / "MethodEnd!" to the main log.
  static void LogMethodRun(const std::string& className, const std::string& method);
  static void LogMethodEnd(const std::string& className, const std::string& method);

  // Day folders older than maxAgeDays are removed at start, so logs do not grow for ever.
  static void DeleteOldLogFolders(int maxAgeDays = 30);

  // Whether each line is also printed to the console (standard error). On by default.
  static void SetConsoleEcho(bool on);
  // Off: no line is written anywhere, files or console. For programs that run
  // the parsers millions of times (the fuzzing targets); on by default.
  static void SetEnabled(bool on);

  // The date of a log line: "2026-11-23 01:42:38 +0000".
  static std::string DateText();
  // Today in local time, "2026-11-23": the name of the day's log folder.
  static std::string DayText();

  // The main log lines of a routine job (a pass of the scheduler) written on this
  // thread while one lives are held back, and dropped at its end unless Keep() was
  // called: a pass that finds everything in step leaves the log as it was.
  class HeldLines {
   public:
    HeldLines();
    ~HeldLines();
    HeldLines(const HeldLines&) = delete;
    HeldLines& operator=(const HeldLines&) = delete;
    // Writes what was held and every later line of the job at once.
    void Keep();

   private:
    std::string lines_;
    bool holding_ = true;
  };
  // Keep() of the job that holds this thread's lines, for code deeper down that
  // finds the job is news after all; nothing when no job holds them.
  static void KeepHeldLines();
};
