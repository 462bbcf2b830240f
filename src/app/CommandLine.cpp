#include "CommandLine.h"

#include <cstdlib>

std::optional<CommandLine> CommandLine::Parse(const std::vector<std::string>& arguments,
                                              std::string& error) {
  CommandLine line;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--headless") {
      line.headless = true;
    } else if (argument == "--once") {
      line.once = true;
    } else if (argument == "--version") {
      line.showVersion = true;
    } else if (argument == "--help" || argument == "-h") {
      line.showHelp = true;
    } else if (argument == "--time-scale") {
      if (i + 1 >= arguments.size()) {
        error = "--time-scale needs a factor, for example --time-scale 0.01";
        return std::nullopt;
      }
      const std::string& value = arguments[++i];
      char* end = nullptr;
      double scale = std::strtod(value.c_str(), &end);
      if (end == value.c_str() || *end != '\0' || !(scale > 0) || scale > 1000) {
        error = "--time-scale needs a positive factor, not \"" + value + "\"";
        return std::nullopt;
      }
      line.timeScale = scale;
    } else {
      error = "unknown option \"" + argument + "\"";
      return std::nullopt;
    }
  }
  if (line.once && !line.headless) {
    error = "--once runs only with --headless";
    return std::nullopt;
  }
  return line;
}

std::string CommandLine::Usage() {
  return "Usage: corvalink-sync [--headless [--once]] [--time-scale F] [--version] [--help]\n"
         "\n"
         "  (no option)    the desktop client with its tray icon\n"
         "  --headless     the same client without windows; states and texts go to the\n"
         "                 console and to the logs under ~/Corvalink/.Settings/CVLogger\n"
         "  --once         with --headless: run one whole pass and exit\n"
         "                 (0 in step, 1 errors or offline, 2 no account configured)\n"
         "  --time-scale F multiply every duration of the client by F (for tests)\n"
         "  --version      print the version\n"
         "  --help         print this text\n";
}
