#pragma once
// The command line of corvalink-devserver, turned into ServerOptions.

#include <string>
#include <vector>

#include "ServerOptions.h"

namespace devserver {

struct CommandLine {
  ServerOptions options;
  bool help = false;
  bool verbose = false;
};

// Throws std::invalid_argument with a message for the user.
CommandLine ParseCommandLine(const std::vector<std::string>& args);
std::string UsageText();

// "NAME=FOLDER[,type=TYPE][,user=USER]...[,auth=USER:PASSWORD]"
StorageConfig ParseStorageArgument(const std::string& argument);
// "NAME,COUNT,KIND[=VALUE]", COUNT a number or "*" for every call.
FaultSetting ParseFaultArgument(const std::string& argument);

}  // namespace devserver
