#include "DesktopApp.h"

#include <QApplication>
#include <QDesktopServices>
#include <QPointer>
#include <QUrl>
#include <cstdlib>
#include <iostream>
#include <memory>

#include "ActivityService.h"
#include "ActivityWindow.h"
#include "AppDelegate.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ClientCommands.h"
#include "ClientRuntime.h"
#include "Clock.h"
#include "DesktopCommands.h"
#include "FileManagerBridge.h"
#include "HeldDeletionsBox.h"
#include "InfoTab.h"
#include "MainLoopWatchdog.h"
#include "ProgressWatch.h"
#include "QtMainLoop.h"
#include "SettingsTab.h"
#include "SharedFilesWindow.h"
#include "ShareWindow.h"
#include "SharingService.h"
#include "SignInWindow.h"
#include "StoragesTab.h"
#include "SyncManagerWindow.h"
#include "SyncProgressView.h"
#include "TrayController.h"
#include "WidgetHelpers.h"
#include "TrayIcon.h"
#include "UploadRequestsWindow.h"
#include "VersionService.h"
#include "VersionWindow.h"
#include "Version.h"

namespace {
bool HasDisplay() {
  auto set = [](const char* name) { return std::getenv(name) != nullptr && *std::getenv(name) != '\0'; };
  return set("DISPLAY") || set("WAYLAND_DISPLAY") || set("QT_QPA_PLATFORM");
}

// The account's switches and limits as the last sign-in left them.
CVConnection CurrentAccount() {
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  return config.Corvalink;
}

}  // namespace

DesktopApp::DesktopApp(const CommandLine& options) : options_(options) {}

int DesktopApp::Run(int argc, char** argv) {
  if (!HasDisplay()) {
    std::cerr << "corvalink-sync: there is no display to show the tray on; run it with --headless" << std::endl;
    return 64;
  }
  CVEventLogger::SetConsoleEcho(false);
  QApplication application(argc, argv);
  QApplication::setApplicationName("Corvalink Sync");
  QApplication::setApplicationVersion(CORVALINK_VERSION);
  QApplication::setDesktopFileName("corvalink-sync");
  QApplication::setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  // The client lives behind its tray item: closing a window never ends it.
  QApplication::setQuitOnLastWindowClosed(false);

  auto instance = ClientRuntime::AcquireInstance();
  if (instance.anotherRuns) {
    std::string error;
    if (ClientRuntime::AskRunningToShow(error)) return ClientRuntime::kExitInStep;
    std::cout << "Corvalink Sync is already running for this user but does not answer"
              << (error.empty() ? "" : ": " + error) << std::endl;
    return ClientRuntime::kExitAlreadyRunning;
  }

  auto clock = std::make_shared<Clock>(options_.timeScale);
  QtMainLoop loop(*clock);
  TrayIcon trayIcon;
  std::unique_ptr<SyncManagerWindow> window;
  std::unique_ptr<SignInWindow> signInWindow;
  std::unique_ptr<ClientRuntime> runtime;
  std::unique_ptr<DesktopCommands> commands;
  QPointer<QMessageBox> deletionsBox;
  SyncProgressSnapshot lastProgress;

  auto drawWindow = [&] {
    if (!window) return;
    const auto index = static_cast<std::size_t>(std::max(0, lastProgress.currentSiteNumber));
    window->Draw(SyncProgressView::From(lastProgress, CVStaticHelpers::GetSiteNameByIndex(index)));
  };
  // The activity window: made anew at each opening, from the history's first page.
  ServerActivityService activity;
  QPointer<ActivityWindow> activityWindow;
  // The sharing windows' openings, set once their services are made below.
  std::function<bool(TrayMenuModel::Window)> openSharingWindow;
  auto openWindow = [&](TrayMenuModel::Window which, int tab) {
    if (which == TrayMenuModel::Window::Activity) {
      delete activityWindow.data();
      activityWindow = new ActivityWindow(activity, loop);
      activityWindow->setAttribute(Qt::WA_DeleteOnClose);
      widgets::ShowInFront(*activityWindow);
      return;
    }
    if (openSharingWindow && openSharingWindow(which)) return;
    if (which == TrayMenuModel::Window::SignIn) {
      if (!signInWindow) {
        signInWindow = std::make_unique<SignInWindow>(runtime->login(), runtime->settings(), loop,
                                                      [&] { commands->SyncNow(); });
        CVConnection account;
        {
          CVConfiguration& config = CVConfiguration::Instance();
          std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
          account = config.Corvalink;
        }
        signInWindow->Prefill(account.Url, account.UserName);
        if (auto unreadable = ClientCommands::UnreadableConfiguration()) signInWindow->ShowNotice(*unreadable + ".");
      }
      signInWindow->ShowInFront();
      return;
    }
    if (!window) {
      window = std::make_unique<SyncManagerWindow>([&] { commands->StartStop(); });
      window->AddTab(1, new SettingsTab(runtime->settings(), loop, [&] { window->hide(); }), "Settings");
      window->AddTab(2, new StoragesTab(runtime->settings(), loop), "Storages");
      window->AddTab(3, new InfoTab, "Info");
      lastProgress = SyncListenerAddInfo::Instance().Snapshot();
      drawWindow();
    }
    window->SetTabNumber(tab);
    window->ShowInFront();
  };
  TrayController tray(
      trayIcon,
      TrayController::Commands{
          [&] { commands->SyncNow(); }, [&] { commands->Pause(); },
          [] {
            const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
            if (!QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(root)))) {
              CVEventLogger::WriteMainLogMessage("DesktopApp - showCVFolder -> no file manager opened " + root);
            }
          },
          openWindow, [&loop] { loop.Quit(ClientRuntime::kExitInStep); },
          [&](const std::string& storage) {
            if (deletionsBox) deletionsBox->close();
            for (const auto& held : runtime->app().HeldDeletions()) {
              if (held.storage != storage) continue;
              deletionsBox = HeldDeletionsBox::Open(
                  held, [&commands, storage](bool confirm) { commands->AnswerDeletions(storage, confirm); });
            }
          }},
      {TrayMenuModel::Window::SignIn, TrayMenuModel::Window::SyncManager, TrayMenuModel::Window::AccountTabs,
       TrayMenuModel::Window::Activity, TrayMenuModel::Window::SharedFiles, TrayMenuModel::Window::UploadRequests,
       TrayMenuModel::Window::RequestFiles},
      [&] { return runtime && runtime->app().IsSyncStarted(); });
  trayIcon.SetActivateHandler([&tray](const std::string& id) { tray.Activate(id); });

  runtime = std::make_unique<ClientRuntime>(clock, loop, tray, instance.lock != nullptr);
  commands = std::make_unique<DesktopCommands>(runtime->app());
  // The share window of a file manager command: one at a time; a second command
  // while it is open only brings it forward, and its items are dropped.
  ServerSharingService sharing;
  QPointer<ShareWindow> shareWindow;
  // The version window of one file, likewise one at a time; a restore makes a
  // pass bring the file back.
  ServerVersionService versions;
  QPointer<VersionWindow> versionWindow;
  runtime->SetWindowHandler([&](const std::string& command, const std::vector<std::string>& paths) {
    CVEventLogger::WriteMainLogMessage("DesktopApp - " + command + " -> " + std::to_string(paths.size()) + " items");
    if (command == FileManagerBridge::kVersions) {
      if (!versionWindow || !versionWindow->isVisible()) {
        delete versionWindow;
        versionWindow = new VersionWindow(versions, loop, paths.front(), [&](const std::string&) { commands->SyncNow(); });
        versionWindow->setAttribute(Qt::WA_DeleteOnClose);
      }
      widgets::ShowInFront(*versionWindow);
      return;
    }
    if (shareWindow && shareWindow->isVisible()) {
      shareWindow->ShowInFront();
      return;
    }
    CVConnection policy;
    {
      CVConfiguration& config = CVConfiguration::Instance();
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      policy = config.Corvalink;
    }
    shareWindow = new ShareWindow(sharing, loop, policy);
    const auto type = command == "ShareToExternal" ? ShareWindow::Controller::kExternalShare
                                                   : ShareWindow::Controller::kInternalShare;
    QPointer<ShareWindow> opened = shareWindow;
    auto closed = [opened] {
      if (opened) opened->deleteLater();
    };
    if (shareWindow->Open(paths, type, closed)) {
      shareWindow->ShowInFront();
    } else {
      closed();
    }
  });
  // Shared files and upload requests: made at the first opening, kept for the
  // run; a request for files opens the share window, one at a time as above.
  ServerSharedFilesService sharedFiles;
  ServerUploadRequestService uploadRequests;
  std::unique_ptr<SharedFilesWindow> sharedFilesWindow;
  std::unique_ptr<UploadRequestsWindow> uploadRequestsWindow;
  auto openRequestWindow = [&] {
    CVEventLogger::WriteMainLogMessage("Request for file upload button pressed");
    if (shareWindow && shareWindow->isVisible()) return shareWindow->ShowInFront();
    shareWindow = new ShareWindow(sharing, loop, CurrentAccount());
    QPointer<ShareWindow> opened = shareWindow;
    auto closed = [opened] {
      if (opened) opened->deleteLater();
    };
    if (!shareWindow->Open({}, ShareWindow::Controller::kUploadRequest, closed)) return closed();
    shareWindow->ShowInFront();
  };
  openSharingWindow = [&](TrayMenuModel::Window which) {
    if (which == TrayMenuModel::Window::SharedFiles) {
      CVEventLogger::WriteMainLogMessage("View shared files button pressed");
      if (!sharedFilesWindow) sharedFilesWindow = std::make_unique<SharedFilesWindow>(sharedFiles, loop);
      sharedFilesWindow->Open(CurrentAccount());
    } else if (which == TrayMenuModel::Window::UploadRequests) {
      CVEventLogger::WriteMainLogMessage("View upload request button pressed");
      if (!uploadRequestsWindow) {
        uploadRequestsWindow = std::make_unique<UploadRequestsWindow>(uploadRequests, loop, openRequestWindow);
      }
      uploadRequestsWindow->Open();
    } else if (which == TrayMenuModel::Window::RequestFiles) {
      openRequestWindow();
    } else {
      return false;
    }
    return true;
  };
  runtime->SetShowHandler([&] {
    openWindow(TrayMenuModel::Window::SyncManager, 0);
    std::cout << "The sync manager window is shown." << std::endl;
  });
  ProgressWatch progress(loop, [&](const SyncProgressSnapshot& record) {
    lastProgress = record;
    tray.ShowProgress(record);
    drawWindow();
  });

  const bool signedIn = runtime->Start(std::cout);
  std::cout << "Corvalink Sync " << CORVALINK_VERSION << " running; logs in " << CVStaticHelpers::GenerateSettingsPath()
            << "/CVLogger" << std::endl;
  if (!trayIcon.Show()) {
    // Nothing would show the client: its window stands in for the tray item.
    CVEventLogger::WriteMainLogMessage("DesktopApp - Run -> no tray host on the session bus; the window opens");
    std::cout << "No tray is shown on this desktop; the sync manager window stands in for it." << std::endl;
    openWindow(TrayMenuModel::Window::SyncManager, 0);
  }
  if (!signedIn) {
    openWindow(TrayMenuModel::Window::SignIn, 0);
    std::cout << "No account is signed in; the sign-in window is open." << std::endl;
  }

  std::unique_ptr<MainLoopWatchdog> watchdog;
  if (const char* limit = std::getenv("CORVALINK_WATCHDOG_MS"); limit != nullptr && std::atoi(limit) > 0) {
    watchdog = std::make_unique<MainLoopWatchdog>(loop, std::chrono::milliseconds(std::atoi(limit)));
  }
  const int exitCode = loop.Run();
  if (watchdog) {
    std::cout << "Main loop watchdog: longest wait " << watchdog->longest().count() << " ms, " << watchdog->stalls()
              << " stalls" << std::endl;
    watchdog.reset();
  }
  // A sign-in waiting for its question is answered "No" before the workers are joined.
  signInWindow.reset();
  delete shareWindow.data();
  delete activityWindow.data();
  sharedFilesWindow.reset();
  uploadRequestsWindow.reset();
  commands.reset();
  runtime->Stop();
  // The sync reports to the tray to its very end: it goes before the tray does.
  runtime.reset();
  window.reset();
  return exitCode;
}
