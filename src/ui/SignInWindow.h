#pragma once
// SignInWindow: the sign-in of the desktop client over LoginController. The
// attempt runs on a worker with the form turned off; a change of account is
// asked on the main thread while the worker waits for the answer. After a
// sign-in the window shows the storages with how much of each is synced.
// Made at the first opening and kept for the run; closing it hides it.

#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

#include "WorkerQuestion.h"
#include "LoginController.h"

class MainLoop;

class SignInWindow : public QWidget {
  Q_OBJECT
 public:
  // closed: the user left the storage step; the sync is then asked for a pass.
  SignInWindow(LoginController& login, SettingsContext& settings, MainLoop& loop, std::function<void()> closed,
               QWidget* parent = nullptr);

  // Fills the address and the user of the saved account; the password stays empty.
  void Prefill(const std::string& url, const std::string& user);
  // Why the user has to sign in again, over the form until the next attempt.
  void ShowNotice(const std::string& text);
  void ShowInFront();

 private:
  void LoginButtonClick();
  void LoadingComponentShow(bool busy);
  void Finished(const LoginController::Result& result);
  void ShowStorages(const std::vector<LoginController::StorageRow>& rows);
  void UpdateLoginButton();
  // The folders of the selected storage, on the tree sheet.
  void ChooseFolders();
  // Redraws one row of the storage step, after its folders were chosen.
  void UpdateStorageRow(const LoginController::StorageRow& row);

  LoginController& login_;
  SettingsContext& settings_;
  MainLoop& loop_;
  std::function<void()> closed_;
  bool busy_ = false;
  std::string attemptUrl_;
  std::optional<std::string> lockedUrl_;  // the address the sign-in is locked for
  WorkerQuestion question_;

  QStackedWidget pages_;
  QWidget loginPage_;
  QLineEdit connectField_;
  QLineEdit usernameField_;
  QLineEdit tpassField_;
  QLabel statusLabel_;
  QProgressBar progressBar_;
  QLabel LabelErrorText_;
  QPushButton loginButton_;
  QWidget storagePage_;
  QTreeWidget storageList_;
  QPushButton chooseButton_;
  QPushButton closeButton_;
};
