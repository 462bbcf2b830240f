#pragma once
// FakeStatusSink: records what the client showed, for tests.

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "StatusSink.h"

class FakeStatusSink : public StatusSink {
 public:
  void SetStatusIcon(int state) override;
  void SetTooltip(const std::string& text) override;
  void ShowNotification(const std::string& title, const std::string& text) override;
  void SetSyncNowHidden(bool hidden) override;
  void SetSyncNowTitle(const std::string& title) override;
  void SetPauseTitle(const std::string& title) override;

  std::vector<int> icons();
  std::vector<std::string> tooltips();
  std::vector<std::pair<std::string, std::string>> notifications();
  std::string syncNowTitle();

 private:
  std::mutex mutex_;
  std::vector<int> icons_;
  std::vector<std::string> tooltips_;
  std::vector<std::pair<std::string, std::string>> notifications_;
  std::string syncNowTitle_;
};
