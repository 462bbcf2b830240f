#pragma once
// CVEditShare: the sheet of Shared Out that changes the expiry of the chosen
// items' shares, or ends them: one row per recipient with its check box, the
// expiry, "Save" and "Unshare" for the checked rows through the shared files
// view. Window-modal over the shared files window, which owns it; main thread.

#include <QCheckBox>
#include <QDateTimeEdit>
#include <QDialog>
#include <QPushButton>
#include <vector>

#include "CVConnection.h"
#include "ShareRowsTable.h"

class CVEditShare : public QDialog {
  Q_OBJECT
 public:
  using Controller = ViewSharedFilesController;

  CVEditShare(Controller& controller, QWidget* parent);
  // The dates count from the first row's date, within the account's limits (policy).
  void Open(std::vector<Controller::ShareRow> rows, const CVConnection& policy);

 private:
  void UpdateButtons();

  Controller& controller_;
  ShareRowsTable table_;
  QCheckBox expiresCheckBox_;
  QDateTimeEdit datePicker_;
  QPushButton unshareButton_;
  QPushButton cancelButton_;
  QPushButton saveButton_;
};
