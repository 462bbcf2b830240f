#include "FakeStatusSink.h"

void FakeStatusSink::SetStatusIcon(int state) {
  std::lock_guard<std::mutex> lock(mutex_);
  icons_.push_back(state);
}
void FakeStatusSink::SetTooltip(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  tooltips_.push_back(text);
}
void FakeStatusSink::ShowNotification(const std::string& title, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  notifications_.emplace_back(title, text);
}
void FakeStatusSink::SetSyncNowHidden(bool) {}
void FakeStatusSink::SetSyncNowTitle(const std::string& title) {
  std::lock_guard<std::mutex> lock(mutex_);
  syncNowTitle_ = title;
}
void FakeStatusSink::SetPauseTitle(const std::string&) {}

std::vector<int> FakeStatusSink::icons() {
  std::lock_guard<std::mutex> lock(mutex_);
  return icons_;
}
std::vector<std::string> FakeStatusSink::tooltips() {
  std::lock_guard<std::mutex> lock(mutex_);
  return tooltips_;
}
std::vector<std::pair<std::string, std::string>> FakeStatusSink::notifications() {
  std::lock_guard<std::mutex> lock(mutex_);
  return notifications_;
}
std::string FakeStatusSink::syncNowTitle() {
  std::lock_guard<std::mutex> lock(mutex_);
  return syncNowTitle_;
}
