#pragma once
// UniversalShareWindow: the first-generation share window over
// UniversalSharingWindowController: the recipients in a table, added through a
// sheet (users found on the server inside, name, e-mail and mobile outside),
// the validity from a fixed list. Only binds widgets to the controller, which
// runs the calls on its workers. Closing it calls the opener's closed callback;
// it does not close while a share is being made.

#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableWidget>
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

#include "UniversalSharingWindowController.h"

class MainLoop;

class UniversalShareWindow : public QWidget {
  Q_OBJECT
 public:
  using Controller = UniversalSharingWindowController;

  UniversalShareWindow(SharingService& service, MainLoop& loop, CVConnection policy, QWidget* parent = nullptr);
  ~UniversalShareWindow() override;

  // False, with the reason shown, when the policy closes this kind of share.
  bool Open(std::vector<std::string> files, Controller::WindowType type, std::function<void()> closed);
  Controller& controller() { return controller_; }
  bool busy() const { return controller_.inProgress; }
  // The sheet that adds recipients of the window's kind.
  QDialog& recipientSheet() { return sheet_; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void Build();
  void BuildSheet();
  void Draw();

  Controller controller_;
  std::function<void()> closed_;
  bool closing_ = false;

  QLabel fileLabel_;
  QTableWidget recipientTable_;
  QPushButton addButton_;
  QPushButton removeButton_;
  QComboBox comboBoxValidity_;
  QLineEdit subjectField_;
  QPlainTextEdit messageField_;
  QPushButton cancelButton_;
  QPushButton shareButton_;

  QDialog sheet_;
  QWidget internalPage_;
  QLineEdit searchField_;
  QPushButton searchButton_;
  QListWidget foundList_;
  QWidget externalPage_;
  QLineEdit nameField_;
  QLineEdit emailField_;
  QLineEdit mobileField_;
  QPushButton sheetAddButton_;
  QPushButton sheetCloseButton_;
};
