#include "CVListShareItem.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

#include "WidgetHelpers.h"

CVListShareItem::CVListShareItem(Controller& controller, QWidget* parent) : QDialog(parent), controller_(controller) {
  widgets::Name(*this, "resendSheet", "Resend notice");
  widgets::Name(label_, "resendLabel", "Recipients");
  widgets::Name(table_, "recipientsTable", "Recipients of the notice");
  widgets::Name(cancelButton_, "cancelResendButton", "Cancel resend");
  widgets::Name(sendButton_, "sendResendButton", "Send the notice");
  setWindowTitle("Resend notice");
  setWindowModality(Qt::WindowModal);
  label_.setText("Send the notice of the share again to:");
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

  connect(&table_, &ShareRowsTable::checksChanged, this, [this] { sendButton_.setEnabled(table_.AnyChecked()); });
  connect(&cancelButton_, &QPushButton::clicked, this, &QDialog::reject);
  connect(&sendButton_, &QPushButton::clicked, this, [this] {
    controller_.ResendEmail(table_.Rows());
    accept();
  });
}

void CVListShareItem::Open(std::vector<Controller::ShareRow> rows) {
  table_.Show(std::move(rows));
  open();
}
