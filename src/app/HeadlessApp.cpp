#include "HeadlessApp.h"

#include <iostream>
#include <utility>

#include "AppDelegate.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ClientCommands.h"
#include "ClientRuntime.h"
#include "Clock.h"
#include "HeadlessStatusSink.h"
#include "PollMainLoop.h"
#include "Version.h"

HeadlessApp::HeadlessApp(const CommandLine& options) : options_(options) {}

int HeadlessApp::Run() {
  // The console shows the status lines; the full log stays in the log files.
  CVEventLogger::SetConsoleEcho(false);
  // One client per user: whoever holds the lock owns the local socket.
  auto instance = ClientRuntime::AcquireInstance();
  if (instance.anotherRuns) {
    std::cout << "Corvalink Sync is already running for this user; "
                 "use \"corvalink-sync status\" or \"corvalink-sync quit\"." << std::endl;
    return kExitAlreadyRunning;
  }
  auto clock = std::make_shared<Clock>(options_.timeScale);
  PollMainLoop loop(*clock);
  HeadlessStatusSink status(std::cout);
  ClientRuntime runtime(clock, loop, status, instance.lock != nullptr);
  // The first pass ends a --once run; one the timer started meanwhile is not told.
  bool passTold = false;
  if (options_.once) {
    runtime.app().SetPassFinishedHandler([&loop, &passTold](AppDelegate::PassOutcome outcome) {
      loop.Post([&loop, &passTold, outcome] {
        if (std::exchange(passTold, true)) return;
        // The start is offline already, so a failed first probe changes no tool
        // tip: say plainly how the pass ended.
        switch (outcome) {
          case AppDelegate::PassOutcome::InStep:
            std::cout << "The pass ended in step." << std::endl;
            break;
          case AppDelegate::PassOutcome::WithErrors:
            std::cout << "The pass ended with errors; see the logs." << std::endl;
            break;
          case AppDelegate::PassOutcome::ItemsLeft:
            std::cout << "The pass left items for a later one; see the logs." << std::endl;
            break;
          case AppDelegate::PassOutcome::Offline:
            std::cout << "Offline: the server could not be reached or did not accept the account." << std::endl;
            break;
        }
        loop.Quit(outcome == AppDelegate::PassOutcome::InStep ? kExitInStep : kExitErrors);
      });
    });
  }
  const bool signedIn = runtime.Start(std::cout);
  auto tellHowToSignIn = [] { std::cout << ClientCommands::HowToSignIn() << std::endl; };
  if (!signedIn && options_.once) {
    tellHowToSignIn();
    runtime.Stop();
    return kExitNoAccount;
  }
  std::cout << "Corvalink Sync " << CORVALINK_VERSION << " running without windows; logs in "
            << CVStaticHelpers::GenerateSettingsPath() << "/CVLogger" << std::endl;
  if (!signedIn) tellHowToSignIn();
  // One pass and out: it need not wait for the timer's first tick.
  if (options_.once) runtime.app().SyncNow();
  const int exitCode = loop.Run();
  runtime.Stop();
  return exitCode;
}
