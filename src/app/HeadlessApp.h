#pragma once
// HeadlessApp: wires the client without windows: clock, main loop, status sink,
// server session and the sync, and runs until a signal (or, with --once, until the
// first whole pass has ended).

#include "CommandLine.h"

class HeadlessApp {
 public:
  static constexpr int kExitInStep = 0;
  static constexpr int kExitErrors = 1;
  static constexpr int kExitNoAccount = 2;
  static constexpr int kExitAlreadyRunning = 4;

  explicit HeadlessApp(const CommandLine& options);
  int Run();

 private:
  CommandLine options_;
};
