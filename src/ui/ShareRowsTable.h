#pragma once
// ShareRowsTable: the list of the sheets of Shared Out, one share a row
// (recipient, item, date shared) with its check box. checksChanged follows
// the user's ticks. Main thread only.

#include <QTreeWidget>
#include <vector>

#include "ViewSharedFilesController.h"

class ShareRowsTable : public QTreeWidget {
  Q_OBJECT
 public:
  using Row = ViewSharedFilesController::ShareRow;

  explicit ShareRowsTable(QWidget* parent = nullptr);
  void Show(std::vector<Row> rows);
  // The rows with the check boxes as the user left them.
  std::vector<Row> Rows() const;
  bool AnyChecked() const { return !ViewSharedFilesController::SearcIDForRecipients(Rows()).empty(); }

 signals:
  void checksChanged();

 private:
  std::vector<Row> rows_;
};
