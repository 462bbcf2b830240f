#include "StoragesTab.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QMessageBox>
#include <QPointer>
#include <QVBoxLayout>

#include "CVConfiguration.h"
#include "LoginController.h"
#include "SelectiveSyncSheet.h"
#include "SettingsContext.h"
#include "StorageController.h"
#include "StorageSheet.h"
#include "SyncManagerSettings.h"
#include "WidgetHelpers.h"

namespace {
bool StoragesEditable() {
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  return config.Corvalink.EditableStorages;
}

// A question asked without waiting: answered calls yes on "Yes".
void Ask(QWidget* parent, const char* objectName, const QString& title, const QString& text, std::function<void()> yes) {
  auto* box = new QMessageBox(QMessageBox::Question, title, text, QMessageBox::Yes | QMessageBox::No, parent);
  box->setObjectName(objectName);
  box->setDefaultButton(QMessageBox::No);
  box->setAttribute(Qt::WA_DeleteOnClose);
  QObject::connect(box, &QMessageBox::finished, parent, [yes = std::move(yes)](int button) {
    if (button == QMessageBox::Yes) yes();
  });
  box->open();
}
}  // namespace

StoragesTab::StoragesTab(SettingsContext& settings, MainLoop& loop, QWidget* parent)
    : QWidget(parent), settings_(settings), loop_(loop) {
  setObjectName("storagesTab");
  storageList_.setColumnCount(3);
  storageList_.setHeaderLabels({"Storage", "Type", "Sync"});
  storageList_.setRootIsDecorated(false);
  storageList_.header()->setSectionResizeMode(0, QHeaderView::Stretch);
  widgets::Name(storageList_, "storageList", "Storages");
  widgets::Name(addButton_, "addButton", "Add storage");
  widgets::Name(editButton_, "editButton", "Edit storage");
  widgets::Name(removeButton_, "removeButton", "Remove storage");
  widgets::Name(chooseButton_, "chooseButton", "Choose folders");
  widgets::Name(retrieveButton_, "retrieveButton", "Retrieve storage settings");
  widgets::Name(messageLabel_, "messageLabel", "Storages message");
  addButton_.setText("Add…");
  editButton_.setText("Edit…");
  removeButton_.setText("Remove");
  chooseButton_.setText("Choose folders…");
  retrieveButton_.setText("Retrieve settings");
  messageLabel_.setWordWrap(true);
  auto* buttons = new QHBoxLayout;
  for (QPushButton* button : {&addButton_, &editButton_, &removeButton_, &chooseButton_}) buttons->addWidget(button);
  buttons->addStretch(1);
  buttons->addWidget(&retrieveButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&storageList_, 1);
  layout->addLayout(buttons);
  layout->addWidget(&messageLabel_);

  connect(&addButton_, &QPushButton::clicked, this, [this] { OpenSheet(false); });
  connect(&editButton_, &QPushButton::clicked, this, [this] { OpenSheet(true); });
  connect(&storageList_, &QTreeWidget::itemActivated, this, [this] { OpenSheet(true); });
  connect(&removeButton_, &QPushButton::clicked, this, &StoragesTab::RemoveSite);
  connect(&chooseButton_, &QPushButton::clicked, this, &StoragesTab::ChooseFolders);
  connect(&retrieveButton_, &QPushButton::clicked, this, &StoragesTab::RetrieveSettings);
  connect(&storageList_, &QTreeWidget::currentItemChanged, this, [this] { EnableUI(!busy_); });
  Reload();
}

void StoragesTab::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  if (!busy_) Reload();
}

void StoragesTab::Reload() {
  const std::string selected = SelectedName();
  storageList_.clear();
  for (const auto& site : CVConfiguration::Instance().SitesCopy()) {
    const auto row = LoginController::RowForStorage(site->Name, site->StorageType);
    auto* item = new QTreeWidgetItem(&storageList_, {QString::fromStdString(row.name), QString::fromStdString(row.type),
                                                     QString::fromStdString(row.statusType)});
    item->setIcon(2, widgets::StorageStateIcon(row.iconStorage));
    if (row.name == selected) storageList_.setCurrentItem(item);
  }
  if (!storageList_.currentItem() && storageList_.topLevelItemCount() > 0) {
    storageList_.setCurrentItem(storageList_.topLevelItem(0));
  }
  EnableUI(!busy_);
}

std::string StoragesTab::SelectedName() const {
  QTreeWidgetItem* item = storageList_.currentItem();
  return item ? item->text(0).toStdString() : std::string();
}

void StoragesTab::EnableUI(bool enabled) {
  busy_ = !enabled;
  const bool editable = StoragesEditable();
  const bool selected = storageList_.currentItem() != nullptr;
  storageList_.setEnabled(enabled);
  // LockStoragesButtons leaves edit: it opens the sheet read-only.
  addButton_.setEnabled(enabled && editable);
  removeButton_.setEnabled(enabled && editable && selected);
  editButton_.setEnabled(enabled && selected);
  chooseButton_.setEnabled(enabled && selected);
  retrieveButton_.setEnabled(enabled);
}

template <typename Work>
void StoragesTab::RunOperation(const QString& busyText, Work work) {
  EnableUI(false);
  messageLabel_.setText(busyText);
  QPointer<StoragesTab> self(this);
  settings_.RunInBackground<std::string>(loop_, std::function<std::string()>(std::move(work)), [self](std::string message) {
    if (!self) return;
    self->messageLabel_.setText(QString::fromStdString(message));
    self->EnableUI(true);
    self->Reload();
  });
}

void StoragesTab::OpenSheet(bool edit) {
  if (busy_) return;
  std::optional<CVSharepoint> storage;
  if (edit) {
    auto site = CVConfiguration::Instance().GetSiteByName(SelectedName());
    if (!site) return;
    storage = *site;
  }
  auto* sheet = new StorageSheet(storage, StoragesEditable(), settings_, loop_, [this] { Reload(); }, this);
  sheet->setAttribute(Qt::WA_DeleteOnClose);
  sheet->open();
}

void StoragesTab::ChooseFolders() {
  const std::string name = SelectedName();
  if (busy_ || name.empty()) return;
  auto* sheet = new SelectiveSyncSheet(name, settings_, loop_, [this] { Reload(); }, this);
  sheet->setAttribute(Qt::WA_DeleteOnClose);
  sheet->open();
}

void StoragesTab::RemoveSite() {
  // The storage is named now: a row number would be stale after the wait.
  const std::string name = SelectedName();
  if (busy_ || name.empty()) return;
  Ask(this, "removeQuestion", "Corvalink Sync", StorageController::kRemoveQuestion, [this, name] {
    RunOperation(StorageController::kRemoveLater, [controller = StorageController(settings_), name]() mutable {
      auto result = controller.RemoveSite(name);
      return result.ok ? std::string() : result.message;
    });
  });
}

void StoragesTab::RetrieveSettings() {
  if (busy_) return;
  Ask(this, "retrieveQuestion", SyncManagerSettings::kRetrieveTitle, SyncManagerSettings::kRetrieveText, [this] {
    RunOperation("", [settings = SyncManagerSettings(settings_)]() mutable { return settings.RetrieveSettings().message; });
  });
}
