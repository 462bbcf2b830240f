#include "UploadRequestStore.h"

#include <algorithm>

#include "WireFormats.h"

namespace devserver {

std::vector<UploadRequestRecord> UploadRequestStore::Add(std::vector<UploadRequestRecord> records) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& record : records) {
    record.id = nextId_++;
    records_.push_back(record);
  }
  return records;
}

std::vector<UploadRequestRecord> UploadRequestStore::OwnedBy(const std::string& owner) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<UploadRequestRecord> found;
  for (const auto& r : records_) {
    if (EqualsIgnoreAsciiCase(r.owner, owner)) found.push_back(r);
  }
  return found;
}

std::optional<UploadRequestRecord> UploadRequestStore::FindGuid(const std::string& guid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& r : records_) {
    if (EqualsIgnoreAsciiCase(r.guid, guid)) return r;
  }
  return std::nullopt;
}

std::optional<UploadRequestRecord> UploadRequestStore::FindId(int id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& r : records_) {
    if (r.id == id) return r;
  }
  return std::nullopt;
}

int UploadRequestStore::Remove(const std::string& owner, const std::vector<int>& ids) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto before = records_.size();
  std::erase_if(records_, [&](const UploadRequestRecord& r) {
    return EqualsIgnoreAsciiCase(r.owner, owner) && std::find(ids.begin(), ids.end(), r.id) != ids.end();
  });
  return static_cast<int>(before - records_.size());
}

int UploadRequestStore::Resend(const std::string& owner, const std::vector<int>& ids) {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (auto& r : records_) {
    if (EqualsIgnoreAsciiCase(r.owner, owner) && std::find(ids.begin(), ids.end(), r.id) != ids.end()) {
      ++r.emailsSent;
      ++count;
    }
  }
  return count;
}

}  // namespace devserver
