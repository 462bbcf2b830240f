#pragma once
// CVSelectiveSyncSite: the rules and known items of one storage. A site of the
// store shares the store's lock, so that a save sees every site whole while the
// main loop, the scheduler and the settings windows change them. Paths of items
// and rules are compared byte for byte; "in a folder" means equal to it or below
// it after a "/", so that "Docs" never covers "Docs2".

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVSelectiveSyncItem.h"
#include "CVSelectiveSyncRule.h"
#include "CVStateXMLFile.h"
#include "SyncRecords.h"

class CVSelectiveSyncSite {
 public:
  // A site with a lock of its own and no rule.
  explicit CVSelectiveSyncSite(std::string name);
  // A site with the given content; a null lock gives it one of its own.
  CVSelectiveSyncSite(std::string name, std::vector<CVSelectiveSyncRule> rules,
                      std::vector<CVSelectiveSyncItem> items, std::shared_ptr<std::recursive_mutex> lock);

  // Copies, taken under the lock.
  std::string Name() const;
  std::vector<CVSelectiveSyncRule> SyncRules() const;
  std::vector<CVSelectiveSyncItem> SyncItems() const;

  // Writes the site's StorageRules element. Entries whose text cannot stand in
  // XML (a file name that is not UTF-8) are left out with a log line.
  void getInXML(CVStateXMLFile::Writer& writer) const;

  // The item with this exact Path, made and added when there is none.
  CVSelectiveSyncItem addSyncItem(bool folder, const std::string& forPath);
  // Adds an item for each record whose localPath has no item yet; gives the new
  // items. A null list is logged and adds nothing.
  std::vector<CVSelectiveSyncItem> addSyncItems(const std::vector<CVFileForCompare>* serverFiles);
  std::vector<CVSelectiveSyncItem> addSyncItems(const std::vector<CVFileForCompare>& serverFiles);
  // Sets the rule of the absolute path, adding it when missing; nothing for a path
  // outside the root.
  std::optional<CVSelectiveSyncRule> addSyncRule(std::int32_t rule, const std::string& forPath);

  // True when an item has exactly this Path.
  bool ItemFoundForPath(const std::string& path) const;
  // False when the rule that applies to the path, with inheritance, is syncNone:
  // a deletion under an unticked folder must not reach the server.
  bool IsCanDeleteFile(const std::string& path) const;
  // True when the rule that applies to the path, with inheritance, is syncAll;
  // false (logged) when no rule applies.
  bool IsCheckedRuleForLocalPath(const std::string& path) const;
  // Answers IsCheckedRuleForLocalPath and changes nothing.
  bool ChangeSyncRuleForPath(const std::string& path, std::int32_t WintSync_All_None) const;
  // The Path of every item below the folder.
  std::vector<std::string> GetArrayFilesFoldersForFolder(const std::string& path) const;

  // Removes the first item of this exact Path and then the first rule of its
  // relative path; with no item nothing is removed.
  void removeSyncItemAndRule(const std::string& path);
  // Removes the items and rules of the path and of everything below it.
  void removeSyncItemsAndRulesForFolder(const std::string& path);
  // Moves the item and rule of a file, or of a folder and everything below it.
  // Repeating a rename changes nothing.
  void renameSyncItemAndRule(const std::string& oldPath, const std::string& withNewName, bool withIsFolder);
  // Moves every item and rule of the storage to the new name, and takes the name.
  void renameSite(const std::string& oldName, const std::string& forNewName);

 private:
  std::optional<CVSelectiveSyncRule> RuleForLocalPath(const std::string& path) const;

  std::shared_ptr<std::recursive_mutex> lock_;
  std::string name_;
  std::vector<CVSelectiveSyncRule> rules_;
  std::vector<CVSelectiveSyncItem> items_;
};
