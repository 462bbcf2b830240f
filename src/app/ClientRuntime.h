#pragma once
// ClientRuntime: the client as both faces run it, with or without windows: the
// one-per-user lock, the server session, the sync, the local socket for commands
// and the end on SIGINT/SIGTERM, all over the face's main loop and status sink.

#include <memory>
#include <string>
#include <vector>

#include "AppDelegate.h"
#include "AsyncFileMethods.h"
#include "CommandLine.h"
#include "ControlServer.h"
#include "LocalSocket.h"
#include "LoginController.h"
#include "SessionConnectionService.h"
#include "SettingsContext.h"

class Clock;
class MainLoop;
class StatusSink;

class ClientRuntime {
 public:
  static constexpr int kExitInStep = 0;
  static constexpr int kExitErrors = 1;
  static constexpr int kExitNoAccount = 2;
  static constexpr int kExitAlreadyRunning = 4;

  // The per-user lock: held, or held by another client (anotherRuns), or not to be
  // tried at all (error says why, on the console too; the client then runs
  // without its socket).
  struct Instance {
    std::unique_ptr<InstanceLock> lock;
    bool anotherRuns = false;
    std::string error;
  };
  static Instance AcquireInstance();
  // Asks the client that holds the lock to bring its window forward.
  static bool AskRunningToShow(std::string& error);

  // Sets up the process (clock, version, policy handler) and wires the sync; the
  // socket is opened only by the holder of the lock.
  ClientRuntime(std::shared_ptr<const Clock> clock, MainLoop& loop, StatusSink& status, bool ownsSocket);
  ~ClientRuntime();
  ClientRuntime(const ClientRuntime&) = delete;
  ClientRuntime& operator=(const ClientRuntime&) = delete;

  // Starts the sync in its fixed order and opens the local socket; false when no
  // account is signed in (the client then waits for a login).
  bool Start(std::ostream& out);
  // Answers the commands still in flight, then stops the sync.
  void Stop();

  AppDelegate& app() { return *app_; }
  SettingsContext& settings() { return *settings_; }
  LoginController& login() { return *login_; }
  // Called on the main thread for the "show" command (a second start included).
  void SetShowHandler(std::function<void()> handler) { showHandler_ = std::move(handler); }
  // Called on the main thread for a file manager command's window (a desktop
  // client); set before Start. Without it the client opens no windows.
  using WindowHandler = std::function<void(const std::string& command, const std::vector<std::string>& paths)>;
  void SetWindowHandler(WindowHandler handler) { windowHandler_ = std::move(handler); }

 private:
  std::shared_ptr<const Clock> clock_;
  MainLoop& loop_;
  bool ownsSocket_;
  int signalFd_ = -1;
  int signalWatch_ = 0;
  SessionConnectionService connection_;
  AsyncFileMethods serverFileOperations_;
  std::unique_ptr<AppDelegate> app_;
  std::unique_ptr<SettingsContext> settings_;
  std::unique_ptr<LoginController> login_;
  std::unique_ptr<ControlServer> control_;
  std::function<void()> showHandler_;
  WindowHandler windowHandler_;
};
