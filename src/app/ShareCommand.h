#pragma once
// ShareCommand: `corvalink-sync share PATH... [--external] [--to EMAIL...]
// [--days N] [--view-only] [--message TEXT]` in a terminal. It fills the share
// window's controller as a user would, makes the share in this process (a share
// changes nothing the running client keeps), and prints the links the server
// made, or why there are none. Without --to, the running desktop client opens
// its share window on the files instead.

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"

class ShareCommand {
 public:
  struct Options {
    std::vector<std::string> paths;
    bool external = false;
    std::vector<std::string> to;
    std::optional<long> days;  // 0: no expiry
    bool viewOnly = false;
    std::string message;
  };
  static std::optional<Options> Parse(const std::vector<std::string>& arguments, std::string& error);

  ShareCommand(const CommandLine& line, std::ostream& out, std::ostream& err);
  int Run();

 private:
  int Share(const Options& options);

  CommandLine line_;
  std::ostream& out_;
  std::ostream& err_;
};
