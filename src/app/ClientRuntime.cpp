#include "ClientRuntime.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <iostream>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "ClientSetup.h"
#include "Clock.h"
#include "StatusSink.h"
#include "InotifyEventStream.h"
#include "Keyring.h"
#include "MainLoop.h"
#include "SmartSync.h"
#include "SmartSyncFileOperations.h"
#include "Version.h"

namespace {
std::string SettingsFolder() { return CVStaticHelpers::GenerateSettingsPath(); }
}  // namespace

ClientRuntime::Instance ClientRuntime::AcquireInstance() {
  CVStaticHelpers::CreateSettingsFolder();
  Instance instance;
  instance.lock = InstanceLock::TryAcquire(LocalEndpoint::LockPath(SettingsFolder()), instance.error);
  instance.anotherRuns = !instance.lock && instance.error.empty();
  if (!instance.lock && !instance.anotherRuns) {
    std::cout << "Corvalink Sync cannot tell whether it runs already (" << instance.error
              << "); it starts all the same." << std::endl;
  }
  return instance;
}

bool ClientRuntime::AskRunningToShow(std::string& error) {
  auto channel = LineChannel::Connect(LocalEndpoint::SocketPath(SettingsFolder()), error);
  if (!channel || !channel->WriteLine({"show"})) return false;
  while (auto line = channel->ReadLine(std::chrono::seconds(10))) {
    if (!line->empty() && (*line)[0] == "END") return line->size() > 1 && (*line)[1] == "0";
  }
  error = "no answer";
  return false;
}

ClientRuntime::ClientRuntime(std::shared_ptr<const Clock> clock, MainLoop& loop, StatusSink& status,
                             bool ownsSocket)
    : clock_(std::move(clock)), loop_(loop), ownsSocket_(ownsSocket), serverFileOperations_(clock_) {
  ClientSetup::PrepareProcess(clock_);
  CVConfiguration::Instance().SetPartSizeSource([] { return CVHandler::Instance().GetPartSizeNSNumber(); });
  const Clock& steady = *clock_;
  app_ = std::make_unique<AppDelegate>(AppDelegate::Dependencies{
      steady, loop, status, connection_, nullptr, CORVALINK_VERSION, nullptr, nullptr,
      [this](AppDelegate& owner) { return std::make_unique<SmartSyncFileOperations>(owner, serverFileOperations_); },
      [&loop, &steady](FileEventStream::BatchCallback onBatch, FileEventStream::TroubleCallback onTrouble) {
        // The hold for a rename's second half is real time, whatever the time scale.
        auto hold = std::chrono::duration_cast<std::chrono::milliseconds>(
            steady.Unscaled(std::chrono::milliseconds(250)));
        return std::make_unique<InotifyEventStream>(
            loop, std::move(onBatch), std::move(onTrouble),
            [](const std::string& line) { CVEventLogger::WriteMainLogMessage("FSW stream -> " + line); }, hold);
      }});
  // What the server's file calls must tell the sync, and ask of it.
  serverFileOperations_.SetSyncMainThreadShouldRun([this] {
    SmartSync* sync = app_->mainSyncObject();
    return sync != nullptr && sync->syncMainThreadShouldRun.load();
  });
  serverFileOperations_.SetFirstTimeSyncPerformedHandler([this](bool performed) {
    if (SmartSync* sync = app_->mainSyncObject()) sync->serverQueue().firstTimeSyncPerformed = performed;
  });

  // SIGINT and SIGTERM end the client through its loop, so that the sync stops in order.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signalFd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalFd_ >= 0) {
    signalWatch_ = loop.AddReadWatch(signalFd_, [this] {
      signalfd_siginfo info;
      ssize_t got = read(signalFd_, &info, sizeof info);
      (void)got;
      loop_.Quit(kExitInStep);
    });
  }

  // Commands from the terminal (and the file manager) reach this client here.
  settings_ = std::make_unique<SettingsContext>(SyncControl::ForApp(*app_));
  login_ = std::make_unique<LoginController>(*settings_);
  control_ = std::make_unique<ControlServer>(
      loop, CommandEnvironment{*settings_, *login_, app_.get(), [this] { loop_.Quit(kExitInStep); },
                               [this] { loop_.Post([this] { if (showHandler_) showHandler_(); }); },
                               [this, &status](const std::string& title, const std::string& text) {
                                 loop_.Post([&status, title, text] { status.ShowNotification(title, text); });
                               },
                               [this](const std::string& command, const std::vector<std::string>& paths) {
                                 if (!windowHandler_) return false;
                                 loop_.Post([this, command, paths] { windowHandler_(command, paths); });
                                 return true;
                               }},
      LocalEndpoint::SocketPath(SettingsFolder()));
}

ClientRuntime::~ClientRuntime() {
  control_.reset();
  login_.reset();
  settings_.reset();
  app_.reset();
  if (signalFd_ >= 0) {
    loop_.RemoveReadWatch(signalWatch_);
    close(signalFd_);
  }
}

bool ClientRuntime::Start(std::ostream& out) {
  std::string error;
  if (ownsSocket_ && !control_->Start(error)) out << "Commands cannot reach this client: " << error << std::endl;
  return app_->applicationDidFinishLaunching();
}

void ClientRuntime::Stop() {
  // A pass that waits for the keyring's unlock prompt ends now, not when the
  // prompt is answered.
  SecretServiceKeyring::CancelWaits();
  control_->Drain(loop_);
  app_->applicationWillTerminate();
}
