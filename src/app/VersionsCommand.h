#pragma once
// VersionsCommand: `corvalink-sync versions PATH [--restore N | --save N DEST]`
// in a terminal: the versions the server keeps of a storage's file, a restore of
// one of them on the server (the running client is asked to sync, so that the
// file comes back), or a save of one to another place. Runs in this process
// with the version window's controller; it changes nothing the client keeps.

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"

class VersionsCommand {
 public:
  struct Options {
    std::string path;
    std::string restore;  // the version to restore; "" for none
    std::string save;     // the version to save; "" for none
    std::string destination;
  };
  static std::optional<Options> Parse(const std::vector<std::string>& arguments, std::string& error);

  VersionsCommand(const CommandLine& line, std::ostream& out, std::ostream& err);
  int Run();

 private:
  int Versions(const Options& options);

  CommandLine line_;
  std::ostream& out_;
  std::ostream& err_;
};
