#pragma once
// CVIPRestriction: the paths the server refuses to this machine's network
// address, kept across runs in ".Settings/RestrictedFolders.xml", so that a
// restricted item is told apart from a failed one. Process-wide; the listing
// thread and the main loop add to it, so every access takes its lock, and saves
// are serialised by a second lock taken before it.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

struct CVIPRestrictionNode {
  std::string FolderUrl;     // the path as the sync gave it: a server path, or a local one
  std::string LastSyncTime;  // text; "0001-01-01 00:00:00" when the folder has no time
};

class CVIPRestriction {
 public:
  // The store, read from the file on first use.
  static CVIPRestriction& Instance();
  // Drops the records; the next Instance reads the file again.
  static void RemoveAll();

  // Root + "/.Settings/RestrictedFolders.xml".
  static std::string RestrictedFoldersXMLPath();

  // Prepares the folders and replaces the records by the file's. A missing file
  // is written empty. A damaged one is moved aside; the records read before the
  // damage are kept and written back.
  void ReadConfigFromFile();
  // Rewrites the whole file; false (logged) when it stays as it was.
  bool SaveRestrictionXML();

  // Adds the path and saves, unless a record of exactly this path exists; an
  // existing record keeps its time.
  void AddNodeIfNoSuchWitServerPathFile(const std::string& path, const std::string& WithLastDateSync);
  // Removes the first record of exactly this path and saves; an unknown path
  // leaves the file untouched.
  void RemoveNodeWithURL(const std::string& path);
  // True when a record lies at or below the local path, in its server form or as
  // the local path itself (the main loop records the local path it worked on).
  bool FileContainsItem(const std::string& localPath);

  // A copy of the records, in their order.
  std::vector<CVIPRestrictionNode> arrayRestriction();

 private:
  CVIPRestriction() = default;
  static CVIPRestriction& Raw();
  void EnsureRead();
  std::string DocumentText();

  std::vector<CVIPRestrictionNode> records_;
  std::mutex lock_;
  std::mutex saveLock_;
  std::mutex readLock_;
  std::atomic<bool> read_{false};
};
