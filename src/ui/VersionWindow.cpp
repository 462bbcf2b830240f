#include "VersionWindow.h"

#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QMessageBox>
#include <QVBoxLayout>
#include <filesystem>

#include "MainLoop.h"
#include "WidgetHelpers.h"
#include "XdgDesktop.h"

VersionWindow::VersionWindow(VersionService& service, MainLoop& loop, const std::string& localPath,
                             std::function<void(const std::string&)> restored, QWidget* parent)
    : QDialog(parent),
      controller_(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); }, localPath) {
  widgets::Name(*this, "versionWindow", "Versions");
  const QString name = QString::fromStdString(std::filesystem::path(localPath).filename().string());
  setWindowTitle("Versions of " + name);
  widgets::Name(fileLabel_, "fileLabel", "File");
  fileLabel_.setText(QString::fromStdString(localPath));
  widgets::Name(versionsTableView_, "versionsTableView", "Versions of the file");
  versionsTableView_.setRootIsDecorated(false);
  versionsTableView_.setHeaderLabels({"Version", "Modified", "Modified by", "Size"});
  versionsTableView_.header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  widgets::Name(asyncProgressIndicator_, "asyncProgressIndicator", "Working");
  asyncProgressIndicator_.setRange(0, 0);
  widgets::Name(fileDownloadAmountProgressIndicator_, "fileDownloadAmountProgressIndicator", "Saved so far");
  fileDownloadAmountProgressIndicator_.hide();
  widgets::Name(restoreButton_, "restoreButton", "Restore");
  restoreButton_.setText("Restore");
  restoreButton_.setToolTip("Make this version the file's content again; the file here follows with the sync.");
  widgets::Name(downloadButton_, "downloadButton", "Save as");
  downloadButton_.setText("Save as…");
  widgets::Name(okButton_, "okButton", "Close");
  okButton_.setText("Close");

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(&asyncProgressIndicator_);
  buttons->addWidget(&fileDownloadAmountProgressIndicator_);
  buttons->addStretch(1);
  buttons->addWidget(&restoreButton_);
  buttons->addWidget(&downloadButton_);
  buttons->addWidget(&okButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&fileLabel_);
  layout->addWidget(&versionsTableView_, 1);
  layout->addLayout(buttons);
  resize(560, 320);

  connect(&restoreButton_, &QPushButton::clicked, this, [this] { controller_.restoreButtonClick(SelectedRow()); });
  connect(&downloadButton_, &QPushButton::clicked, this, &VersionWindow::SaveAs);
  connect(&okButton_, &QPushButton::clicked, this, &QDialog::close);
  connect(&versionsTableView_, &QTreeWidget::itemSelectionChanged, this, &VersionWindow::UpdateButtons);
  controller_.onChange = [this] { Redraw(); };
  controller_.onMessage = [this](const std::string& text) { ShowMessage(QString::fromStdString(text)); };
  controller_.onRestored = std::move(restored);
  controller_.onProgress = [this](std::int64_t received, std::int64_t total) {
    fileDownloadAmountProgressIndicator_.setRange(0, total > 0 ? 1000 : 0);
    if (total > 0) fileDownloadAmountProgressIndicator_.setValue(static_cast<int>(std::min<std::int64_t>(1000, received * 1000 / total)));
  };
  controller_.windowDidLoad();
}

void VersionWindow::Redraw() {
  const bool busy = controller_.inProgress;
  asyncProgressIndicator_.setVisible(busy);
  if (!busy) fileDownloadAmountProgressIndicator_.hide();
  const auto selected = SelectedRow();
  const auto rows = controller_.Rows();
  {
    QSignalBlocker quiet(versionsTableView_);
    versionsTableView_.clear();
    for (const auto& row : rows) {
      versionsTableView_.addTopLevelItem(
          new QTreeWidgetItem({QString::fromStdString(row.version), QString::fromStdString(row.modified),
                               QString::fromStdString(row.modifiedBy), QString::fromStdString(row.size)}));
    }
    if (selected && *selected < rows.size()) {
      versionsTableView_.setCurrentItem(versionsTableView_.topLevelItem(static_cast<int>(*selected)));
    }
  }
  UpdateButtons();
}

void VersionWindow::UpdateButtons() {
  const bool on = !controller_.inProgress && SelectedRow().has_value();
  restoreButton_.setEnabled(on);
  downloadButton_.setEnabled(on);
}

std::optional<std::size_t> VersionWindow::SelectedRow() const {
  const auto* item = versionsTableView_.currentItem();
  if (!item || !item->isSelected()) return std::nullopt;
  return static_cast<std::size_t>(versionsTableView_.indexOfTopLevelItem(const_cast<QTreeWidgetItem*>(item)));
}

void VersionWindow::ShowMessage(const QString& text, const QString& informative) {
  auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), text, QMessageBox::Ok, this);
  widgets::Name(*box, "versionMessage", "Message");
  box->setInformativeText(informative);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->open();
}

// The save panel is not modal; a place inside a storage is asked about first.
void VersionWindow::SaveAs() {
  const auto row = SelectedRow();
  if (!row) return;
  const std::string folder = XdgDesktop::DownloadFolder();
  std::error_code ignored;
  std::filesystem::create_directories(folder, ignored);
  const auto name = std::filesystem::path(controller_.storedLocalFilePath()).filename().string();
  auto* panel = new QFileDialog(this, "Save version", QString::fromStdString(folder + "/" + name));
  widgets::Name(*panel, "saveVersionPanel", "Save version");
  panel->setAcceptMode(QFileDialog::AcceptSave);
  panel->setOption(QFileDialog::DontUseNativeDialog);
  panel->setAttribute(Qt::WA_DeleteOnClose);
  connect(panel, &QFileDialog::fileSelected, this, [this](const QString& target) {
    if (!VersionWindowController::IsInsideStorage(target.toStdString())) {
      SaveSelectedTo(target);
      return;
    }
    auto* box = new QMessageBox(QMessageBox::Warning, windowTitle(),
                                "This place is inside a storage: the sync will upload the version there as a file of "
                                "its own. Save it there?",
                                QMessageBox::Yes | QMessageBox::No, this);
    widgets::Name(*box, "insideStorageQuestion", "Save inside a storage");
    box->setDefaultButton(QMessageBox::No);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this, target](int button) {
      if (button == QMessageBox::Yes) SaveSelectedTo(target);
    });
    box->open();
  });
  panel->open();
}

void VersionWindow::SaveSelectedTo(const QString& target) {
  if (target.toStdString() == controller_.storedLocalFilePath()) {
    ShowMessage("Use Restore to make this version the file's content again.");
    return;
  }
  fileDownloadAmountProgressIndicator_.setRange(0, 0);
  fileDownloadAmountProgressIndicator_.show();
  controller_.downloadButtonClick(SelectedRow(), target.toStdString());
}
