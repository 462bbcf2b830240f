#pragma once
// ShareWindow: the share window (inside, outside, or a request for files) over
// InternalShare51WindowController, which keeps every rule and runs the server
// calls on its workers; this class only binds widgets to it. The controller is
// the model: a user's edit goes to it, and its onChange redraws every control.
// Made by its opener for one share; closing it (or the end of the share) calls
// the opener's closed callback, which may delete the window. It does not close
// while a share is being made.

#include <QCheckBox>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QWidget>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "InternalShare51WindowController.h"

class MainLoop;

class ShareWindow : public QWidget {
  Q_OBJECT
 public:
  using Controller = InternalShare51WindowController;

  ShareWindow(SharingService& service, MainLoop& loop, CVConnection policy, QWidget* parent = nullptr);
  ~ShareWindow() override;

  // The opener's set-up: the files, the kind and what to call on close. False,
  // with the reason shown, when the policy closes this kind of share.
  bool Open(std::vector<std::string> files, Controller::WindowType type, std::function<void()> closed);
  void ShowInFront();
  Controller& controller() { return controller_; }
  bool busy() const { return controller_.inProgress; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void Build();
  void Draw();
  void Tell(const std::string& text);
  void Closed();

  Controller controller_;
  std::function<void()> closed_;
  bool drawing_ = false;  // redrawing: the widgets' change signals are not the user's
  bool closing_ = false;
  QTimer searchDelay_;    // a search once the user pauses typing

  QLabel fileLabel_;
  QWidget searchBox_;
  QLineEdit searchTextField_;
  QListWidget searchList_;
  QPushButton moreButton_;
  QPushButton addSearchButton_;
  QWidget externalBox_;
  QLineEdit nameField_;
  QLineEdit emailField_;
  QLineEdit mobileField_;
  QPushButton addExternalButton_;
  QListWidget recipientList_;
  QPushButton trashButton_;
  QLabel titleLabel_;
  QLineEdit titleText_;
  QLineEdit subjectField_;
  QPlainTextEdit messageField_;
  QCheckBox expiresCheckBox_;
  QDateTimeEdit datePicker_;
  QCheckBox otpRequired_;
  QCheckBox viewOnly_;
  QCheckBox allNotificationCheckBox_;
  QWidget requestBox_;
  QCheckBox cbNumAttemp_;
  QLineEdit numAttempText_;
  QCheckBox cbFileSize_;
  QLineEdit fileLimitText_;
  QComboBox typeSize_;
  QCheckBox cbFileRestriction_;
  QLineEdit fileRestrictionText_;
  QProgressBar progressIndicator_;
  QPushButton cancelButton_;
  QPushButton shareButton_;
};
