#pragma once
// CVSelectiveSync: the process-wide choice, storage by storage, of what is kept
// locally, stored in ".Settings/SelectiveSync.xml". Read at the first Instance;
// from then on the object is the truth and the file its copy, rewritten whole and
// atomically. One recursive lock guards the list and every site in it; saves are
// serialised by a second lock taken before it, and no lock is held while a
// caller's code runs.

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVSelectiveSyncRule.h"
#include "CVSelectiveSyncSite.h"

class CVSelectiveSync {
 public:
  using SitePtr = std::shared_ptr<CVSelectiveSyncSite>;

  // The store, read from the file on first use.
  static CVSelectiveSync& Instance();
  // Empties the store in place; the file is not read again.
  static void RemoveAll();
  // Empties the store and lets the next Instance read the file again.
  static void ResetForTests();

  // Prepares the folders and replaces the store by the file's content. A missing
  // file gives an empty store, written at once. A damaged file is moved aside
  // and the storages read whole from it are kept.
  void ReadConfigFromFile();
  // Writes the whole store; false (logged) when the file stays as it was.
  bool SaveConfigXML();
  // The document SaveConfigXML writes.
  std::string GetInXML();

  // Names are compared without regard to ASCII case.
  bool isNameExists(const std::string& name);
  SitePtr GetSiteRulesByName(const std::string& name);
  // With createIfNotExist and no such site: makes it with its name as given and one
  // rule, syncNone for the whole storage, and saves the file.
  SitePtr GetSiteRulesByName(const std::string& name, bool createIfNotExist);
  // A copy of the list of sites.
  std::vector<SitePtr> Sites();
  // Removes the last site of exactly this name; false when there is none.
  bool RemoveSite(const std::string& name);

  // Root + "/.Settings/SelectiveSync.xml".
  static std::string SelectiveSyncXMLPath();
  // The path behind the root and its "/", without a final "/"; "" outside the root.
  static std::string RelativePathForLocalPath(const std::string& localPath);
  static CVSyncRulesDictionary GetSyncRulesDictionary(const CVSelectiveSyncSite& site);
  // The nearest rule of a relative path: its own, else its folder's, and so on up
  // to the storage's own rule. At each level a name stored composed finds a
  // decomposed path and the reverse.
  static std::optional<CVSelectiveSyncRule> FindSyncRule(const CVSyncRulesDictionary& dictionary,
                                                         const std::string& forPath);
  // Makes a site for each storage of the configuration that has none, then saves.
  static void InitSelectiveSync();
  // The site of the storage that holds the local path, or nothing.
  static SitePtr GetSelectiveSyncSiteForLocalPath(const std::string& localPath);

 private:
  CVSelectiveSync();
  static CVSelectiveSync& Raw();
  void EnsureRead();
  SitePtr FindSiteLocked(const std::string& name);

  std::shared_ptr<std::recursive_mutex> lock_;
  std::vector<SitePtr> sites_;
  std::mutex saveLock_;
  std::mutex readLock_;
  std::atomic<bool> read_{false};
};
