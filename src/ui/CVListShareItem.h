#pragma once
// CVListShareItem: the sheet of Shared Out that lists the shares of the chosen
// items, one row per recipient with its check box, and sends the notice again
// to the checked ones through the shared files view. Window-modal over the
// shared files window, which owns it; main thread only.

#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <vector>

#include "ShareRowsTable.h"

class CVListShareItem : public QDialog {
  Q_OBJECT
 public:
  using Controller = ViewSharedFilesController;

  CVListShareItem(Controller& controller, QWidget* parent);
  // Shows the rows, checked as they come.
  void Open(std::vector<Controller::ShareRow> rows);

 private:
  Controller& controller_;
  QLabel label_;
  ShareRowsTable table_;
  QPushButton cancelButton_;
  QPushButton sendButton_;
};
