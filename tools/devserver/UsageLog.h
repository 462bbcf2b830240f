#pragma once
// UsageLog: what each user did through the server (uploads, downloads, renames,
// deletions, new folders, restored versions), as the router saw the calls
// succeed; the usage history pages are read from it and the share store.
// In memory for the server's run, the newest kLimit only. Thread-safe.

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace devserver {

struct UsageRecord {
  std::string user;     // as configured
  std::string action;   // "Uploaded", "Downloaded", ...
  std::string fileUrl;  // the full server path the client sent
  std::string subject;  // a rename's earlier path; "" otherwise
  std::chrono::system_clock::time_point at;
};

class UsageLog {
 public:
  void Note(UsageRecord record);
  // The user's records (names compared without case), oldest first.
  std::vector<UsageRecord> Of(const std::string& user) const;

  static constexpr std::size_t kLimit = 10000;

 private:
  mutable std::mutex mutex_;
  std::deque<UsageRecord> records_;
};

}  // namespace devserver
