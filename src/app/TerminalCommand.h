#pragma once
// TerminalCommand: `corvalink-sync COMMAND ...` in a terminal. It reads the
// command's words, asks for what is missing (the password without echo), and
// hands the request to the running client over the local socket; when no client
// runs, it takes the single-instance lock and carries the request out itself on
// the files, so that no client starts in the middle of it.

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"

class TerminalCommand {
 public:
  TerminalCommand(const CommandLine& options, std::istream& in, std::ostream& out, std::ostream& err);
  int Run();

  // The request for the command's words, without the prompts: the password
  // fields stay empty where it must be asked. Nothing (error filled) for words
  // the command does not take.
  struct Parsed {
    std::vector<std::string> request;
    bool assumeYes = false;
    bool passwordFromStdin = false;
    int passwordField = -1;  // index in request of a password to ask; -1 for none
    bool askUrlAndUser = false;  // login without URL or user: prompt for them
  };
  static std::optional<Parsed> Parse(const std::string& command, const std::vector<std::string>& arguments,
                                     std::string& error);

 private:
  bool Complete(Parsed& parsed);
  int Execute(const Parsed& parsed);
  int Remote(class LineChannel& channel, const Parsed& parsed);
  int Local(const Parsed& parsed);
  std::string Prompt(const std::string& question, const std::string& fallback);
  std::optional<std::string> ReadPassword(bool fromStdin);
  // personOnly: --yes does not answer it.
  bool AskYesNo(const std::string& question, bool assumeYes, bool personOnly);
  void EnsureConfigRead();

  CommandLine options_;
  std::istream& in_;
  std::ostream& out_;
  std::ostream& err_;
  bool configRead_ = false;
};
