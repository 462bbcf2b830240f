#pragma once
// StoragesTab: the storages tab of the sync manager: the list with each
// storage's sync state, add and edit (the storage sheet), remove by name,
// choose folders (the tree sheet) and retrieve the server's storage settings.
// Every change runs on a worker with the tab's controls off. With the storages
// locked by the policy, add and remove are off and edit only shows.

#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QWidget>
#include <functional>
#include <string>

class MainLoop;
class SettingsContext;

class StoragesTab : public QWidget {
  Q_OBJECT
 public:
  StoragesTab(SettingsContext& settings, MainLoop& loop, QWidget* parent = nullptr);
  // ReloadTableViewData: the list from the configuration, the selection kept.
  void Reload();
  bool busy() const { return busy_; }

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  void OpenSheet(bool edit);
  void RemoveSite();
  void RetrieveSettings();
  void ChooseFolders();
  // LockStoragesTabUI / UnlockStoragesTabUI, and the policy's lock of the buttons.
  void EnableUI(bool enabled);
  std::string SelectedName() const;
  // Runs work on a worker with the tab off, then shows its message and reloads.
  template <typename Work>
  void RunOperation(const QString& busyText, Work work);

  SettingsContext& settings_;
  MainLoop& loop_;
  bool busy_ = false;

  QTreeWidget storageList_;
  QPushButton addButton_, editButton_, removeButton_, chooseButton_, retrieveButton_;
  QLabel messageLabel_;
};
