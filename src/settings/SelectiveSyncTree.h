#pragma once
// SelectiveSyncTree: the model behind the selective sync sheet of one storage:
// its folders and files as a tree with three-state checks, built from what the
// sync knows, a folder filled from the server when it is first opened, and the
// checks turned into rules when the user says OK. Rows are owned by their
// parents and keep their address for the tree's life, so a view may hold them.
// The model itself is changed on one thread (the window's); FetchFolder is the
// part that goes to the server and may run on a worker.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CVSelectiveSyncItem.h"
#include "CVSelectiveSyncRule.h"

class SyncControl;

class SelectiveSyncTree {
 public:
  static constexpr const char* kLoading = "Loading...";
  static constexpr int kChecked = 1;
  static constexpr int kUnchecked = 0;
  static constexpr int kMixed = -1;

  struct Row {
    std::string itemName;  // last component of the path; "Loading..." for a placeholder
    std::string itemPath;  // full local path
    int itemSynced = kUnchecked;
    bool itemIsFolder = false;
    bool placeholder = false;
    Row* parent = nullptr;
    std::vector<std::unique_ptr<Row>> children;

    // A folder whose first child is a placeholder has not been loaded.
    bool NeedsLoading() const { return !children.empty() && children.front()->placeholder; }
  };

  explicit SelectiveSyncTree(std::string storageName);

  const std::string& storageName() const { return storageName_; }
  Row& root() { return *root_; }

  // Builds the tree from the storage's rules and known items.
  void loadChanges();
  // The row of a path relative to the storage ("" for the root), or null when it
  // is not in the tree (yet).
  Row* Find(const std::string& relativePath);

  // The server's items of the folder, one level, learnt into the rule store;
  // nothing when the listing failed. Goes to the server: call it off the window's
  // thread, then hand the items to stopProgressAndPopulateTreeView.
  std::optional<std::vector<CVSelectiveSyncItem>> FetchFolder(const std::string& folderPath) const;
  // Puts the fetched items under the opened row, which they take the state of;
  // a failed listing leaves the row without children.
  void stopProgressAndPopulateTreeView(Row& row, const std::optional<std::vector<CVSelectiveSyncItem>>& items);
  // Both, for a caller that may wait: true when the row could be loaded.
  bool loadFilesForExpandedItem(Row& row);

  // The user clicked the row's check box: a mixed row becomes checked.
  void syncedCheckboxPressed(Row& row);
  // Sets the row's state, its descendants' and its ancestors' as a click would.
  void SetChecked(Row& row, bool checked);

  // Writes the rules that the checks stand for, with the sync held still.
  void saveChanges(SyncControl& control);

  // True when no descendant (placeholders apart) differs from state.
  static bool checkChildrenIsSynced(const Row& row, int state);
  static void updateChildrenIsSynced(Row& row, int state);

 private:
  void populateTreeView(Row& row, std::vector<CVSelectiveSyncItem> items, bool withRootState);
  void saveSyncRule(const Row& row, class CVSelectiveSyncSite& site, CVSyncRulesDictionary& dictionary);
  void UpdateAncestors(Row& row);
  int StateForRule(const std::string& rootRelativePath) const;
  std::string RootRelative(const std::string& localPath) const;
  static Row& AddRow(Row& parent, std::unique_ptr<Row> row);
  static void AddPlaceholder(Row& row);

  std::string storageName_;
  std::string storagesRoot_;
  std::unique_ptr<Row> root_;
  CVSyncRulesDictionary rules_;
};
