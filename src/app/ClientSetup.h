#pragma once
// ClientSetup: what every process of the client sets up before it talks to the
// server: the clock of the request engine, the version the login tells, and what
// the session does with the policy after a main login.

#include <memory>

class Clock;

class ClientSetup {
 public:
  static void PrepareProcess(std::shared_ptr<const Clock> clock);
};
