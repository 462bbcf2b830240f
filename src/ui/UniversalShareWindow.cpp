#include "UniversalShareWindow.h"

#include <QCloseEvent>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QVBoxLayout>

#include "InternalShare51WindowController.h"
#include "MainLoop.h"
#include "TrayIcon.h"
#include "WidgetHelpers.h"

namespace {
QString Q(const std::string& text) { return QString::fromStdString(text); }
}  // namespace

UniversalShareWindow::UniversalShareWindow(SharingService& service, MainLoop& loop, CVConnection policy,
                                           QWidget* parent)
    : QWidget(parent),
      controller_(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); },
                  std::move(policy)),
      sheet_(this) {
  setObjectName("universalShareWindow");
  setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  Build();
  BuildSheet();
  controller_.onChange = [this] { Draw(); };
  controller_.onMessage = [this](const std::string& text) {
    QWidget* parent = closing_ ? nullptr : (sheet_.isVisible() ? static_cast<QWidget*>(&sheet_) : this);
    widgets::ShowMessage(parent, text, "shareMessage");
  };
}

UniversalShareWindow::~UniversalShareWindow() {
  controller_.onChange = nullptr;
  controller_.onMessage = nullptr;
}

void UniversalShareWindow::Build() {
  widgets::Name(fileLabel_, "fileLabel", "Files");
  widgets::Name(recipientTable_, "recipientTable", "Recipients");
  widgets::Name(addButton_, "addButton", "Add recipients");
  widgets::Name(removeButton_, "removeButton", "Remove the recipient");
  widgets::Name(comboBoxValidity_, "comboBoxValidity", "Validity");
  widgets::Name(subjectField_, "subjectField", "Subject");
  widgets::Name(messageField_, "messageField", "Message");
  widgets::Name(cancelButton_, "cancelButton", "Cancel share");
  widgets::Name(shareButton_, "shareButton", "Share");
  recipientTable_.setColumnCount(2);
  recipientTable_.setHorizontalHeaderLabels({"Name", "E-mail"});
  recipientTable_.horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
  recipientTable_.verticalHeader()->hide();
  recipientTable_.setSelectionBehavior(QAbstractItemView::SelectRows);
  recipientTable_.setEditTriggers(QAbstractItemView::NoEditTriggers);
  addButton_.setText("Add…");
  removeButton_.setText("Remove");
  cancelButton_.setText("Cancel");
  shareButton_.setText("Share");
  shareButton_.setDefault(true);

  auto* form = new QFormLayout;
  form->addRow("Files:", &fileLabel_);
  auto* table = new QHBoxLayout;
  table->addWidget(&recipientTable_, 1);
  auto* tableButtons = new QVBoxLayout;
  tableButtons->addWidget(&addButton_);
  tableButtons->addWidget(&removeButton_);
  tableButtons->addStretch(1);
  table->addLayout(tableButtons);
  form->addRow("Recipients:", table);
  form->addRow("Valid for:", &comboBoxValidity_);
  form->addRow("Subject:", &subjectField_);
  form->addRow("Message:", &messageField_);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(&cancelButton_);
  buttons->addWidget(&shareButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addLayout(buttons);

  connect(&addButton_, &QPushButton::clicked, this, [this] { sheet_.open(); });
  connect(&removeButton_, &QPushButton::clicked, this, [this] {
    if (recipientTable_.currentRow() >= 0) controller_.deleteRecipient(static_cast<std::size_t>(recipientTable_.currentRow()));
  });
  connect(&comboBoxValidity_, &QComboBox::activated, this,
          [this](int index) { controller_.selectedValidity = static_cast<std::size_t>(std::max(index, 0)); });
  connect(&subjectField_, &QLineEdit::textChanged, this,
          [this](const QString& text) { controller_.subject = text.toStdString(); });
  connect(&messageField_, &QPlainTextEdit::textChanged, this,
          [this] { controller_.message = messageField_.toPlainText().toStdString(); });
  connect(&cancelButton_, &QPushButton::clicked, this, &QWidget::close);
  connect(&shareButton_, &QPushButton::clicked, this, [this] { controller_.Share(); });
  resize(480, 420);
}

void UniversalShareWindow::BuildSheet() {
  sheet_.setObjectName("recipientSheet");
  sheet_.setWindowModality(Qt::WindowModal);
  widgets::Name(searchField_, "searchField", "Find users");
  widgets::Name(searchButton_, "searchButton", "Search");
  widgets::Name(foundList_, "foundList", "Users found");
  widgets::Name(nameField_, "nameField", "Recipient name");
  widgets::Name(emailField_, "emailField", "Recipient e-mail");
  widgets::Name(mobileField_, "mobileField", "Recipient mobile number");
  widgets::Name(sheetAddButton_, "sheetAddButton", "Add the recipient");
  widgets::Name(sheetCloseButton_, "sheetCloseButton", "Close the recipients");
  searchButton_.setText("Search");
  sheetAddButton_.setText("Add");
  sheetCloseButton_.setText("Close");
  auto* search = new QHBoxLayout;
  search->addWidget(&searchField_, 1);
  search->addWidget(&searchButton_);
  auto* internal = new QVBoxLayout(&internalPage_);
  internal->setContentsMargins(0, 0, 0, 0);
  internal->addLayout(search);
  internal->addWidget(&foundList_);
  auto* external = new QFormLayout(&externalPage_);
  external->setContentsMargins(0, 0, 0, 0);
  external->addRow("Name:", &nameField_);
  external->addRow("E-mail:", &emailField_);
  external->addRow("Mobile:", &mobileField_);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(&sheetCloseButton_);
  buttons->addWidget(&sheetAddButton_);
  auto* layout = new QVBoxLayout(&sheet_);
  layout->addWidget(&internalPage_);
  layout->addWidget(&externalPage_);
  layout->addLayout(buttons);

  auto find = [this] { controller_.FindUsers(searchField_.text().toStdString()); };
  connect(&searchButton_, &QPushButton::clicked, this, find);
  connect(&searchField_, &QLineEdit::returnPressed, this, find);
  auto add = [this] {
    if (controller_.windowType == Controller::kInternalShare) {
      for (const auto* item : foundList_.selectedItems()) controller_.AddFoundUser(static_cast<std::size_t>(foundList_.row(item)));
      return;
    }
    if (controller_.AddExternalRecipient(nameField_.text().toStdString(), emailField_.text().toStdString(),
                                         mobileField_.text().toStdString())) {
      for (QLineEdit* field : {&nameField_, &emailField_, &mobileField_}) field->clear();
    }
  };
  connect(&sheetAddButton_, &QPushButton::clicked, this, add);
  connect(&foundList_, &QListWidget::itemActivated, this, add);
  connect(&sheetCloseButton_, &QPushButton::clicked, &sheet_, &QDialog::reject);
  foundList_.setSelectionMode(QAbstractItemView::ExtendedSelection);
}

bool UniversalShareWindow::Open(std::vector<std::string> files, Controller::WindowType type,
                                std::function<void()> closed) {
  closed_ = std::move(closed);
  controller_.setArrayFiles(std::move(files));
  const bool allowed = controller_.setWindowType(type);
  controller_.setTarget([this] {
    closing_ = true;
    close();
  });
  closing_ = !allowed;
  Draw();
  return allowed;
}

void UniversalShareWindow::Draw() {
  const Controller& c = controller_;
  setWindowTitle(Q(c.title));
  sheet_.setWindowTitle(c.windowType == Controller::kInternalShare ? "Add users" : "Add a recipient");
  fileLabel_.setText(Q(InternalShare51WindowController::FileLabel(c.arrayFiles)));
  internalPage_.setVisible(c.windowType == Controller::kInternalShare);
  externalPage_.setVisible(c.windowType == Controller::kExternalShare);

  QStringList items;
  for (int i = 0; i < comboBoxValidity_.count(); ++i) items << comboBoxValidity_.itemText(i);
  QStringList wanted;
  for (const auto& label : c.comboBoxValidity) wanted << Q(label);
  if (items != wanted) {
    comboBoxValidity_.clear();
    comboBoxValidity_.addItems(wanted);
  }
  comboBoxValidity_.setCurrentIndex(static_cast<int>(c.selectedValidity));

  recipientTable_.setRowCount(static_cast<int>(c.recipients.size()));
  for (std::size_t i = 0; i < c.recipients.size(); ++i) {
    recipientTable_.setItem(static_cast<int>(i), 0, new QTableWidgetItem(Q(c.recipients[i].recName)));
    recipientTable_.setItem(static_cast<int>(i), 1, new QTableWidgetItem(Q(c.recipients[i].recEmail)));
  }
  foundList_.clear();
  for (const auto& user : c.foundUsers) foundList_.addItem(Q(user.recName + " <" + user.recEmail + ">"));

  for (QWidget* control : std::initializer_list<QWidget*>{&addButton_, &removeButton_, &shareButton_, &comboBoxValidity_,
                                                          &searchButton_, &sheetAddButton_}) {
    control->setEnabled(c.controlsEnabled);
  }
}

void UniversalShareWindow::closeEvent(QCloseEvent* event) {
  if (busy()) {
    event->ignore();
    return;
  }
  event->accept();
  closing_ = true;
  sheet_.hide();
  if (closed_) {
    auto closed = std::move(closed_);
    closed_ = nullptr;
    closed();
  }
}
