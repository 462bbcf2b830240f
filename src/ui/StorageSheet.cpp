#include "StorageSheet.h"

#include <QFormLayout>
#include <QGridLayout>
#include <QPointer>
#include <QVBoxLayout>

#include "SelectiveSyncSheet.h"
#include "SettingsContext.h"
#include "WidgetHelpers.h"

namespace {
const char* LabelOf(const std::string& type) {
  for (const auto& kind : StorageController::kKinds) {
    if (type == kind.type) return kind.label;
  }
  return "";
}
}  // namespace

StorageSheet::StorageSheet(std::optional<CVSharepoint> editing, bool editable, SettingsContext& settings,
                           MainLoop& loop, std::function<void()> saved, QWidget* parent)
    : QDialog(parent),
      editing_(std::move(editing)),
      editable_(editable),
      // Storages of the kinds only the policy makes are shown in the list of five.
      listOfFive_(editing_ && (editing_->StorageType == "S3" || editing_->StorageType == "AZURE")),
      settings_(settings),
      loop_(loop),
      saved_(std::move(saved)),
      controller_(settings),
      buttons_(QDialogButtonBox::Ok | QDialogButtonBox::Cancel) {
  setWindowTitle(editing_ ? "Edit storage" : "Add storage");
  setObjectName("storageSheet");
  setWindowModality(Qt::WindowModal);
  auto* form = new QFormLayout;
  form->addRow("&Name:", &nameField_);
  form->addRow("&URL:", &storageURLField_);
  auto* kinds = new QWidget;
  auto* grid = new QGridLayout(kinds);
  grid->setContentsMargins(0, 0, 0, 0);
  sharePointRadio_.setText(LabelOf("SP"));
  cifsRadio_.setText(LabelOf("CIFS"));
  office365Radio_.setText(LabelOf("O365"));
  grid->addWidget(&sharePointRadio_, 0, 0);
  grid->addWidget(&cifsRadio_, 0, 1);
  grid->addWidget(&office365Radio_, 1, 0);
  radioGroupField_.addButton(&sharePointRadio_);
  radioGroupField_.addButton(&cifsRadio_);
  radioGroupField_.addButton(&office365Radio_);
  for (const auto& kind : StorageController::kKinds) storageTypeComboBox_.addItem(kind.label, QString(kind.type));
  form->addRow("Kind:", listOfFive_ ? static_cast<QWidget*>(&storageTypeComboBox_) : kinds);
  if (listOfFive_) kinds->hide(); else storageTypeComboBox_.hide();
  useAlterAuth_.setText("This storage has its own user name and password");
  form->addRow(&useAlterAuth_);
  form->addRow("User name:", &userNameField_);
  form->addRow("Password:", &passwordField_);
  passwordField_.setEchoMode(QLineEdit::Password);
  if (editing_ && editing_->UseAlterAuth) passwordField_.setPlaceholderText("The saved password; enter it to save");
  widgets::Name(nameField_, "nameField", "Storage name");
  widgets::Name(storageURLField_, "storageURLField", "Storage URL");
  widgets::Name(sharePointRadio_, "sharePointRadio", LabelOf("SP"));
  widgets::Name(cifsRadio_, "cifsRadio", LabelOf("CIFS"));
  widgets::Name(office365Radio_, "office365Radio", LabelOf("O365"));
  widgets::Name(storageTypeComboBox_, "storageTypeComboBox", "Kind of storage");
  widgets::Name(useAlterAuth_, "useAlterAuth", "Own credentials");
  widgets::Name(userNameField_, "userNameField", "Storage user name");
  widgets::Name(passwordField_, "passwordField", "Storage password");
  widgets::Name(messageLabel_, "messageLabel", "Message");
  widgets::Name(chooseIBButton_, "chooseIBButton", "Choose folders");
  buttons_.button(QDialogButtonBox::Ok)->setObjectName("saveButton");
  buttons_.button(QDialogButtonBox::Ok)->setAccessibleName("Save the storage");
  buttons_.button(QDialogButtonBox::Cancel)->setObjectName("cancelButton");
  buttons_.button(QDialogButtonBox::Cancel)->setAccessibleName(editable_ ? "Cancel" : "Close");
  messageLabel_.setWordWrap(true);
  messageLabel_.setStyleSheet("color: #d0342c");
  chooseIBButton_.setText("Choose folders…");
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(&messageLabel_);
  layout->addWidget(&chooseIBButton_, 0, Qt::AlignLeft);
  layout->addStretch(1);
  layout->addWidget(&buttons_);

  auto credentials = [this] {
    userNameField_.setEnabled(editable_ && !busy_ && useAlterAuth_.isChecked());
    passwordField_.setEnabled(editable_ && !busy_ && useAlterAuth_.isChecked());
  };
  connect(&useAlterAuth_, &QCheckBox::toggled, this, credentials);
  connect(&buttons_, &QDialogButtonBox::accepted, this, &StorageSheet::Save);
  connect(&buttons_, &QDialogButtonBox::rejected, this, &StorageSheet::reject);
  connect(&chooseIBButton_, &QPushButton::clicked, this, &StorageSheet::ChooseFolders);

  // showCurrentSiteInfo: the storage as it is; its password is never shown.
  if (editing_) {
    nameField_.setText(QString::fromStdString(editing_->Name));
    storageURLField_.setText(QString::fromStdString(StorageController::ShownUrl(editing_->Url)));
    useAlterAuth_.setChecked(editing_->UseAlterAuth);
    userNameField_.setText(QString::fromStdString(editing_->UserName));
    const std::string& type = editing_->StorageType;
    (type == "CIFS" ? cifsRadio_ : type == "O365" ? office365Radio_ : sharePointRadio_).setChecked(true);
    storageTypeComboBox_.setCurrentIndex(storageTypeComboBox_.findData(QString::fromStdString(type)));
  } else {
    sharePointRadio_.setChecked(true);
  }
  EnableUI(true);
  credentials();
  if (!editable_) {
    buttons_.button(QDialogButtonBox::Ok)->hide();
    buttons_.button(QDialogButtonBox::Cancel)->setText("Close");
    messageLabel_.setText(StorageController::kNotEditable);
  }
  resize(480, 340);
}

void StorageSheet::reject() {
  if (!busy_) QDialog::reject();
}

void StorageSheet::EnableUI(bool enabled) {
  busy_ = !enabled;
  const bool fields = enabled && editable_;
  for (QWidget* control : std::initializer_list<QWidget*>{&nameField_, &storageURLField_, &sharePointRadio_,
                                                          &cifsRadio_, &office365Radio_, &storageTypeComboBox_,
                                                          &useAlterAuth_}) {
    control->setEnabled(fields);
  }
  userNameField_.setEnabled(fields && useAlterAuth_.isChecked());
  passwordField_.setEnabled(fields && useAlterAuth_.isChecked());
  buttons_.setEnabled(enabled);
  // A storage must be saved before its folders can be chosen.
  chooseIBButton_.setEnabled(enabled && editing_.has_value());
}

StorageController::Form StorageSheet::FormOfFields() const {
  StorageController::Form form;
  if (editing_) form.editing = editing_->Name;
  form.name = nameField_.text().trimmed().toStdString();
  form.url = storageURLField_.text().trimmed().toStdString();
  form.fromRadioGroup = !listOfFive_;
  if (listOfFive_) {
    form.type = storageTypeComboBox_.currentData().toString().toStdString();
  } else {
    form.type = cifsRadio_.isChecked() ? "CIFS" : office365Radio_.isChecked() ? "O365" : sharePointRadio_.isChecked() ? "SP" : "";
  }
  form.useAlterAuth = useAlterAuth_.isChecked();
  form.user = userNameField_.text().toStdString();
  form.password = passwordField_.text().toStdString();
  return form;
}

void StorageSheet::Save() {
  if (busy_ || !editable_) return;
  const StorageController::Form form = FormOfFields();
  EnableUI(false);
  messageLabel_.clear();
  QPointer<StorageSheet> self(this);
  settings_.RunInBackground<StorageController::Result>(
      loop_, [controller = controller_, form]() mutable { return controller.saveChanges(form); },
      [self, form](StorageController::Result result) {
        if (!self) return;
        self->EnableUI(true);
        if (!result.ok) {
          self->messageLabel_.setText(QString::fromStdString(result.message));
          self->chooseIBButton_.setEnabled(false);
          return;
        }
        if (self->saved_) self->saved_();
        self->accept();
      });
}

void StorageSheet::ChooseFolders() {
  if (!editing_) return;
  auto* sheet = new SelectiveSyncSheet(editing_->Name, settings_, loop_, nullptr, this);
  sheet->setAttribute(Qt::WA_DeleteOnClose);
  sheet->open();
}
