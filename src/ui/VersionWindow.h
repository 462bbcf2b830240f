#pragma once
// VersionWindow: the versions the server keeps of one file of a storage, over
// VersionWindowController: the table (number, date, author, size), "Restore"
// and "Save as…". Every server call runs on the controller's workers; the
// window turns its buttons off meanwhile and shows the spinner, or the amount
// received while a version is saved. The save panel offers the download folder
// and warns about a place inside a storage, which the sync would upload.

#include <QDialog>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeWidget>
#include <functional>
#include <memory>
#include <string>

#include "VersionWindowController.h"

class MainLoop;

class VersionWindow : public QDialog {
  Q_OBJECT
 public:
  // restored: on the main thread after a restore, with the storage's name, so
  // that the client lists the storage again and brings the file back.
  VersionWindow(VersionService& service, MainLoop& loop, const std::string& localPath,
                std::function<void(const std::string&)> restored, QWidget* parent = nullptr);

  VersionWindowController& controller() { return controller_; }
  // Saves the selected version to target, as the save panel does once accepted.
  void SaveSelectedTo(const QString& target);

 private:
  void Redraw();
  void UpdateButtons();
  void ShowMessage(const QString& text, const QString& informative = {});
  std::optional<std::size_t> SelectedRow() const;
  void SaveAs();

  VersionWindowController controller_;
  QLabel fileLabel_;
  QTreeWidget versionsTableView_;
  QProgressBar asyncProgressIndicator_;
  QProgressBar fileDownloadAmountProgressIndicator_;
  QPushButton restoreButton_;
  QPushButton downloadButton_;
  QPushButton okButton_;
};
