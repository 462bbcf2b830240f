#include "TrayMenuModel.h"

namespace {
TrayMenuModel::Entry Separator() { return {"", "", false, true}; }
}  // namespace

std::vector<TrayMenuModel::Entry> TrayMenuModel::Build(const State& state) {
  std::vector<Entry> menu;
  auto has = [&](Window window) { return state.windows.count(window) > 0; };
  if (!state.signedIn) {
    // Until an account is signed in there is nothing else to do.
    menu.push_back({"sign-in", "Sign in…", true, false});
    menu.push_back(Separator());
    menu.push_back({"exit", "Exit", true, false});
    return menu;
  }
  if (!state.progressLine.empty()) {
    menu.push_back({"progress", state.progressLine, false, false});
    menu.push_back(Separator());
  }
  // Deletions held back come first: nothing else of the menu waits for the user.
  for (const auto& storage : state.heldDeletions) {
    menu.push_back({"deletions:" + storage, "Deletions held in \"" + storage + "\"…", true, false});
  }
  if (!state.heldDeletions.empty()) menu.push_back(Separator());
  if (!state.syncNowHidden) menu.push_back({"sync-now", state.syncNowTitle, true, false});
  menu.push_back({"pause", state.pauseTitle, true, false});
  menu.push_back(Separator());
  if (has(Window::SyncManager)) menu.push_back({"sync-manager-0", "Sync status…", true, false});
  if (has(Window::AccountTabs)) {
    menu.push_back({"sync-manager-1", "Settings…", true, false});
    menu.push_back({"sync-manager-2", "Storages…", true, false});
  }
  if (has(Window::Activity)) menu.push_back({"activity", "Activity…", true, false});
  if (has(Window::SharedFiles)) menu.push_back({"shared-files", "Shared files…", true, false});
  if (has(Window::UploadRequests)) menu.push_back({"upload-requests", "Upload requests…", true, false});
  if (has(Window::RequestFiles)) menu.push_back({"request-files", "Request files…", true, false});
  menu.push_back({"open-folder", "Open Corvalink folder", true, false});
  menu.push_back(Separator());
  menu.push_back({"exit", "Exit", true, false});
  return menu;
}
