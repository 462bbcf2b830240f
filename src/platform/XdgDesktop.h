#pragma once
// XdgDesktop: the desktop's plain files that stand in for the login item and the
// sidebar favourites: the XDG autostart entry and the GTK bookmarks file.

#include <string>

class XdgDesktop {
 public:
  // ~/.config (or $XDG_CONFIG_HOME).
  static std::string ConfigHome();
  // ~/.config/autostart/corvalink-sync.desktop
  static std::string AutostartFilePath();
  static bool IsAutostartRegistered();
  // ~/.config/gtk-3.0/bookmarks
  static std::string BookmarksFilePath();
  // True when a bookmark carries exactly this label ("file:///path Label").
  static bool BookmarksHasLabel(const std::string& label);
  // Drops every bookmark with exactly this label; the other lines stay as they
  // are. False when the file could not be written.
  static bool RemoveBookmark(const std::string& label);
};
