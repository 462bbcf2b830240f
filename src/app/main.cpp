// corvalink-sync: the desktop sync client, or with --headless the same client
// without windows.

#include <iostream>
#include <string>
#include <vector>

#include "CommandLine.h"
#ifdef CORVALINK_HAS_DESKTOP
#include "DesktopApp.h"
#endif
#include "HeadlessApp.h"
#include "LogExportCommand.h"
#include "RequestsCommand.h"
#include "ShareCommand.h"
#include "SharedCommand.h"
#include "TerminalCommand.h"
#include "VersionsCommand.h"
#include "ActivityCommand.h"
#include "Version.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  std::string error;
  auto options = CommandLine::Parse(arguments, error);
  if (!options) {
    std::cerr << "corvalink-sync: " << error << "\n\n" << CommandLine::Usage();
    return 64;
  }
  if (options->showHelp) {
    std::cout << CommandLine::Usage();
    return 0;
  }
  if (options->showVersion) {
    std::cout << "corvalink-sync " << CORVALINK_VERSION << '\n';
    return 0;
  }
  if (options->command == "share") return ShareCommand(*options, std::cout, std::cerr).Run();
  if (options->command == "shared" || options->command == "fetch") {
    return SharedCommand(*options, std::cout, std::cerr).Run();
  }
  if (options->command == "requests" || options->command == "request") {
    return RequestsCommand(*options, std::cout, std::cerr).Run();
  }
  if (options->command == "versions") return VersionsCommand(*options, std::cout, std::cerr).Run();
  if (options->command == "export-logs") return RunLogExportCommand(*options, std::cout, std::cerr);
  if (options->command == "activity") return RunActivityCommand(*options, std::cout, std::cerr);
  if (!options->command.empty()) return TerminalCommand(*options, std::cin, std::cout, std::cerr).Run();
  if (!options->headless) {
#ifdef CORVALINK_HAS_DESKTOP
    return DesktopApp(*options).Run(argc, argv);
#else
    std::cerr << "corvalink-sync: this build has no desktop part; run it with --headless\n";
    return 64;
#endif
  }
  return HeadlessApp(*options).Run();
}
