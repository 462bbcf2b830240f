#pragma once
// Trash: where the client puts what it removes on the user's behalf, so that the
// user can still take it back from the file manager.
//
// FreedesktopTrash: the desktop's trash as freedesktop.org defines it. The home
// trash is $XDG_DATA_HOME/Trash (else ~/.local/share/Trash); an item on another
// mount goes to that mount's $topdir/.Trash/$uid (an administrator's sticky
// .Trash) or $topdir/.Trash-$uid, since a move never crosses devices. Each item
// gets info/<name>.trashinfo (made first, exclusively) and files/<name>. Any
// thread may call it; nothing is ever overwritten.

#include <sys/types.h>

#include <string>

class Trash {
 public:
  virtual ~Trash() = default;
  // Moves the file or folder at path (a link itself, never its target) into the
  // trash. False, with the reason in error, when the item stays where it was.
  virtual bool MoveToTrash(const std::string& path, std::string& error) = 0;
};

class FreedesktopTrash : public Trash {
 public:
  // An empty homeTrash means the desktop's home trash, looked up at each move.
  explicit FreedesktopTrash(std::string homeTrash = "");

  bool MoveToTrash(const std::string& path, std::string& error) override;

  // The home trash folder that a move would use now.
  std::string HomeTrashPath() const;
  // The top folder of the mount that holds path: the highest folder of its
  // ancestors on the same device. path must exist.
  static std::string MountTopDirectory(const std::string& path);
  // The trash's escaping of a path: bytes other than letters, digits, "-._~"
  // and "/" become "%XX".
  static std::string EscapePath(const std::string& path);

 protected:
  // Where the per-mount trash of an item on another device lives; tests point it
  // at a folder of their own.
  virtual std::string TopDirectoryOf(const std::string& path) const;

 private:
  struct Location {
    std::string folder;  // holds files/ and info/
    std::string topDir;  // "" for the home trash, whose entries keep absolute paths
  };
  bool FindLocation(const std::string& item, dev_t itemDevice, Location& location,
                    std::string& error) const;

  std::string homeTrash_;
};
