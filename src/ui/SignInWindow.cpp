#include "SignInWindow.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QPointer>
#include <QVBoxLayout>

#include "MainLoop.h"
#include "SelectiveSyncSheet.h"
#include "SettingsContext.h"
#include "TrayIcon.h"
#include "WidgetHelpers.h"

SignInWindow::SignInWindow(LoginController& login, SettingsContext& settings, MainLoop& loop,
                           std::function<void()> closed, QWidget* parent)
    : QWidget(parent),
      login_(login),
      settings_(settings),
      loop_(loop),
      closed_(std::move(closed)),
      question_(*this, loop) {
  setWindowTitle("Corvalink Sync");
  setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  setObjectName("signInWindow");
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&pages_);
  pages_.addWidget(&loginPage_);
  pages_.addWidget(&storagePage_);

  auto* form = new QFormLayout;
  form->addRow("Server &URL:", &connectField_);
  form->addRow("&User name:", &usernameField_);
  form->addRow("&Password:", &tpassField_);
  connectField_.setPlaceholderText("https://corvalink.example.com");
  tpassField_.setEchoMode(QLineEdit::Password);
  widgets::Name(connectField_, "connectField", "Server URL");
  widgets::Name(usernameField_, "usernameField", "User name");
  widgets::Name(tpassField_, "tpassField", "Password");
  widgets::Name(statusLabel_, "statusLabel", "Sign-in progress");
  widgets::Name(progressBar_, "progressBar", "Connecting");
  widgets::Name(LabelErrorText_, "LabelErrorText", "Sign-in error");
  widgets::Name(loginButton_, "loginButton", "Sign in");
  loginButton_.setText("Sign in");
  loginButton_.setDefault(true);
  progressBar_.setRange(0, 0);
  progressBar_.setTextVisible(false);
  progressBar_.hide();
  LabelErrorText_.setWordWrap(true);
  LabelErrorText_.setStyleSheet("color: #d0342c");
  auto* loginLayout = new QVBoxLayout(&loginPage_);
  loginLayout->addLayout(form);
  loginLayout->addWidget(&statusLabel_);
  loginLayout->addWidget(&progressBar_);
  loginLayout->addWidget(&LabelErrorText_);
  loginLayout->addStretch(1);
  loginLayout->addWidget(&loginButton_, 0, Qt::AlignRight);

  storageList_.setColumnCount(3);
  storageList_.setHeaderLabels({"Storage", "Type", "Sync"});
  storageList_.setRootIsDecorated(false);
  storageList_.header()->setSectionResizeMode(0, QHeaderView::Stretch);
  widgets::Name(storageList_, "storageList", "Storages");
  widgets::Name(chooseButton_, "chooseButton", "Choose folders");
  widgets::Name(closeButton_, "closeButton", "Close");
  chooseButton_.setText("Choose folders…");
  closeButton_.setText("Close");
  auto* storageLayout = new QVBoxLayout(&storagePage_);
  storageLayout->addWidget(new QLabel("You are signed in. These storages are synced to this computer:"));
  storageLayout->addWidget(&storageList_, 1);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(&chooseButton_);
  buttons->addStretch(1);
  buttons->addWidget(&closeButton_);
  storageLayout->addLayout(buttons);

  connect(&loginButton_, &QPushButton::clicked, this, &SignInWindow::LoginButtonClick);
  for (QLineEdit* field : {&connectField_, &usernameField_, &tpassField_}) {
    connect(field, &QLineEdit::returnPressed, this, [this] {
      if (loginButton_.isEnabled()) LoginButtonClick();
    });
  }
  connect(&connectField_, &QLineEdit::textChanged, this, &SignInWindow::UpdateLoginButton);
  connect(&chooseButton_, &QPushButton::clicked, this, &SignInWindow::ChooseFolders);
  connect(&storageList_, &QTreeWidget::itemActivated, this, &SignInWindow::ChooseFolders);
  connect(&storageList_, &QTreeWidget::currentItemChanged, this,
          [this] { chooseButton_.setEnabled(storageList_.currentItem() != nullptr); });
  connect(&closeButton_, &QPushButton::clicked, this, [this] {
    hide();
    pages_.setCurrentWidget(&loginPage_);
    if (closed_) closed_();
  });
  resize(440, 300);
}

void SignInWindow::Prefill(const std::string& url, const std::string& user) {
  connectField_.setText(QString::fromStdString(url));
  usernameField_.setText(QString::fromStdString(user));
}

void SignInWindow::ShowNotice(const std::string& text) { LabelErrorText_.setText(QString::fromStdString(text)); }

void SignInWindow::ShowInFront() {
  widgets::ShowInFront(*this);
  if (pages_.currentWidget() == &loginPage_) {
    (connectField_.text().isEmpty() ? connectField_ : usernameField_.text().isEmpty() ? usernameField_ : tpassField_)
        .setFocus();
  }
}

void SignInWindow::LoginButtonClick() {
  if (busy_) return;
  LoginController::Form form{connectField_.text().trimmed().toStdString(), usernameField_.text().toStdString(),
                             tpassField_.text().toStdString(), {}};
  LoadingComponentShow(true);
  statusLabel_.setText(LoginController::kConnecting);
  LabelErrorText_.clear();
  attemptUrl_ = form.url;
  QPointer<SignInWindow> self(this);
  settings_.RunInBackground<LoginController::Result>(
      loop_,
      [&login = login_, form, ask = question_.ForAttempt()] {
        // A certificate that no authority vouches for is shown with its fingerprint
        // and trusted only when the user says so; the key is then kept with the account.
        return login.LoginMethodRun(form, WorkerQuestion::AccountChange(ask, LoginController::kWarningText),
                                    [ask](const CertificateQuestion& question) {
                                      return ask({"Certificate", question.Question(), question.Details(),
                                                  "certificateQuestion"});
                                    });
      },
      [self](LoginController::Result result) {
        if (self) self->Finished(result);
      });
}

void SignInWindow::Finished(const LoginController::Result& result) {
  if (result.outcome == LoginController::Outcome::Locked) lockedUrl_ = attemptUrl_;
  LoadingComponentShow(false);
  statusLabel_.clear();
  if (result.outcome == LoginController::Outcome::SignedIn) {
    tpassField_.clear();
    ShowStorages(result.storages);
    return;
  }
  LabelErrorText_.setText(QString::fromStdString(result.message));
}

void SignInWindow::LoadingComponentShow(bool busy) {
  busy_ = busy;
  for (QWidget* control : {static_cast<QWidget*>(&connectField_), static_cast<QWidget*>(&usernameField_),
                           static_cast<QWidget*>(&tpassField_)}) {
    control->setEnabled(!busy);
  }
  progressBar_.setVisible(busy);
  UpdateLoginButton();
}

void SignInWindow::UpdateLoginButton() {
  // The lock holds for the address it was earned on; another address may try.
  const bool locked = lockedUrl_ && connectField_.text().trimmed().toStdString() == *lockedUrl_;
  loginButton_.setEnabled(!busy_ && !locked);
}

void SignInWindow::ShowStorages(const std::vector<LoginController::StorageRow>& rows) {
  storageList_.clear();
  for (const auto& row : rows) {
    auto* item = new QTreeWidgetItem(&storageList_);
    item->setText(0, QString::fromStdString(row.name));
    item->setText(1, QString::fromStdString(row.type));
    UpdateStorageRow(row);
  }
  if (storageList_.topLevelItemCount() > 0) storageList_.setCurrentItem(storageList_.topLevelItem(0));
  chooseButton_.setEnabled(storageList_.currentItem() != nullptr);
  pages_.setCurrentWidget(&storagePage_);
  closeButton_.setFocus();
}

void SignInWindow::ChooseFolders() {
  QTreeWidgetItem* item = storageList_.currentItem();
  if (!item) return;
  const std::string name = item->text(0).toStdString();
  const std::string type = item->text(1).toStdString();
  auto* sheet = new SelectiveSyncSheet(name, settings_, loop_,
                                       [this, name, type] { UpdateStorageRow(LoginController::RowForStorage(name, type)); },
                                       this);
  sheet->setAttribute(Qt::WA_DeleteOnClose);
  sheet->open();
}

void SignInWindow::UpdateStorageRow(const LoginController::StorageRow& row) {
  for (int i = 0; i < storageList_.topLevelItemCount(); ++i) {
    QTreeWidgetItem* item = storageList_.topLevelItem(i);
    if (item->text(0).toStdString() != row.name) continue;
    item->setText(2, QString::fromStdString(row.statusType));
    item->setIcon(2, widgets::StorageStateIcon(row.iconStorage));
  }
}
