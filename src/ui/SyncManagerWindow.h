#pragma once
// SyncManagerWindow: the sync manager, made at the first opening and kept for the
// run. Its sync tab draws SyncProgressView from one snapshot of the progress
// record; its start and stop button hands the work to the caller, which runs it
// off the main thread. Closing it hides it.

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTabWidget>
#include <QWidget>
#include <functional>
#include <map>

#include "SyncProgressView.h"

class SyncManagerWindow : public QWidget {
  Q_OBJECT
 public:
  explicit SyncManagerWindow(std::function<void()> startStop, QWidget* parent = nullptr);
  // Puts a tab in place by its number: 0 sync, 1 settings, 2 storages, 3 info.
  void AddTab(int number, QWidget* page, const QString& title);
  // Chooses the tab of that number, when the window has it.
  void SetTabNumber(int tab);
  // storageName: the name of the storage at the record's index.
  void Draw(const SyncProgressView& view);
  void ShowInFront();

 private:
  QTabWidget tabs_;
  std::map<int, QWidget*> pages_;  // by tab number
  QWidget syncTab_;
  QLabel syncStateLabel_;
  QWidget storagesBox_;
  QLabel currentStorageNumber_;
  QLabel storageLabel_;
  QWidget storagesProcessedBox_;
  QProgressBar progressBar_;
  QLabel percentsOfStorage_;
  QLabel filesLeftLabel_;
  QWidget fileBox_;
  QLabel currentFileActionType_;
  QLabel currentFileName_;
  QLabel currentFileSizeLabel_;
  QLabel percentsOfFile_;
  QPushButton buttonStopStart_;
};
