#include "HeadlessApp.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <iostream>

#include "AppDelegate.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "Clock.h"
#include "ASIHTTPRequest.h"
#include "CVConfiguration.h"
#include "CVHandler.h"
#include "AsyncFileMethods.h"
#include "SERVER_Queues.h"
#include "SmartSync.h"
#include "SmartSyncFileOperations.h"
#include "HeadlessStatusSink.h"
#include "InotifyEventStream.h"
#include "PollMainLoop.h"
#include "SessionConnectionService.h"
#include "Version.h"

HeadlessApp::HeadlessApp(const CommandLine& options) : options_(options) {}

int HeadlessApp::Run() {
  // The console shows the status lines; the full log stays in the log files.
  CVEventLogger::SetConsoleEcho(false);
  auto sharedClock = std::make_shared<Clock>(options_.timeScale);
  const Clock& clock = *sharedClock;
  ASIHTTPRequest::SetClock(sharedClock);
  PollMainLoop loop(clock);
  HeadlessStatusSink status(std::cout);
  SessionConnectionService connection;
  AsyncFileMethods serverFileOperations(sharedClock);
  CVHandler::Instance().SetAppVersion(CORVALINK_VERSION);
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
    if (options_.once) {
      app.SetPassFinishedHandler([&loop](AppDelegate::PassOutcome outcome) {
        loop.Post([&loop, outcome] {
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
    if (!app.applicationDidFinishLaunching()) {
      std::cout << "No account is configured. Set Url, UserName and Password in "
                << CVStaticHelpers::GenerateSettingsPath() << "/Configuration.xml"
                << " (or sign in with the desktop client), then start again." << std::endl;
      app.applicationWillTerminate();
      exitCode = kExitNoAccount;
    } else {
      std::cout << "Corvalink Sync " << CORVALINK_VERSION << " running without windows; logs in "
                << CVStaticHelpers::GenerateSettingsPath() << "/CVLogger" << std::endl;
      exitCode = loop.Run();
      app.applicationWillTerminate();
    }
  }
  if (signalFd >= 0) close(signalFd);
  return exitCode;
}
