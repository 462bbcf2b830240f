#pragma once
// TrayMenuModel: the entries of the tray menu, made from the application's
// state rather than read off a tool tip, which not every tray host shows. With
// no account signed in the menu offers the sign-in and the exit; an entry for a
// window that this build does not have is not there at all (the sign-in is always
// there: without its window it tells how to sign in from a terminal).

#include <set>
#include <string>
#include <vector>

class TrayMenuModel {
 public:
  // Windows a menu entry can open; a build lists those it has.
  // SyncManager is the window's progress tab; AccountTabs its settings and storages tabs.
  enum class Window { SignIn, SyncManager, AccountTabs, Activity, SharedFiles, UploadRequests, RequestFiles };

  struct State {
    bool signedIn = false;
    bool syncNowHidden = false;                // while a pass runs or the sync is paused
    std::string syncNowTitle = "Sync now";     // "Sync now (last update at ...)" after a pass
    std::string pauseTitle = "Pause sync";     // "Start sync" while paused
    std::string progressLine;                  // what the sync works on now; "" when idle
    std::vector<std::string> heldDeletions;    // storages whose deletions wait for an answer
    std::set<Window> windows;
  };

  struct Entry {
    std::string id;  // what the entry does: "sync-now", "pause", "open-folder", "deletions:STORAGE"...
    std::string title;
    bool enabled = true;
    bool separator = false;
    bool operator==(const Entry&) const = default;
  };

  static std::vector<Entry> Build(const State& state);
};
