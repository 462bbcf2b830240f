#pragma once
// ClientSetup: what every process of the client sets up before it talks to the
// server: the clock of the request engine, the version the login tells, what
// the session does with the policy after a main login, and the keyring that
// keeps the password.

#include <memory>

class Clock;

class ClientSetup {
 public:
  static void PrepareProcess(std::shared_ptr<const Clock> clock);
  // The desktop's keyring for the password, when the session has one; before
  // the configuration is read. Once per process.
  static void InstallKeyring();
  // A terminal command that works in its own process: the settings folder,
  // the process as above on a clock of that scale, the configuration read;
  // log lines go to the files only.
  static void PrepareTerminalProcess(double timeScale);
};
