#pragma once
// TrayController: the tray item's state and commands, without a toolkit. It is the
// status sink of the desktop client: the engine's states, tool tips, titles and
// notifications arrive here on the main thread and go out to the view as an icon
// name, a tool tip and a menu made by TrayMenuModel.

#include <functional>
#include <string>
#include <vector>

#include "StatusSink.h"
#include "SyncListenerAddInfo.h"
#include "TrayMenuModel.h"

class TrayController : public StatusSink {
 public:
  // A button of a notification: its title and the folder it opens.
  struct NotificationAction {
    std::string title;
    std::string folder;
  };

  // What draws the tray item (the Qt tray in the application, a recorder in tests).
  class View {
   public:
    virtual ~View() = default;
    virtual void ShowIcon(const std::string& iconName) = 0;
    virtual void ShowToolTip(const std::string& text) = 0;
    virtual void ShowMenu(const std::vector<TrayMenuModel::Entry>& entries) = 0;
    virtual void Notify(const std::string& title, const std::string& text, const NotificationAction& action) = 0;
  };

  // What the menu's entries do; each is run on the main thread.
  struct Commands {
    std::function<void()> syncNow;
    std::function<void()> pause;
    std::function<void()> openFolder;
    std::function<void(TrayMenuModel::Window window, int tab)> openWindow;
    std::function<void()> exit;
    // The deletions held in a storage, for the user to decide on.
    std::function<void(const std::string& storage)> answerDeletions;
  };

  // signedIn is asked at each redraw: a sign-in from the terminal shows in the
  // menu with the first state the sync sets.
  TrayController(View& view, Commands commands, std::set<TrayMenuModel::Window> windows,
                 std::function<bool()> signedIn);

  // The icon of a state: "corvalink-sync-state-<n>" for the states 1 to 6, the
  // in-step icon for any other value.
  static std::string IconName(int state);
  // The button a notification carries where one helps: the logs for a pass that
  // ended with errors, the storages' folder for a full disk; none otherwise.
  static NotificationAction ActionFor(const std::string& title, const std::string& text);

  void SetStatusIcon(int state) override;
  void SetTooltip(const std::string& text) override;
  void ShowNotification(const std::string& title, const std::string& text) override;
  void SetSyncNowHidden(bool hidden) override;
  void SetSyncNowTitle(const std::string& title) override;
  void SetPauseTitle(const std::string& title) override;
  void SetHeldDeletions(const std::vector<std::string>& storages) override;

  // The progress line of the menu from one snapshot; the menu is redrawn only
  // when the line changes.
  void ShowProgress(const SyncProgressSnapshot& record);
  // An entry chosen in the menu, by its id. False for an id the menu does not hold.
  bool Activate(const std::string& id);

  int statusIcon() const { return statusIcon_; }
  const std::string& tooltip() const { return tooltip_; }
  const std::vector<TrayMenuModel::Entry>& menu() const { return menu_; }

 private:
  void Redraw();

  View& view_;
  Commands commands_;
  std::function<bool()> signedIn_;
  TrayMenuModel::State state_;
  std::vector<TrayMenuModel::Entry> menu_;
  int statusIcon_ = 0;
  std::string tooltip_ = "Corvalink";
};
