#include "ShareStore.h"

#include <algorithm>

#include "WireFormats.h"

namespace devserver {

std::vector<ShareRecord> ShareStore::Add(std::vector<ShareRecord> records, const std::string& linkBase) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& record : records) {
    record.id = nextId_++;
    record.link = linkBase + std::to_string(record.id);
    records_.push_back(record);
  }
  return records;
}

std::vector<ShareRecord> ShareStore::OwnedBy(const std::string& owner, ShareClock::time_point now) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ShareRecord> found;
  for (const auto& r : records_) {
    if (EqualsIgnoreAsciiCase(r.owner, owner) && (!r.expiry || *r.expiry > now)) found.push_back(r);
  }
  return found;
}

std::vector<ShareRecord> ShareStore::SharedWith(const std::string& user, ShareClock::time_point now) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ShareRecord> found;
  for (const auto& r : records_) {
    if (!r.external && EqualsIgnoreAsciiCase(r.recipientUser, user) && (!r.expiry || *r.expiry > now)) {
      found.push_back(r);
    }
  }
  return found;
}

std::vector<ShareRecord> ShareStore::All() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

template <typename Match, typename Change>
int ShareStore::Update(const std::string& owner, Match match, Change change) {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (auto& r : records_) {
    if (EqualsIgnoreAsciiCase(r.owner, owner) && match(r)) {
      change(r);
      ++count;
    }
  }
  return count;
}

namespace {
auto InIds(const std::vector<int>& ids) {
  return [&ids](const ShareRecord& r) { return std::find(ids.begin(), ids.end(), r.id) != ids.end(); };
}
auto InGroup(const std::string& group) {
  return [&group](const ShareRecord& r) { return EqualsIgnoreAsciiCase(r.group, group); };
}
}  // namespace

template <typename Match>
int ShareStore::Erase(const std::string& owner, Match match) {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(std::erase_if(
      records_, [&](const ShareRecord& r) { return EqualsIgnoreAsciiCase(r.owner, owner) && match(r); }));
}

int ShareStore::Remove(const std::string& owner, const std::vector<int>& ids) { return Erase(owner, InIds(ids)); }

int ShareStore::RemoveGroup(const std::string& owner, const std::string& group) {
  return Erase(owner, InGroup(group));
}

int ShareStore::Extend(const std::string& owner, const std::vector<int>& ids,
                       std::optional<ShareClock::time_point> expiry) {
  return Update(owner, InIds(ids), [&](ShareRecord& r) { r.expiry = expiry; });
}

int ShareStore::ExtendGroup(const std::string& owner, const std::string& group,
                            std::optional<ShareClock::time_point> expiry) {
  return Update(owner, InGroup(group), [&](ShareRecord& r) { r.expiry = expiry; });
}

int ShareStore::Resend(const std::string& owner, const std::vector<int>& ids) {
  return Update(owner, InIds(ids), [](ShareRecord& r) { ++r.emailsSent; });
}

}  // namespace devserver
