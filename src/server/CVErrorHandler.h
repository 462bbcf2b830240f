#pragma once
// CVErrorHandler: the one reply text that means "not found" for file calls.

#include <string>

class CVErrorHandler {
 public:
  static bool FileNotFound(const std::string& reply) { return reply == "-6;File/Folder not found;"; }
};
