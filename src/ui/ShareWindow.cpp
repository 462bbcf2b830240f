#include "ShareWindow.h"

#include <QApplication>
#include <algorithm>
#include <QCloseEvent>
#include <QFormLayout>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QPointer>
#include <QVBoxLayout>

#include "MainLoop.h"
#include "TrayIcon.h"
#include "WidgetHelpers.h"

namespace {

using Controller = InternalShare51WindowController;

QString Q(const std::string& text) { return QString::fromStdString(text); }

QDateTime ToQt(Controller::Clock::time_point time) {
  return QDateTime::fromSecsSinceEpoch(std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count());
}

Controller::Clock::time_point FromQt(const QDateTime& time) {
  return Controller::Clock::time_point(std::chrono::seconds(time.toSecsSinceEpoch()));
}

void SetText(QLineEdit& field, const std::string& text) {
  if (field.text() != Q(text)) field.setText(Q(text));  // keeps the cursor while the user types
}

// The rows of a recipient list, redrawn only when they changed.
void SetRows(QListWidget& list, const std::vector<RecipientItem>& rows) {
  QStringList texts;
  for (const auto& row : rows) {
    texts << (row.eMail.empty() || row.eMail == row.fullname ? Q(row.fullname) : Q(row.fullname + " <" + row.eMail + ">"));
  }
  QStringList shown;
  for (int i = 0; i < list.count(); ++i) shown << list.item(i)->text();
  if (shown == texts) return;
  const int current = list.currentRow();
  list.clear();
  list.addItems(texts);
  // The first row stands chosen, so that Add takes the best match at once.
  if (list.count() > 0) list.setCurrentRow(std::clamp(current, 0, list.count() - 1));
}

void Apply(QCheckBox& box, const Controller::CheckBox& state, bool controlsOn) {
  box.setChecked(state.state);
  box.setEnabled(state.enabled && controlsOn);
  box.setVisible(!state.hidden);
}

}  // namespace

ShareWindow::ShareWindow(SharingService& service, MainLoop& loop, CVConnection policy, QWidget* parent)
    : QWidget(parent),
      controller_(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); },
                  std::move(policy)) {
  setObjectName("shareWindow");
  setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  Build();
  controller_.onChange = [this] { Draw(); };
  controller_.onMessage = [this](const std::string& text) { Tell(text); };
}

ShareWindow::~ShareWindow() {
  // The controller outlives its callbacks' targets only until here.
  controller_.onChange = nullptr;
  controller_.onMessage = nullptr;
}

void ShareWindow::Build() {
  widgets::Name(searchTextField_, "searchTextField", "Find users");
  widgets::Name(searchList_, "searchList", "Users found");
  widgets::Name(moreButton_, "moreButton", "More users");
  widgets::Name(addSearchButton_, "addSearchButton", "Add the user");
  widgets::Name(nameField_, "nameField", "Recipient name");
  widgets::Name(emailField_, "emailField", "Recipient e-mail");
  widgets::Name(mobileField_, "mobileField", "Recipient mobile number");
  widgets::Name(addExternalButton_, "addExternalButton", "Add the recipient");
  widgets::Name(recipientList_, "recipientList", "Recipients");
  widgets::Name(trashButton_, "trashButton", "Remove the recipient");
  widgets::Name(titleText_, "titleText", "Request title");
  widgets::Name(subjectField_, "subjectField", "Subject");
  widgets::Name(messageField_, "messageField", "Message");
  widgets::Name(expiresCheckBox_, "expiresCheckBox", "Expires");
  widgets::Name(datePicker_, "datePicker", "Expiry date");
  widgets::Name(otpRequired_, "otpRequired", "One-time password");
  widgets::Name(viewOnly_, "viewOnly", "View only");
  widgets::Name(allNotificationCheckBox_, "allNotificationCheckBox", "Notifications");
  widgets::Name(cbNumAttemp_, "cbNumAttemp", "Limit the number of uploads");
  widgets::Name(numAttempText_, "numAttempText", "Number of uploads");
  widgets::Name(cbFileSize_, "cbFileSize", "Limit the file size");
  widgets::Name(fileLimitText_, "fileLimitText", "File size limit");
  widgets::Name(typeSize_, "typeSize", "Size unit");
  widgets::Name(cbFileRestriction_, "cbFileRestriction", "Limit the file types");
  widgets::Name(fileRestrictionText_, "fileRestrictionText", "File types");
  widgets::Name(fileLabel_, "fileLabel", "Files");
  widgets::Name(progressIndicator_, "progressIndicator", "Sharing");
  widgets::Name(cancelButton_, "cancelButton", "Cancel share");
  widgets::Name(shareButton_, "shareButton", "Share");

  searchTextField_.setPlaceholderText("Name or e-mail address");
  searchTextField_.setClearButtonEnabled(true);
  moreButton_.setText("More…");
  addSearchButton_.setText("Add");
  addExternalButton_.setText("Add");
  trashButton_.setText("Remove");
  cancelButton_.setText("Cancel");
  expiresCheckBox_.setText("Expires on");
  otpRequired_.setText("Require a one-time password");
  viewOnly_.setText("View only");
  cbNumAttemp_.setText("Number of uploads:");
  cbFileSize_.setText("File size limit:");
  cbFileRestriction_.setText("File types:");
  typeSize_.addItems({"MB", "GB"});
  datePicker_.setCalendarPopup(true);
  datePicker_.setDisplayFormat("yyyy-MM-dd HH:mm");
  progressIndicator_.setRange(0, 0);
  progressIndicator_.setTextVisible(false);
  progressIndicator_.setMaximumHeight(8);
  fileLabel_.setTextInteractionFlags(Qt::TextSelectableByMouse);
  searchList_.setMinimumHeight(90);
  recipientList_.setMinimumHeight(70);
  messageField_.setMinimumHeight(60);
  shareButton_.setDefault(true);

  auto* searchLayout = new QGridLayout(&searchBox_);
  searchLayout->setContentsMargins(0, 0, 0, 0);
  searchLayout->addWidget(&searchTextField_, 0, 0, 1, 2);
  searchLayout->addWidget(&searchList_, 1, 0, 1, 2);
  searchLayout->addWidget(&moreButton_, 2, 0, Qt::AlignLeft);
  searchLayout->addWidget(&addSearchButton_, 2, 1, Qt::AlignRight);

  auto* externalLayout = new QFormLayout(&externalBox_);
  externalLayout->setContentsMargins(0, 0, 0, 0);
  externalLayout->addRow("Name:", &nameField_);
  externalLayout->addRow("E-mail:", &emailField_);
  externalLayout->addRow("Mobile:", &mobileField_);
  externalLayout->addRow("", &addExternalButton_);

  auto* requestLayout = new QGridLayout(&requestBox_);
  requestLayout->setContentsMargins(0, 0, 0, 0);
  requestLayout->addWidget(&cbNumAttemp_, 0, 0);
  requestLayout->addWidget(&numAttempText_, 0, 1, 1, 2);
  requestLayout->addWidget(&cbFileSize_, 1, 0);
  requestLayout->addWidget(&fileLimitText_, 1, 1);
  requestLayout->addWidget(&typeSize_, 1, 2);
  requestLayout->addWidget(&cbFileRestriction_, 2, 0);
  requestLayout->addWidget(&fileRestrictionText_, 2, 1, 1, 2);

  auto* form = new QFormLayout;
  form->addRow("Files:", &fileLabel_);
  form->addRow("Recipients:", &searchBox_);
  form->addRow("", &externalBox_);
  auto* recipients = new QHBoxLayout;
  recipients->addWidget(&recipientList_, 1);
  recipients->addWidget(&trashButton_, 0, Qt::AlignTop);
  form->addRow("Shared with:", recipients);
  titleLabel_.setText("Title:");
  form->addRow(&titleLabel_, &titleText_);
  form->addRow("Subject:", &subjectField_);
  form->addRow("Message:", &messageField_);
  auto* expiry = new QHBoxLayout;
  expiry->addWidget(&expiresCheckBox_);
  expiry->addWidget(&datePicker_, 1);
  form->addRow(expiry);
  form->addRow(&otpRequired_);
  form->addRow(&viewOnly_);
  form->addRow(&allNotificationCheckBox_);
  form->addRow(&requestBox_);

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(&progressIndicator_, 1);
  buttons->addStretch(1);
  buttons->addWidget(&cancelButton_);
  buttons->addWidget(&shareButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addLayout(buttons);

  // As the user types, a search once they pause; the controller lets only the latest answer count.
  searchDelay_.setSingleShot(true);
  searchDelay_.setInterval(250);
  connect(&searchDelay_, &QTimer::timeout, this, [this] { controller_.searchUsers(searchTextField_.text().toStdString()); });
  connect(&searchTextField_, &QLineEdit::textChanged, this, [this] {
    if (!drawing_) searchDelay_.start();
  });
  connect(&moreButton_, &QPushButton::clicked, this, [this] { controller_.moreButtonClick(); });
  auto addFound = [this] {
    if (searchList_.currentRow() >= 0) controller_.addRecipients(static_cast<std::size_t>(searchList_.currentRow()));
  };
  connect(&addSearchButton_, &QPushButton::clicked, this, addFound);
  connect(&searchList_, &QListWidget::itemActivated, this, addFound);
  connect(&addExternalButton_, &QPushButton::clicked, this, [this] { controller_.addRecipients(0); });
  connect(&trashButton_, &QPushButton::clicked, this, [this] {
    if (recipientList_.currentRow() >= 0) controller_.deleteRecipient(static_cast<std::size_t>(recipientList_.currentRow()));
  });

  // Plain fields: what the user writes is the controller's.
  // textChanged, not textEdited: assistive technologies set a field's text whole.
  auto bind = [this](QLineEdit& field, std::string Controller::*member) {
    connect(&field, &QLineEdit::textChanged, this, [this, member](const QString& text) {
      if (!drawing_) controller_.*member = text.toStdString();
    });
  };
  bind(nameField_, &Controller::nameField);
  bind(emailField_, &Controller::emailField);
  bind(mobileField_, &Controller::mobileField);
  bind(titleText_, &Controller::titleText);
  bind(subjectField_, &Controller::subjectField);
  bind(fileRestrictionText_, &Controller::fileRestrictionText);
  connect(&messageField_, &QPlainTextEdit::textChanged, this, [this] {
    if (!drawing_) controller_.messageField = messageField_.toPlainText().toStdString();
  });
  connect(&numAttempText_, &QLineEdit::textChanged, this, [this](const QString& text) {
    if (!drawing_) controller_.controlTextDidChange(Controller::NumericField::NumAttemp, text.toStdString());
  });
  connect(&fileLimitText_, &QLineEdit::textChanged, this, [this](const QString& text) {
    if (!drawing_) controller_.controlTextDidChange(Controller::NumericField::FileLimit, text.toStdString());
  });
  connect(&typeSize_, &QComboBox::activated, this, [this](int index) { controller_.PopUpButtonClick(index); });

  connect(&expiresCheckBox_, &QCheckBox::clicked, this, [this](bool on) { controller_.expirationCheckBoxAction(on); });
  connect(&otpRequired_, &QCheckBox::clicked, this, [this](bool on) { controller_.otpCheckBoxClick(on); });
  connect(&viewOnly_, &QCheckBox::clicked, this, [this](bool on) { controller_.viewOnlyCheckBoxClick(on); });
  connect(&allNotificationCheckBox_, &QCheckBox::clicked, this,
          [this](bool on) { controller_.allNotificationCheckBox.state = on; });
  connect(&cbNumAttemp_, &QCheckBox::clicked, this, [this](bool on) { controller_.cbNumAttempClick(on); });
  connect(&cbFileSize_, &QCheckBox::clicked, this, [this](bool on) { controller_.cbSizeLimitClick(on); });
  connect(&cbFileRestriction_, &QCheckBox::clicked, this, [this](bool on) { controller_.cbFileRestrictionClick(on); });
  connect(&datePicker_, &QDateTimeEdit::dateTimeChanged, this, [this](const QDateTime& time) {
    if (!drawing_) controller_.setDateForExpires(FromQt(time));
  });

  connect(&cancelButton_, &QPushButton::clicked, this, &QWidget::close);
  connect(&shareButton_, &QPushButton::clicked, this, [this] { controller_.Share(); });
  resize(520, 640);
}

bool ShareWindow::Open(std::vector<std::string> files, Controller::WindowType type, std::function<void()> closed) {
  closed_ = std::move(closed);
  controller_.setArrayFiles(std::move(files));
  const bool allowed = controller_.setWindowType(type);
  controller_.setTarget([this] { Closed(); });
  allNotificationCheckBox_.setText(type == Controller::kUploadRequest ? "Notify me of all uploads"
                                                                      : "Notify me of all downloads");
  shareButton_.setAccessibleName(Q(controller_.shareButtonTitle));
  Draw();
  closing_ = !allowed;  // the refusal's message stands on its own
  return allowed;
}

void ShareWindow::ShowInFront() { widgets::ShowInFront(*this); }

void ShareWindow::Draw() {
  const Controller& c = controller_;
  drawing_ = true;
  const bool on = c.controlsEnabled;
  const bool internal = c.windowType == Controller::kInternalShare;
  const bool request = c.windowType == Controller::kUploadRequest;
  setWindowTitle(Q(c.title));
  fileLabel_.setText(Q(Controller::FileLabel(c.arrayFiles)));
  QStringList files;
  for (const auto& file : c.arrayFiles) files << Q(file);
  fileLabel_.setToolTip(files.join('\n'));

  searchBox_.setVisible(internal);
  externalBox_.setVisible(!internal);
  SetRows(searchList_, c.arraySearch);
  moreButton_.setVisible(!c.moreButtonHidden);
  SetText(nameField_, c.nameField);
  SetText(emailField_, c.emailField);
  SetText(mobileField_, c.mobileField);
  SetRows(recipientList_, c.arrayRecipients);

  titleLabel_.setVisible(request);
  titleText_.setVisible(request);
  SetText(titleText_, c.titleText);
  SetText(subjectField_, c.subjectField);
  if (messageField_.toPlainText() != Q(c.messageField)) messageField_.setPlainText(Q(c.messageField));

  Apply(expiresCheckBox_, c.expiresCheckBox, on);
  datePicker_.setMinimumDateTime(ToQt(c.minDate));
  datePicker_.setMaximumDateTime(c.maxDate ? ToQt(*c.maxDate) : QDateTime(QDate(9999, 12, 31), QTime(23, 59)));
  datePicker_.setDateTime(ToQt(c.dateForExpires));
  datePicker_.setEnabled(c.datePickerEnabled && on);
  Apply(otpRequired_, c.otpRequired, on);
  // Shares inside always go without a one-time password: the box would say nothing there.
  if (internal) otpRequired_.hide();
  Apply(viewOnly_, c.viewOnly, true);
  Apply(allNotificationCheckBox_, c.allNotificationCheckBox, on);
  mobileField_.setEnabled(c.mobileFieldEnabled);

  requestBox_.setVisible(request);
  Apply(cbNumAttemp_, c.cbNumAttemp, true);
  Apply(cbFileSize_, c.cbFileSize, true);
  Apply(cbFileRestriction_, c.cbFileRestriction, true);
  SetText(numAttempText_, c.numAttempText);
  SetText(fileLimitText_, c.fileLimitText);
  SetText(fileRestrictionText_, c.fileRestrictionText);
  numAttempText_.setEnabled(c.numAttempEnabled);
  fileLimitText_.setEnabled(c.fileLimitEnabled);
  fileRestrictionText_.setEnabled(c.fileRestrictionEnabled);
  typeSize_.setCurrentIndex(c.typeSize);

  // SwitchUI: what stays off while a worker runs.
  for (QWidget* control : std::initializer_list<QWidget*>{&addSearchButton_, &addExternalButton_, &trashButton_,
                                                          &shareButton_, &moreButton_, &searchTextField_}) {
    control->setEnabled(on);
  }
  shareButton_.setText(Q(c.shareButtonTitle));
  progressIndicator_.setVisible(c.inProgress);
  drawing_ = false;
}

void ShareWindow::Tell(const std::string& text) {
  // Shown once the controller's step is through: a share that ended closes the
  // window, and its message then stands on its own.
  QPointer<ShareWindow> self(this);
  QTimer::singleShot(0, qApp, [self, text] {
    widgets::ShowMessage(self && !self->closing_ ? self.data() : nullptr, text, "shareMessage");
  });
}

void ShareWindow::Closed() {
  if (closing_) return;
  closing_ = true;
  hide();
  if (closed_) closed_();
}

void ShareWindow::closeEvent(QCloseEvent* event) {
  if (busy()) {
    event->ignore();  // the share is on its way; its end closes the window
    return;
  }
  event->accept();
  Closed();
}
