#pragma once
// CVSelectiveSync: the process-wide choice, storage by storage, of what is kept
// locally, stored in ".Settings/SelectiveSync.xml". Read at the first Instance;
// from then on the object is the truth. Each change of a site goes at once to
// the journal beside the file (CVStateJournal), and SaveConfigXML folds
// everything into the file whole and atomically: at the end of a pass, on quit,
// when the journal has grown as large as the file, and wherever the whole store
// is written on purpose. One recursive lock guards the list, every site in it
// and the journal; no lock is held while a caller's code runs.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVSelectiveSyncRule.h"
#include "CVStateJournal.h"
#include "CVStateXMLFile.h"
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
  // Writes the whole store and starts its journal afresh; false (logged) when
  // the file stays as it was.
  bool SaveConfigXML();
  // SaveConfigXML when anything changed since the last one.
  bool SaveIfChanged();
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
  // Removes the last site of exactly this name and saves; false when there is none.
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
  // The same walk over any lookup of a relative path's own rule (null for none).
  using RuleLookup = std::function<const CVSelectiveSyncRule*(const std::string& itemUrl)>;
  static std::optional<CVSelectiveSyncRule> FindSyncRule(const RuleLookup& lookup, const std::string& forPath);
  // Makes a site for each storage of the configuration that has none, then saves.
  static void InitSelectiveSync();
  // The site of the storage that holds the local path, or nothing.
  static SitePtr GetSelectiveSyncSiteForLocalPath(const std::string& localPath);

 private:
  CVSelectiveSync();
  static CVSelectiveSync& Raw();
  void EnsureRead();
  SitePtr FindSiteLocked(const std::string& name);
  SitePtr NewSite(std::string name, std::vector<CVSelectiveSyncRule> rules, std::vector<CVSelectiveSyncItem> items);
  // A site's change into the journal, under the lock; a fold when the journal
  // cannot take it or has grown large.
  void RecordChange(const CVSelectiveSyncSite& site, const CVStateJournal::Entry& change);
  bool SaveLocked();
  void WriteDocument(CVStateXMLFile::Writer& writer);

  std::shared_ptr<std::recursive_mutex> lock_;
  std::shared_ptr<const CVSelectiveSyncSite::ChangeSink> changes_;
  std::vector<SitePtr> sites_;
  std::unique_ptr<CVStateJournal> journal_;
  std::string journalFor_;  // the store file the journal belongs to
  CVStateJournal::FileVersion version_;  // of the file as last read or written
  bool changed_ = false;  // journal entries since the last save
  std::mutex readLock_;
  std::atomic<bool> read_{false};
};
