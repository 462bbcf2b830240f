#include "HeadlessApp.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <iostream>
#include <utility>

#include "AppDelegate.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "Clock.h"
#include "CVConfiguration.h"
#include "CVHandler.h"
#include "AsyncFileMethods.h"
#include "SERVER_Queues.h"
#include "SmartSync.h"
#include "SmartSyncFileOperations.h"
#include "HeadlessStatusSink.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "ControlServer.h"
#include "LocalSocket.h"
#include "LoginController.h"
#include "SettingsContext.h"
#include "InotifyEventStream.h"
#include "PollMainLoop.h"
#include "SessionConnectionService.h"
#include "Version.h"

HeadlessApp::HeadlessApp(const CommandLine& options) : options_(options) {}

int HeadlessApp::Run() {
  // The console shows the status lines; the full log stays in the log files.
  CVEventLogger::SetConsoleEcho(false);
  // One client per user: whoever holds the lock owns the local socket.
  CVStaticHelpers::CreateSettingsFolder();
  const std::string settingsFolder = CVStaticHelpers::GenerateSettingsPath();
  std::string lockError;
  auto instance = InstanceLock::TryAcquire(LocalEndpoint::LockPath(settingsFolder), lockError);
  if (!instance) {
    if (lockError.empty()) {
      std::cout << "Corvalink Sync is already running for this user; "
                   "use \"corvalink-sync status\" or \"corvalink-sync quit\"." << std::endl;
      return kExitAlreadyRunning;
    }
    std::cout << "Corvalink Sync cannot tell whether it runs already (" << lockError << "); it starts all the same."
              << std::endl;
  }
  auto sharedClock = std::make_shared<Clock>(options_.timeScale);
  const Clock& clock = *sharedClock;
  ClientSetup::PrepareProcess(sharedClock);
  PollMainLoop loop(clock);
  HeadlessStatusSink status(std::cout);
  SessionConnectionService connection;
  AsyncFileMethods serverFileOperations(sharedClock);
  CVConfiguration::Instance().SetPartSizeSource([] { return CVHandler::Instance().GetPartSizeNSNumber(); });

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  int signalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);

  int exitCode = kExitInStep;
  {
    AppDelegate app(AppDelegate::Dependencies{
        clock, loop, status, connection, nullptr, CORVALINK_VERSION, nullptr, nullptr,
        [&serverFileOperations](AppDelegate& owner) {
          return std::make_unique<SmartSyncFileOperations>(owner, serverFileOperations);
        },
        [&loop, &clock](FileEventStream::BatchCallback onBatch, FileEventStream::TroubleCallback onTrouble) {
          // The hold for a rename's second half is real time, whatever the time scale.
          auto hold = std::chrono::duration_cast<std::chrono::milliseconds>(
              clock.Unscaled(std::chrono::milliseconds(250)));
          return std::make_unique<InotifyEventStream>(
              loop, std::move(onBatch), std::move(onTrouble),
              [](const std::string& line) { CVEventLogger::WriteMainLogMessage("FSW stream -> " + line); }, hold);
        }});
    // What the server's file calls must tell the sync, and ask of it.
    serverFileOperations.SetSyncMainThreadShouldRun([&app] {
      SmartSync* sync = app.mainSyncObject();
      return sync != nullptr && sync->syncMainThreadShouldRun.load();
    });
    serverFileOperations.SetFirstTimeSyncPerformedHandler([&app](bool performed) {
      if (SmartSync* sync = app.mainSyncObject()) sync->serverQueue().firstTimeSyncPerformed = performed;
    });
    if (signalFd >= 0) {
      loop.AddReadWatch(signalFd, [&] {
        signalfd_siginfo info;
        ssize_t got = read(signalFd, &info, sizeof info);
        (void)got;
        loop.Quit(kExitInStep);
      });
    }
    // The first pass ends a --once run; one the timer started meanwhile is not told.
    bool passTold = false;
    if (options_.once) {
      app.SetPassFinishedHandler([&loop, &passTold](AppDelegate::PassOutcome outcome) {
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
              std::cout << "Offline: the server could not be reached or did not accept the account."
                        << std::endl;
              break;
          }
          loop.Quit(outcome == AppDelegate::PassOutcome::InStep ? kExitInStep : kExitErrors);
        });
      });
    }
    // Commands from the terminal (and the file manager) reach this client here.
    SettingsContext settings(SyncControl::ForApp(app));
    LoginController login(settings);
    ControlServer control(loop, CommandEnvironment{settings, login, &app, [&loop] { loop.Quit(kExitInStep); }},
                          LocalEndpoint::SocketPath(settingsFolder));
    std::string controlError;
    if (instance && !control.Start(controlError)) {
      std::cout << "Commands cannot reach this client: " << controlError << std::endl;
    }
    const bool signedIn = app.applicationDidFinishLaunching();
    auto tellHowToSignIn = [] { std::cout << ClientCommands::HowToSignIn() << std::endl; };
    if (!signedIn && options_.once) {
      tellHowToSignIn();
      control.Stop();
      app.applicationWillTerminate();
      exitCode = kExitNoAccount;
    } else {
      std::cout << "Corvalink Sync " << CORVALINK_VERSION << " running without windows; logs in "
                << CVStaticHelpers::GenerateSettingsPath() << "/CVLogger" << std::endl;
      if (!signedIn) tellHowToSignIn();
      // One pass and out: it need not wait for the timer's first tick.
      if (options_.once) app.SyncNow();
      exitCode = loop.Run();
      control.Drain(loop);
      app.applicationWillTerminate();
    }
  }
  if (signalFd >= 0) close(signalFd);
  return exitCode;
}
