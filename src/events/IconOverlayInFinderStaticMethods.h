#pragma once
// IconOverlayInFinderStaticMethods: the cloned paths tree under ".Settings/.Hash",
// which mirrors the storages path by path and holds in each file the overlay
// state of the storage file of the same path ("1" in work, "2" failed, zero bytes
// in step), for the file manager extension to read; and the set of paths whose
// windows should be redrawn.
//
// Class-level operations, callable from any thread. The tree is written without a
// lock; only the pending redraws have one. Nothing here fails the sync: errors are
// written to the main log and the caller goes on.

#include <cstddef>
#include <set>
#include <string>

class IconOverlayInFinderStaticMethods {
 public:
  // Root + "/.Settings/.Hash".
  static std::string ClonnedTreeRoot();

  // The clone of a path below the storages root: that root replaced by the
  // clone tree's root. Any other path (outside the root, the root itself, the
  // settings folder, a path with "." or ".." parts) has no clone and comes back
  // as it stands.
  static std::string GetClonnedFilePath(const std::string& path);
  // True when the path has a clone and something stands at it.
  static bool CheckClonnedFileExistence(const std::string& path);
  // Writes the state: for isDir makes sure the folder's clone exists (the
  // clones below it stay), else replaces the file clone in one step with the
  // state's bytes ("0" is written as ""). A clone of the other kind in the way
  // (the item changed its kind) is replaced.
  static void WriteFileStateToClonnedTreeForPath(const std::string& path, const std::string& state,
                                                 bool isDir);
  // Makes the folder's clone with its missing parents, unless something stands there.
  static void CreateClonnedFolder(const std::string& path);
  // Removes the clone, a file or a folder with everything below it, when there is one.
  static void RemoveFromClonnedPathsTree(const std::string& path);

  // Asks for a redraw of the windows that show the path: the path joins the
  // pending redraws and the call returns at once. Repeats merge.
  static void RefreshFinderUsingScriptBridge(const std::string& path);
  // For the file manager side: hands over the pending redraws and empties them.
  static std::set<std::string> TakePendingRedraws();
  static std::size_t PendingRedrawCount();

  // Forgets the pending redraws and whether anybody has taken them.
  static void ResetForTests();
};
