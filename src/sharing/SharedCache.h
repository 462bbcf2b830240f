#pragma once
// SharedCache: the local folders that hold files which belong to no synced
// storage: "Shared In" (files others shared with the user) and "External user
// uploads" (what came in through upload requests), under the storages root.
// Their local names come from the server, so every name is checked here: a
// name becomes one path component or nothing ("/", NUL, "." and "..", the empty
// name and names longer than a file name may be are refused), folders are made
// one at a time without following a symbolic link, and a path is used only when
// it lies inside its cache. The storage names refuse both folder names, so the
// sync never takes a cache for a storage and never uploads what is in it.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

class SharedCache {
 public:
  static constexpr const char* kSharedInFolder = "Shared In";
  static constexpr const char* kUploadsFolder = "External user uploads";
  static constexpr std::size_t kLongestName = 255;  // bytes, as the file systems allow

  static std::string SharedInRoot();
  static std::string UploadsRoot();

  // The name as it stands when it can be one component, else nothing.
  static std::optional<std::string> SafeComponent(std::string_view name);
  // root/top/folder.../name, with folderPath split at "\" and "/" (empty pieces
  // dropped); nothing when any piece is refused.
  static std::optional<std::string> PathInCache(const std::string& root, const std::string& top,
                                                std::string_view folderPath, const std::string& name);
  // True when path lies strictly inside root, by its components.
  static bool IsInside(const std::string& root, const std::string& path);
  // Makes root and the folders between it and path's parent; false (with a
  // line in the log) when one of them is a symbolic link or not a folder.
  static bool MakeParentFolders(const std::string& root, const std::string& path);
  // Removes each path that lies inside root; with no paths, every entry of
  // root. A symbolic link goes itself, never what it points at. The count of
  // entries removed.
  static int Remove(const std::string& root, const std::vector<std::string>& paths);
};
