#include "SettingsTab.h"

#include <QCoreApplication>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QPointer>
#include <QVBoxLayout>

#include "CVConfiguration.h"
#include "SettingsContext.h"
#include "SyncManagerSettings.h"
#include "WidgetHelpers.h"
#include "XdgDesktop.h"

SettingsTab::SettingsTab(SettingsContext& settings, MainLoop& loop, std::function<void()> closeWindow, QWidget* parent)
    : QWidget(parent),
      settings_(settings),
      loop_(loop),
      closeWindow_(std::move(closeWindow)),
      question_(*this, loop) {
  setObjectName("settingsTab");
  auto* form = new QFormLayout;
  form->addRow("Server &URL:", &urlField_);
  form->addRow("&User name:", &userField_);
  form->addRow("&Password:", &passwordField_);
  form->addRow("Sync &every:", &intervalField_);
  form->addRow(&autostartBox_);
  form->addRow(&notificationsBox_);
  passwordField_.setEchoMode(QLineEdit::Password);
  passwordField_.setPlaceholderText("Saved; type a new one to change it");
  intervalField_.setRange(1, 1440);
  intervalField_.setSuffix(" min");
  autostartBox_.setText("Start Corvalink Sync when I log in");
  notificationsBox_.setText("Show notifications");
  widgets::Name(urlField_, "urlField", "Server URL");
  widgets::Name(userField_, "userField", "User name");
  widgets::Name(passwordField_, "passwordField", "Password");
  widgets::Name(intervalField_, "intervalField", "Minutes between syncs");
  widgets::Name(autostartBox_, "autostartBox", "Start with the system");
  widgets::Name(notificationsBox_, "notificationsBox", "Notifications");
  widgets::Name(messageLabel_, "messageLabel", "Settings message");
  widgets::Name(saveButton_, "saveButton", "Save");
  widgets::Name(applyButton_, "applyButton", "Apply");
  widgets::Name(cancelButton_, "cancelButton", "Cancel");
  saveButton_.setText("Save");
  applyButton_.setText("Apply");
  cancelButton_.setText("Cancel");
  messageLabel_.setWordWrap(true);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  for (QPushButton* button : {&cancelButton_, &applyButton_, &saveButton_}) buttons->addWidget(button);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(&messageLabel_);
  layout->addStretch(1);
  layout->addLayout(buttons);

  connect(&saveButton_, &QPushButton::clicked, this, [this] { SaveSettings(true); });
  connect(&applyButton_, &QPushButton::clicked, this, [this] { SaveSettings(false); });
  connect(&cancelButton_, &QPushButton::clicked, this, &SettingsTab::CancelSettings);
  // setAutorun: the autostart entry is written or removed at once.
  connect(&autostartBox_, &QCheckBox::clicked, this, [this](bool on) {
    if (!XdgDesktop::RegisterAutostart(on, QCoreApplication::applicationFilePath().toStdString())) {
      autostartBox_.setChecked(!on);
      messageLabel_.setText(QString::fromStdString("The start with the system could not be changed in " +
                                                   XdgDesktop::AutostartFilePath() + "."));
      return;
    }
    CVConfiguration& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    config.fIsInAutomaticStartup = on;
  });
  // cb_NotificationTrayClick: at once in memory; in the file at the next save.
  connect(&notificationsBox_, &QCheckBox::clicked, this, [](bool on) {
    CVConfiguration& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    config.Corvalink.NotificationTray = on;
  });
  LoadSettingsTabData();
}

void SettingsTab::LoadSettingsTabData() {
  CVConnection account;
  {
    CVConfiguration& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    account = config.Corvalink;
  }
  loadedUrl_ = account.Url;
  loadedUser_ = account.UserName;
  urlField_.setText(QString::fromStdString(account.Url));
  userField_.setText(QString::fromStdString(account.UserName));
  passwordField_.clear();
  intervalField_.setValue(static_cast<int>(account.SyncCV));
  notificationsBox_.setChecked(account.NotificationTray);
  autostartBox_.setChecked(XdgDesktop::IsAutostartRegistered());
}

void SettingsTab::EnableUI(bool enabled) {
  busy_ = !enabled;
  for (QWidget* control : std::initializer_list<QWidget*>{&urlField_, &userField_, &passwordField_, &intervalField_,
                                                          &saveButton_, &applyButton_, &cancelButton_}) {
    control->setEnabled(enabled);
  }
}

void SettingsTab::SaveSettings(bool closeAfter) {
  if (busy_) return;
  SyncManagerSettings::Form form{urlField_.text().trimmed().toStdString(), userField_.text().toStdString(),
                                 passwordField_.text().toStdString(), intervalField_.value()};
  // An empty password keeps the saved one, for the saved account only.
  const bool keepPassword = form.password.empty() && form.url == loadedUrl_ && form.user == loadedUser_;
  EnableUI(false);
  messageLabel_.clear();
  QPointer<SettingsTab> self(this);
  settings_.RunInBackground<SyncManagerSettings::Result>(
      loop_,
      [manager = SyncManagerSettings(settings_), form, keepPassword, confirm = WorkerQuestion::AccountChange(question_.ForAttempt(), SyncManagerSettings::kWarningText)]() mutable {
        if (keepPassword) {
          CVConfiguration& config = CVConfiguration::Instance();
          std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
          form.password = config.Corvalink.Password;
        }
        return manager.SaveSettingsNew(form, confirm);
      },
      [self, closeAfter](SyncManagerSettings::Result result) {
        if (!self) return;
        self->EnableUI(true);
        self->messageLabel_.setText(QString::fromStdString(result.message));
        if (!result.ok) return;
        self->LoadSettingsTabData();
        if (closeAfter && self->closeWindow_) self->closeWindow_();
      });
}

void SettingsTab::CancelSettings() {
  if (busy_) return;
  messageLabel_.clear();
  LoadSettingsTabData();
  if (closeWindow_) closeWindow_();
}
