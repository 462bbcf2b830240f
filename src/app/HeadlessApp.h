#pragma once
// HeadlessApp: wires the client without windows: clock, main loop, status sink,
// server session and the sync, and runs until a signal (or, with --once, until the
// first whole pass has ended).

#include "ClientRuntime.h"
#include "CommandLine.h"

class HeadlessApp {
 public:
  static constexpr int kExitInStep = ClientRuntime::kExitInStep;
  static constexpr int kExitErrors = ClientRuntime::kExitErrors;
  static constexpr int kExitNoAccount = ClientRuntime::kExitNoAccount;
  static constexpr int kExitAlreadyRunning = ClientRuntime::kExitAlreadyRunning;

  explicit HeadlessApp(const CommandLine& options);
  int Run();

 private:
  CommandLine options_;
};
