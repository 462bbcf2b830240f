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
  // A command for the client ("login", "status", "storage"...) and the words
  // after it, which the command reads itself.
  std::string command;
  std::vector<std::string> commandArguments;

  static bool IsCommand(const std::string& word);

  // Parses argv; gives nothing and fills error on a bad option.
  static std::optional<CommandLine> Parse(const std::vector<std::string>& arguments,
                                          std::string& error);
  static std::string Usage();
};
