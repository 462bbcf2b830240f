#include "TrayController.h"

#include "CVStaticHelpers.h"
#include "SyncProgressView.h"

TrayController::TrayController(View& view, Commands commands, std::set<TrayMenuModel::Window> windows,
                               std::function<bool()> signedIn)
    : view_(view), commands_(std::move(commands)), signedIn_(std::move(signedIn)) {
  state_.windows = std::move(windows);
  view_.ShowToolTip(tooltip_);
  Redraw();
}

std::string TrayController::IconName(int state) {
  return "corvalink-sync-state-" + std::to_string(state >= 1 && state <= 6 ? state : 2);
}

void TrayController::SetStatusIcon(int state) {
  if (state != statusIcon_) {
    statusIcon_ = state;
    view_.ShowIcon(IconName(state));
  }
  Redraw();
}

void TrayController::SetTooltip(const std::string& text) {
  if (text == tooltip_) return;
  tooltip_ = text;
  view_.ShowToolTip(text);
}

TrayController::NotificationAction TrayController::ActionFor(const std::string& title, const std::string& text) {
  if (title == "Corvalink Sync" && text == "Synced with errors") {
    return {"Open the logs", CVStaticHelpers::GenerateSettingsPath() + "/CVLogger"};
  }
  if (text.rfind("The disk is full", 0) == 0) {
    return {"Open Corvalink folder", CVStaticHelpers::GenerateRootPathForStorages()};
  }
  return {};
}

void TrayController::ShowNotification(const std::string& title, const std::string& text) {
  view_.Notify(title, text, ActionFor(title, text));
}

void TrayController::SetSyncNowHidden(bool hidden) {
  state_.syncNowHidden = hidden;
  Redraw();
}

void TrayController::SetSyncNowTitle(const std::string& title) {
  state_.syncNowTitle = title;
  Redraw();
}

void TrayController::SetPauseTitle(const std::string& title) {
  state_.pauseTitle = title;
  Redraw();
}

void TrayController::SetHeldDeletions(const std::vector<std::string>& storages) {
  if (storages == state_.heldDeletions) return;
  state_.heldDeletions = storages;
  Redraw();
}

void TrayController::ShowProgress(const SyncProgressSnapshot& record) {
  std::string line = SyncProgressView::TrayLine(record);
  if (line == state_.progressLine) return;
  state_.progressLine = std::move(line);
  Redraw();
}

bool TrayController::Activate(const std::string& id) {
  using Window = TrayMenuModel::Window;
  bool known = false;
  for (const auto& entry : menu_) known = known || (entry.id == id && entry.enabled && !entry.separator);
  if (!known) return false;
  auto run = [](const std::function<void()>& command) {
    if (command) command();
  };
  if (id == "sync-now") {
    run(commands_.syncNow);
  } else if (id == "pause") {
    run(commands_.pause);
  } else if (id == "open-folder") {
    run(commands_.openFolder);
  } else if (id == "exit") {
    run(commands_.exit);
  } else if (id.rfind("deletions:", 0) == 0) {
    if (commands_.answerDeletions) commands_.answerDeletions(id.substr(10));
  } else if (commands_.openWindow) {
    if (id.rfind("sync-manager-", 0) == 0) {
      commands_.openWindow(Window::SyncManager, std::stoi(id.substr(13)));
    } else if (id == "sign-in") {
      commands_.openWindow(Window::SignIn, 0);
    } else if (id == "activity") {
      commands_.openWindow(Window::Activity, 0);
    } else if (id == "shared-files") {
      commands_.openWindow(Window::SharedFiles, 0);
    } else if (id == "upload-requests") {
      commands_.openWindow(Window::UploadRequests, 0);
    } else if (id == "request-files") {
      commands_.openWindow(Window::RequestFiles, 0);
    }
  }
  return true;
}

void TrayController::Redraw() {
  state_.signedIn = signedIn_ && signedIn_();
  auto menu = TrayMenuModel::Build(state_);
  if (menu == menu_ && !menu_.empty()) return;
  menu_ = std::move(menu);
  view_.ShowMenu(menu_);
}
