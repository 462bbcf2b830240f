#include "CVEditShare.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

#include "InternalShare51WindowController.h"
#include "WidgetHelpers.h"

namespace {

using WallClock = ViewSharedFilesController::Clock;

QDateTime ToQt(WallClock::time_point time) {
  return QDateTime::fromSecsSinceEpoch(std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count());
}

}  // namespace

CVEditShare::CVEditShare(Controller& controller, QWidget* parent) : QDialog(parent), controller_(controller) {
  widgets::Name(*this, "expirySheet", "Change expiry");
  widgets::Name(table_, "sharesTable", "Shares to change");
  widgets::Name(expiresCheckBox_, "expiresCheckBox", "Expires");
  widgets::Name(datePicker_, "datePicker", "Expiry date");
  widgets::Name(unshareButton_, "unshareLinksButton", "Unshare the checked");
  widgets::Name(saveButton_, "saveExpiryButton", "Save expiry");
  widgets::Name(cancelButton_, "cancelExpiryButton", "Cancel edit");
  setWindowTitle("Change expiry");
  setWindowModality(Qt::WindowModal);
  expiresCheckBox_.setText("Expires on");
  datePicker_.setCalendarPopup(true);
  datePicker_.setDisplayFormat("yyyy-MM-dd HH:mm");
  unshareButton_.setText("Unshare");
  saveButton_.setText("Save");
  saveButton_.setDefault(true);
  cancelButton_.setText("Cancel");
  auto* expiry = new QHBoxLayout;
  expiry->addWidget(&expiresCheckBox_);
  expiry->addWidget(&datePicker_, 1);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(&unshareButton_);
  buttons->addStretch(1);
  buttons->addWidget(&cancelButton_);
  buttons->addWidget(&saveButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&table_, 1);
  layout->addLayout(expiry);
  layout->addLayout(buttons);
  resize(520, 320);

  connect(&table_, &ShareRowsTable::checksChanged, this, &CVEditShare::UpdateButtons);
  connect(&expiresCheckBox_, &QCheckBox::toggled, &datePicker_, &QWidget::setEnabled);
  connect(&cancelButton_, &QPushButton::clicked, this, &QDialog::reject);
  connect(&unshareButton_, &QPushButton::clicked, this, [this] {
    controller_.UnshareLinks(table_.Rows());
    accept();
  });
  connect(&saveButton_, &QPushButton::clicked, this, [this] {
    std::optional<WallClock::time_point> until;
    if (expiresCheckBox_.isChecked()) {
      until = WallClock::time_point(std::chrono::seconds(datePicker_.dateTime().toSecsSinceEpoch()));
    }
    controller_.ExtendShare(table_.Rows(), until);
    accept();
  });
}

void CVEditShare::Open(std::vector<Controller::ShareRow> rows, const CVConnection& policy) {
  std::optional<WallClock::time_point> sharedAt;
  if (!rows.empty() && rows.front().kSharedAt) sharedAt = WallClock::time_point(*rows.front().kSharedAt);
  const auto range = InternalShare51WindowController::ExpiryDates(WallClock::now(), sharedAt,
                                                                  policy.DefaultShareDuration, policy.MaxDuration);
  datePicker_.setMinimumDateTime(ToQt(range.min));
  datePicker_.setMaximumDateTime(range.max ? ToQt(*range.max) : QDateTime(QDate(9999, 12, 31), QTime(23, 59)));
  datePicker_.setDateTime(ToQt(range.start));
  // A share without an expiry may keep none, unless the administrator asks for one.
  expiresCheckBox_.setChecked(true);
  expiresCheckBox_.setEnabled(!policy.ExpireRequired);
  datePicker_.setEnabled(true);
  table_.Show(std::move(rows));
  open();
}

void CVEditShare::UpdateButtons() {
  const bool any = table_.AnyChecked();
  unshareButton_.setEnabled(any);
  saveButton_.setEnabled(any);
}
