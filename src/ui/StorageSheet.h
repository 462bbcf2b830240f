#pragma once
// StorageSheet: adds a storage or changes one, over StorageController. The kind
// is picked in a radio group of three, or in the list of five for the kinds only
// the server's policy makes. OK tests the storage on a worker with the controls
// off; a refusal keeps the sheet open with its message. With the storages locked
// by the policy the sheet only shows the storage.

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <functional>
#include <optional>
#include <string>

#include "CVSharepoint.h"
#include "StorageController.h"

class MainLoop;

class StorageSheet : public QDialog {
  Q_OBJECT
 public:
  // editing: the storage to change, or none to add one. saved: on the main
  // thread once the list changed.
  StorageSheet(std::optional<CVSharepoint> editing, bool editable, SettingsContext& settings, MainLoop& loop,
               std::function<void()> saved, QWidget* parent = nullptr);
  bool busy() const { return busy_; }
  // Escape, the close button and Cancel do nothing while a worker runs.
  void reject() override;

 private:
  void Save();
  void EnableUI(bool enabled);
  StorageController::Form FormOfFields() const;
  void ChooseFolders();

  std::optional<CVSharepoint> editing_;
  bool editable_;
  bool listOfFive_;
  SettingsContext& settings_;
  MainLoop& loop_;
  std::function<void()> saved_;
  StorageController controller_;
  bool busy_ = false;

  QLineEdit nameField_;
  QLineEdit storageURLField_;
  QButtonGroup radioGroupField_;
  QRadioButton sharePointRadio_, cifsRadio_, office365Radio_;
  QComboBox storageTypeComboBox_;
  QCheckBox useAlterAuth_;
  QLineEdit userNameField_;
  QLineEdit passwordField_;
  QLabel messageLabel_;
  QPushButton chooseIBButton_;
  QDialogButtonBox buttons_;
};
