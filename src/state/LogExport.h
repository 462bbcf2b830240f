#pragma once
// LogExport: the logs of CVLogger packed into one zip file for support, as the
// info tab's export and `corvalink-sync export-logs` make it. Each ".txt" file
// below the logger folder goes in as "CVLogs/" and its path below that folder,
// at compression level 9, dated with the file's time, with passwords and tokens
// masked (also in lines an earlier version wrote). The archive is written under
// a temporary name beside the target and renamed over it: a second export of
// the day replaces the first, and a failed one leaves it as it was.

#include <string>

class LogExport {
 public:
  static constexpr const char* kSaved = "Logs files were saved to Downloads folder";
  static constexpr const char* kFileNameText = "File name: %@";
  static constexpr const char* kButton = "Ok";

  // "Corvalink_macOS_app_logs-<yyyy-MM-dd>.zip" with today's local date.
  static std::string ArchiveName();

  struct Result {
    bool saved = false;
    std::string path;     // the archive's full path
    int files = 0;        // log files packed
    std::string problem;  // why nothing was saved
  };
  // destination: a folder (the archive gets its usual name there) or a file
  // name; "" is the user's download folder.
  static Result sendLogs(const std::string& destination = "");
  // The text of the message that tells where the archive went.
  static std::string SavedText(const Result& result);
};
