#pragma once
// ClientSetup: what every process of the client sets up before it talks to the
// server: the clock of the request engine, the version the login tells, what
// the session does with the policy after a main login, and the keyring that
// keeps the password.

#include <iosfwd>
#include <memory>

class Clock;

class ClientSetup {
 public:
  static void PrepareProcess(std::shared_ptr<const Clock> clock);
  // The desktop's keyring for the password, when the session has one; before
  // the configuration is read. Once per process.
  static void InstallKeyring();
  // All of the above for a command that talks to the server in its own process,
  // then the configuration; false, with the line that says so, when no account
  // is signed in.
  static bool PrepareCommand(double timeScale, std::ostream& err);
};
