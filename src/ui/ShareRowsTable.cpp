#include "ShareRowsTable.h"

#include <QHeaderView>

#include "WidgetHelpers.h"

namespace {
enum Column { kRecipient, kItem, kShared };
}  // namespace

ShareRowsTable::ShareRowsTable(QWidget* parent) : QTreeWidget(parent) {
  setRootIsDecorated(false);
  setSelectionMode(QAbstractItemView::NoSelection);
  setHeaderLabels({"Recipient", "Item", "Shared"});
  header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  header()->setSectionResizeMode(kRecipient, QHeaderView::Stretch);
  connect(this, &QTreeWidget::itemChanged, this, &ShareRowsTable::checksChanged);
}

void ShareRowsTable::Show(std::vector<Row> rows) {
  rows_ = std::move(rows);
  {
    QSignalBlocker quiet(this);
    clear();
    for (const auto& row : rows_) {
      auto* item = new QTreeWidgetItem({QString::fromStdString(row.name), QString::fromStdString(row.file_name),
                                        widgets::DateText(row.kSharedAt)});
      item->setIcon(kItem, style()->standardIcon(row.isFolder ? QStyle::SP_DirIcon : QStyle::SP_FileIcon));
      item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable);
      item->setCheckState(kRecipient, row.chb ? Qt::Checked : Qt::Unchecked);
      addTopLevelItem(item);
    }
  }
  emit checksChanged();
}

std::vector<ShareRowsTable::Row> ShareRowsTable::Rows() const {
  auto rows = rows_;
  for (std::size_t row = 0; row < rows.size(); ++row) {
    rows[row].chb = topLevelItem(static_cast<int>(row))->checkState(kRecipient) == Qt::Checked;
  }
  return rows;
}
