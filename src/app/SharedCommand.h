#pragma once
// SharedCommand: the shared files view in a terminal, over the same controller
// as the window:
//   corvalink-sync shared in|out [ID[/PATH]]    by person, or inside a shared folder
//   corvalink-sync shared in clear [ID[/PATH]...] [--yes]
//   corvalink-sync shared out unshare|resend ID... [--yes]
//   corvalink-sync shared out expire ID... --days N
//   corvalink-sync fetch ID[/PATH]... | --all   Shared In files into the cache
// Runs in this process: nothing here changes what a running client keeps.

#include <iosfwd>
#include <string>
#include <vector>

#include "CommandLine.h"

class SharedCommand {
 public:
  SharedCommand(const CommandLine& line, std::ostream& out, std::ostream& err);
  int Run();

 private:
  CommandLine line_;
  std::ostream& out_;
  std::ostream& err_;
};
