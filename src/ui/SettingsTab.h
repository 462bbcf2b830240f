#pragma once
// SettingsTab: the account tab of the sync manager over SyncManagerSettings:
// address, user, password, the interval between syncs, the start with the
// system and the notifications. Save and apply test the account on a worker with
// the tab off; another account is confirmed first and wipes only after it passed.
// The saved password is never put in the field: left empty, it stays as it is.

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QWidget>
#include <functional>
#include <string>

#include "WorkerQuestion.h"

class MainLoop;
class SettingsContext;

class SettingsTab : public QWidget {
  Q_OBJECT
 public:
  // closeWindow: save and cancel end by closing the window.
  SettingsTab(SettingsContext& settings, MainLoop& loop, std::function<void()> closeWindow, QWidget* parent = nullptr);
  // Fills the tab from the configuration.
  void LoadSettingsTabData();
  bool busy() const { return busy_; }

 private:
  void SaveSettings(bool closeAfter);
  void CancelSettings();
  void EnableUI(bool enabled);

  SettingsContext& settings_;
  MainLoop& loop_;
  std::function<void()> closeWindow_;
  WorkerQuestion question_;
  bool busy_ = false;
  std::string loadedUrl_, loadedUser_;

  QLineEdit urlField_, userField_, passwordField_;
  QSpinBox intervalField_;
  QCheckBox autostartBox_, notificationsBox_;
  QLabel messageLabel_;
  QPushButton saveButton_, applyButton_, cancelButton_;
};
