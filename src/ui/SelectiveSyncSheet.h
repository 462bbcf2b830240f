#pragma once
// SelectiveSyncSheet: the folders of one storage with three-state check boxes,
// over SelectiveSyncTree. The tree is built on a worker before it is shown; a
// folder is listed from the server on a worker when first opened, and the tree
// refuses to open another meanwhile; items are made only for opened folders, so
// a storage of thousands of folders shows at once. OK writes the rules on a
// worker, with the sync held still, then closes the sheet.

#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QTreeWidget>
#include <functional>
#include <memory>
#include <string>

#include "SelectiveSyncTree.h"

class MainLoop;
class SettingsContext;

class SelectiveSyncSheet : public QDialog {
  Q_OBJECT
 public:
  // saved: called on the main thread once the rules are written.
  SelectiveSyncSheet(const std::string& storageName, SettingsContext& settings, MainLoop& loop,
                     std::function<void()> saved, QWidget* parent = nullptr);
  // True while the tree is built, a folder listed or the rules written.
  bool busy() const { return busy_; }
  // Escape, the close button and Cancel do nothing while a worker runs.
  void reject() override;

 private:
  void Loaded();
  void Expanded(QTreeWidgetItem* item);
  void Listed(QTreeWidgetItem* item, const std::optional<std::vector<CVSelectiveSyncItem>>& items);
  void CheckChanged(QTreeWidgetItem* item, int column);
  void Save();
  void EnableUI(bool enabled);
  // Makes the items of a row's children under its item (once), in batches, so
  // that a folder of thousands of entries never holds the main thread for long.
  void FillChildren(QTreeWidgetItem* item);
  void AddChildItems(QTreeWidgetItem* item, std::size_t from);
  QTreeWidgetItem* MakeItem(SelectiveSyncTree::Row& row);
  // Draws the states of the rows into the items that exist.
  void DrawStates(QTreeWidgetItem* item);
  static SelectiveSyncTree::Row* RowOf(QTreeWidgetItem* item);

  SettingsContext& settings_;
  MainLoop& loop_;
  std::function<void()> saved_;
  // Shared with the workers, which may outlive a closed sheet.
  std::shared_ptr<SelectiveSyncTree> tree_;
  bool busy_ = false;
  bool drawing_ = false;  // item changes made by the sheet, not by the user

  QLabel statusLabel_;
  QTreeWidget view_;
  QDialogButtonBox buttons_;
};
