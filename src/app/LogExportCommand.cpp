#include "LogExportCommand.h"

#include <iostream>

#include "CVEventLogger.h"
#include "ClientCommands.h"
#include "LogExport.h"

int RunLogExportCommand(const CommandLine& line, std::ostream& out, std::ostream& err) {
  if (line.commandArguments.size() > 1) {
    err << "corvalink-sync: export-logs takes at most one destination" << std::endl;
    return ClientCommands::kUsage;
  }
  CVEventLogger::SetConsoleEcho(false);
  const auto result = LogExport::sendLogs(line.commandArguments.empty() ? "" : line.commandArguments[0]);
  if (!result.saved) {
    err << "The logs could not be saved to " << result.path << ": " << result.problem << std::endl;
    return ClientCommands::kFailed;
  }
  out << LogExport::SavedText(result) << std::endl;
  return ClientCommands::kDone;
}
