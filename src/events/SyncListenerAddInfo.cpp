#include "SyncListenerAddInfo.h"

#include <memory>

namespace {
std::unique_ptr<SyncListenerAddInfo>& Slot() {
  static std::unique_ptr<SyncListenerAddInfo> instance;
  return instance;
}
std::mutex gSlotLock;
}  // namespace

void SyncListenerAddInfo::CreateStaticInstance() {
  std::lock_guard<std::mutex> lock(gSlotLock);
  if (!Slot()) Slot() = std::make_unique<SyncListenerAddInfo>();
}

SyncListenerAddInfo& SyncListenerAddInfo::Instance() {
  std::lock_guard<std::mutex> lock(gSlotLock);
  if (!Slot()) Slot() = std::make_unique<SyncListenerAddInfo>();
  return *Slot();
}

void SyncListenerAddInfo::ResetForTests() {
  std::lock_guard<std::mutex> lock(gSlotLock);
  Slot() = std::make_unique<SyncListenerAddInfo>();
}

SyncProgressSnapshot SyncListenerAddInfo::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return record_;
}
