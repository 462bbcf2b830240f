#include "UsageLog.h"

#include "WireFormats.h"

namespace devserver {

void UsageLog::Note(UsageRecord record) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.push_back(std::move(record));
  if (records_.size() > kLimit) records_.pop_front();
}

std::vector<UsageRecord> UsageLog::Of(const std::string& user) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<UsageRecord> found;
  for (const auto& record : records_) {
    if (EqualsIgnoreAsciiCase(record.user, user)) found.push_back(record);
  }
  return found;
}

}  // namespace devserver
