#include "ActivityCommand.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "ActivityService.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "NotificationWindowController.h"

namespace {

using Row = NotificationWindowController::Row;

// The rows under their headings, in columns as wide as their widest text.
void PrintTable(std::ostream& out, const std::array<std::string, 3>& headings, const std::vector<Row>& rows) {
  std::size_t action = headings[0].size(), date = headings[1].size();
  for (const auto& row : rows) {
    action = std::max(action, row.action.size());
    date = std::max(date, row.date.size());
  }
  auto line = [&](const std::string& a, const std::string& d, const std::string& f) {
    out << "  " << a << std::string(action - a.size() + 2, ' ') << d << std::string(date - d.size() + 2, ' ') << f
        << std::endl;
  };
  line(headings[0], headings[1], headings[2]);
  for (const auto& row : rows) line(row.action, row.date, row.fileURL);
}

}  // namespace

int RunActivityCommand(const CommandLine& line, std::ostream& out, std::ostream& err) {
  long page = 0;
  const auto& arguments = line.commandArguments;
  if (!arguments.empty()) {
    char* end = nullptr;
    if (arguments.size() == 2 && arguments[0] == "--page") page = std::strtol(arguments[1].c_str(), &end, 10);
    if (end == nullptr || end == arguments[1].c_str() || *end != '\0' || page < 0) {
      err << "corvalink-sync: activity [--page N], N from 0" << std::endl;
      return ClientCommands::kUsage;
    }
  }
  if (!ClientSetup::PrepareCommand(line.timeScale, err)) return ClientCommands::kNoAccount;

  ServerActivityService service;
  // Every step runs on this thread: nothing is posted to a main loop.
  NotificationWindowController activity(service, [](std::function<void()>) {});
  const auto history = activity.GetUsageHistory(page);
  int code = ClientCommands::kDone;
  if (!history) {
    err << NotificationWindowController::kNoConnection << std::endl;
    code = ClientCommands::kFailed;
  } else if (history->empty()) {
    out << "Usage history, page " << page << ": nothing." << std::endl;
  } else {
    out << "Usage history, page " << page << ":" << std::endl;
    PrintTable(out, {"Action", "Date", "File"}, NotificationWindowController::RowsOf(*history));
  }
  const auto local = NotificationWindowController::RowsOf(activity.GetLocalUpdates());
  if (local.empty()) {
    out << "Local updates: none." << std::endl;
  } else {
    out << "Local updates:" << std::endl;
    PrintTable(out, {"Status", "Date", "File"}, local);
  }
  return code;
}
