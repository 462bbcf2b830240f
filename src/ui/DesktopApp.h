#pragma once
// DesktopApp: the client with its tray item and windows, on Qt's event loop. The
// header is free of Qt, so that main() can choose between the two faces.

#include "CommandLine.h"

class DesktopApp {
 public:
  explicit DesktopApp(const CommandLine& options);
  int Run(int argc, char** argv);

 private:
  CommandLine options_;
};
