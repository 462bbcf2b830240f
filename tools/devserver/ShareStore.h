#pragma once
// ShareStore: the shares the server keeps, in memory for its run: one record per
// shared item and recipient, with an id, the group id of the call that made it,
// its expiry and the e-mails sent for it. Thread-safe.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

using ShareClock = std::chrono::system_clock;

struct ShareRecord {
  int id = 0;
  std::string group;  // the GUID of the call that made it
  std::string owner;  // user name as configured
  std::string location;  // the item's full server path, in its storage's spelling
  std::string fileName;
  std::int64_t size = 0;
  std::int64_t modified = 0;  // seconds since 1970
  bool isFolder = false;
  std::string recipientName, recipientEmail, recipientMobile;
  std::string recipientUser;  // the user an internal share goes to; "" for an external one
  bool external = false;
  std::optional<ShareClock::time_point> expiry;  // none: never expires
  bool viewOnly = false, otp = false, notifyAll = false;
  std::string message;
  ShareClock::time_point sharedAt;
  int emailsSent = 1;
  std::string link;
};

class ShareStore {
 public:
  // Gives each record the next id and its link under linkBase; returns the records as kept.
  std::vector<ShareRecord> Add(std::vector<ShareRecord> records, const std::string& linkBase);
  // Shares the owner made, or that were made to the user, that have not expired.
  std::vector<ShareRecord> OwnedBy(const std::string& owner, ShareClock::time_point now) const;
  std::vector<ShareRecord> SharedWith(const std::string& user, ShareClock::time_point now) const;
  std::vector<ShareRecord> All() const;

  // Each changes the owner's shares among ids (or of group) and counts them.
  int Remove(const std::string& owner, const std::vector<int>& ids);
  int RemoveGroup(const std::string& owner, const std::string& group);
  int Extend(const std::string& owner, const std::vector<int>& ids, std::optional<ShareClock::time_point> expiry);
  int ExtendGroup(const std::string& owner, const std::string& group, std::optional<ShareClock::time_point> expiry);
  int Resend(const std::string& owner, const std::vector<int>& ids);

 private:
  template <typename Match, typename Change>
  int Update(const std::string& owner, Match match, Change change);
  template <typename Match>
  int Erase(const std::string& owner, Match match);

  mutable std::mutex mutex_;
  std::vector<ShareRecord> records_;
  int nextId_ = 1;
};

}  // namespace devserver
