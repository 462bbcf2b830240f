#include "CVListShareItem.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QVBoxLayout>

#include "WidgetHelpers.h"

namespace {
enum Column { kRecipient, kItem, kShared };
}  // namespace

CVListShareItem::CVListShareItem(Controller& controller, QWidget* parent) : QDialog(parent), controller_(controller) {
  widgets::Name(*this, "resendSheet", "Resend notice");
  widgets::Name(label_, "resendLabel", "Recipients");
  widgets::Name(table_, "recipientsTable", "Recipients of the notice");
  widgets::Name(cancelButton_, "cancelResendButton", "Cancel");
  widgets::Name(sendButton_, "sendResendButton", "Send the notice");
  setWindowTitle("Resend notice");
  setWindowModality(Qt::WindowModal);
  label_.setText("Send the notice of the share again to:");
  table_.setRootIsDecorated(false);
  table_.setSelectionMode(QAbstractItemView::NoSelection);
  table_.setHeaderLabels({"Recipient", "Item", "Shared"});
  table_.header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_.header()->setSectionResizeMode(kRecipient, QHeaderView::Stretch);
  cancelButton_.setText("Cancel");
  sendButton_.setText("Send");
  sendButton_.setDefault(true);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(&cancelButton_);
  buttons->addWidget(&sendButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&label_);
  layout->addWidget(&table_, 1);
  layout->addLayout(buttons);
  resize(520, 300);

  connect(&table_, &QTreeWidget::itemChanged, this, &CVListShareItem::UpdateButtons);
  connect(&cancelButton_, &QPushButton::clicked, this, &QDialog::reject);
  connect(&sendButton_, &QPushButton::clicked, this, [this] {
    controller_.ResendEmail(Rows());
    accept();
  });
}

void CVListShareItem::Open(std::vector<Controller::ShareRow> rows) {
  rows_ = std::move(rows);
  {
    QSignalBlocker quiet(table_);
    table_.clear();
    for (const auto& row : rows_) {
      auto* item = new QTreeWidgetItem({QString::fromStdString(row.name), QString::fromStdString(row.file_name)});
      item->setIcon(kItem, style()->standardIcon(row.isFolder ? QStyle::SP_DirIcon : QStyle::SP_FileIcon));
      item->setText(kShared, widgets::DateText(row.kSharedAt));
      item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable);
      item->setCheckState(kRecipient, row.chb ? Qt::Checked : Qt::Unchecked);
      table_.addTopLevelItem(item);
    }
  }
  UpdateButtons();
  open();
}

std::vector<ViewSharedFilesController::ShareRow> CVListShareItem::Rows() const {
  auto rows = rows_;
  for (std::size_t row = 0; row < rows.size(); ++row) {
    rows[row].chb = table_.topLevelItem(static_cast<int>(row))->checkState(kRecipient) == Qt::Checked;
  }
  return rows;
}

void CVListShareItem::UpdateButtons() { sendButton_.setEnabled(!Controller::SearcIDForRecipients(Rows()).empty()); }
