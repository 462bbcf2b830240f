#pragma once
// XdgDesktop: the desktop's plain files that stand in for the login item and the
// sidebar favourites: the XDG autostart entry, the GTK bookmarks file (which GNOME
// Files and other GTK file managers read) and KDE's places (Dolphin's sidebar, only
// where that file exists). Each file is replaced whole, never left half written.

#include <string>

class XdgDesktop {
 public:
  // ~/.config (or $XDG_CONFIG_HOME), ~/.local/share (or $XDG_DATA_HOME).
  static std::string ConfigHome();
  static std::string DataHome();
  // XDG_DOWNLOAD_DIR of the user's ~/.config/user-dirs.dirs, else ~/Downloads.
  static std::string DownloadFolder();

  // ~/.config/autostart/corvalink-sync.desktop
  static std::string AutostartFilePath();
  static bool IsAutostartRegistered();
  // Writes the entry that starts executable at login, or removes it; false when
  // the file could not be written or removed.
  static bool RegisterAutostart(bool on, const std::string& executable);

  // ~/.config/gtk-3.0/bookmarks and ~/.local/share/user-places.xbel
  static std::string BookmarksFilePath();
  static std::string KdePlacesFilePath();
  // True when the sidebar has an entry with exactly this label.
  static bool HasFavourite(const std::string& label);
  // Adds an entry for the folder at the end of the sidebar, unless the label is
  // there already.
  static bool AddFavourite(const std::string& folder, const std::string& label);
  // Drops every entry with exactly this label; the other entries stay as they are.
  static bool RemoveFavourite(const std::string& label);
  // An entry that exists moves to the new label and folder; nothing is added
  // for a label that had none.
  static bool RenameFavourite(const std::string& oldLabel, const std::string& newLabel, const std::string& newFolder);
};
