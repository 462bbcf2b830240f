#pragma once
// CVSelectiveSyncSite: the rules and known items of one storage. A site of the
// store shares the store's lock, so that a save sees every site whole while the
// main loop, the scheduler and the settings windows change them, and hands each
// change to the store's journal. Paths of items and rules are compared byte for
// byte; "in a folder" means equal to it or below it after a "/", so that "Docs"
// never covers "Docs2". Items and rules are indexed by path, so that a storage
// of many files costs no walk per lookup.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "CVSelectiveSyncItem.h"
#include "CVSelectiveSyncRule.h"
#include "CVStateJournal.h"
#include "CVStateXMLFile.h"
#include "SyncRecords.h"

class CVSelectiveSyncSite {
 public:
  // Where a site's changes go to be made durable: the store's journal.
  using ChangeSink = std::function<void(const CVSelectiveSyncSite& site, const CVStateJournal::Entry& change)>;

  // A site with a lock of its own and no rule.
  explicit CVSelectiveSyncSite(std::string name);
  // A site with the given content; a null lock gives it one of its own.
  CVSelectiveSyncSite(std::string name, std::vector<CVSelectiveSyncRule> rules,
                      std::vector<CVSelectiveSyncItem> items, std::shared_ptr<std::recursive_mutex> lock,
                      std::shared_ptr<const ChangeSink> changes = nullptr);

  // Copies, taken under the lock.
  std::string Name() const;
  std::vector<CVSelectiveSyncRule> SyncRules() const;
  std::vector<CVSelectiveSyncItem> SyncItems() const;
  std::size_t SyncItemCount() const;

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

  // For the store: one change that its journal kept, applied again without a
  // new journal entry. False when the entry does not read.
  bool ApplyChange(CVStateJournal::Reader& change);

 private:
  // A slot of an item or a rule; a removed one stays dead until the slots are
  // compacted, so that the index of the others stays valid meanwhile.
  template <typename Value>
  struct Slot {
    Value value;
    bool live = true;
  };
  // Values in order, with the first live slot of each key (an item's Path, a
  // rule's ItemUrl). Keys are views of the slots' own strings, which a deque
  // keeps in place.
  template <typename Value>
  struct Slots {
    std::deque<Slot<Value>> slots;
    std::unordered_map<std::string_view, std::uint32_t> first;
    std::size_t live = 0;
    bool sharedKeys = false;  // some key stood for more than one slot
  };

  std::optional<CVSelectiveSyncRule> RuleForLocalPath(const std::string& path) const;
  void Record(const CVStateJournal::Entry& change) const;

  // The changes, applied to the content alone, under the lock.
  bool ApplyAddItem(bool folder, const std::string& path);
  bool ApplyAddRule(std::int32_t rule, const std::string& itemUrl);
  bool ApplyRemoveItemAndRule(const std::string& path, const std::string& relative);
  void ApplyRemoveFolder(const std::string& folder, const std::string& relative,
                         std::vector<std::string>* removedItems, std::vector<std::string>* removedRules);
  bool ApplyRename(const std::string& from, const std::string& to, bool isFolder);
  void ApplyRenameSite(const std::string& oldBase, const std::string& newBase, const std::string& oldName,
                       const std::string& newName);

  std::shared_ptr<std::recursive_mutex> lock_;
  std::shared_ptr<const ChangeSink> changes_;
  std::string name_;
  Slots<CVSelectiveSyncRule> rules_;
  Slots<CVSelectiveSyncItem> items_;
};
