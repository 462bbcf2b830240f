#pragma once
// HeadlessStatusSink: the status item of the headless client. State changes,
// tool tips and notifications go to the console and the main log, each once per
// change.

#include <ostream>
#include <string>

#include "StatusSink.h"

class HeadlessStatusSink : public StatusSink {
 public:
  explicit HeadlessStatusSink(std::ostream& out);

  void SetStatusIcon(int state) override;
  void SetTooltip(const std::string& text) override;
  void ShowNotification(const std::string& title, const std::string& text) override;
  void SetSyncNowHidden(bool hidden) override;
  void SetSyncNowTitle(const std::string& title) override;
  void SetPauseTitle(const std::string& title) override;

  int statusIcon() const { return statusIcon_; }
  const std::string& tooltip() const { return tooltip_; }

  static const char* StateName(int state);

 private:
  void Say(const std::string& line);

  std::ostream& out_;
  int statusIcon_ = 0;
  std::string tooltip_;
};
