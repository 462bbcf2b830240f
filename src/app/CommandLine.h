#pragma once
// CommandLine: the few options of the client binary.

#include <optional>
#include <string>
#include <vector>

struct CommandLine {
  bool headless = false;
  bool once = false;
  bool showVersion = false;
  bool showHelp = false;
  double timeScale = 1.0;

  // Parses argv; gives nothing and fills error on a bad option.
  static std::optional<CommandLine> Parse(const std::vector<std::string>& arguments,
                                          std::string& error);
  static std::string Usage();
};
