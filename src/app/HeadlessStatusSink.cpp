#include "HeadlessStatusSink.h"

#include "CVEventLogger.h"

HeadlessStatusSink::HeadlessStatusSink(std::ostream& out) : out_(out) {}

const char* HeadlessStatusSink::StateName(int state) {
  switch (state) {
    case 1: return "starting";
    case 3: return "syncing";
    case 4: return "offline";
    case 6: return "synced with errors";
    default: return "in step";
  }
}

void HeadlessStatusSink::Say(const std::string& line) {
  out_ << line << std::endl;
  CVEventLogger::WriteMainLogMessage(line);
}

void HeadlessStatusSink::SetStatusIcon(int state) {
  if (state == statusIcon_) return;
  statusIcon_ = state;
  Say(std::string("Status: ") + StateName(state));
}

void HeadlessStatusSink::SetTooltip(const std::string& text) {
  if (text == tooltip_) return;
  tooltip_ = text;
  Say(text);
}

void HeadlessStatusSink::ShowNotification(const std::string& title, const std::string& text) {
  Say("Notification: " + title + ": " + text);
}

void HeadlessStatusSink::SetSyncNowHidden(bool) {}
void HeadlessStatusSink::SetSyncNowTitle(const std::string&) {}
void HeadlessStatusSink::SetPauseTitle(const std::string&) {}
