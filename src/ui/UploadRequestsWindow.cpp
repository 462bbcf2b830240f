#include "UploadRequestsWindow.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <filesystem>

#include "MainLoop.h"
#include "SharedCache.h"
#include "TrayIcon.h"
#include "WidgetHelpers.h"

namespace {
QString Q(const std::string& text) { return QString::fromStdString(text); }

bool Exists(const std::string& path) {
  std::error_code ignored;
  return !path.empty() && std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}
}  // namespace

UploadRequestsWindow::UploadRequestsWindow(UploadRequestService& service, MainLoop& loop,
                                           std::function<void()> newRequest, QWidget* parent)
    : QWidget(parent),
      controller_(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); }),
      newRequest_(std::move(newRequest)) {
  widgets::Name(*this, "uploadRequestsWindow", "Upload requests");
  setWindowTitle("Upload requests");
  setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  Build();
  controller_.onChange = [this] { Draw(); };
  controller_.onMessage = [this](const std::string& text) { Tell(text); };
}

UploadRequestsWindow::~UploadRequestsWindow() {
  controller_.onChange = nullptr;
  controller_.onMessage = nullptr;
}

void UploadRequestsWindow::Build() {
  widgets::Name(backButton_, "backButton", "Back");
  widgets::Name(levelLabel_, "levelLabel", "Level");
  widgets::Name(searchField_, "searchField", "Search the list");
  widgets::Name(refreshButton_, "refreshButton", "Refresh");
  widgets::Name(table_, "requestsTable", "Upload requests list");
  widgets::Name(openButton_, "openButton", "Open");
  widgets::Name(resendButton_, "resendButton", "Resend");
  widgets::Name(deleteButton_, "deleteButton", "Delete");
  widgets::Name(downloadButton_, "downloadButton", "Download");
  widgets::Name(clearCacheButton_, "clearCacheButton", "Clear cache");
  widgets::Name(folderButton_, "folderButton", "Open the uploads folder");
  widgets::Name(newRequestButton_, "newRequestButton", "New request");
  widgets::Name(progressIndicator_, "progressIndicator", "Working");
  widgets::Name(closeButton_, "closeButton", "Close upload requests");
  closeButton_.setText("Close");
  connect(&closeButton_, &QPushButton::clicked, this, &QWidget::close);

  backButton_.setText("Back");
  searchField_.setPlaceholderText("Search");
  searchField_.setClearButtonEnabled(true);
  refreshButton_.setText("Refresh");
  openButton_.setText("Open");
  resendButton_.setText("Resend");
  deleteButton_.setText("Delete");
  downloadButton_.setText("Download");
  clearCacheButton_.setText("Clear cache");
  folderButton_.setText("Open folder");
  newRequestButton_.setText("New request…");
  progressIndicator_.setRange(0, 0);
  progressIndicator_.setTextVisible(false);
  progressIndicator_.setMaximumHeight(8);
  table_.setRootIsDecorated(false);
  table_.setHeaderLabels({"Name", "Expires", "In the cache"});
  table_.header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_.header()->setStretchLastSection(false);
  table_.header()->setSectionResizeMode(0, QHeaderView::Stretch);

  auto* top = new QHBoxLayout;
  top->addWidget(&backButton_);
  top->addWidget(&levelLabel_, 1);
  top->addWidget(&searchField_, 1);
  top->addWidget(&refreshButton_);
  auto* buttons = new QHBoxLayout;
  for (QWidget* button : std::initializer_list<QWidget*>{&openButton_, &resendButton_, &deleteButton_,
                                                          &downloadButton_, &clearCacheButton_, &folderButton_}) {
    buttons->addWidget(button);
  }
  buttons->addStretch(1);
  buttons->addWidget(&newRequestButton_);
  buttons->addWidget(&closeButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(top);
  layout->addWidget(&table_, 1);
  layout->addWidget(&progressIndicator_);
  layout->addLayout(buttons);
  resize(680, 420);

  connect(&backButton_, &QPushButton::clicked, this, [this] { controller_.BackMethod(); });
  connect(&searchField_, &QLineEdit::textChanged, this,
          [this](const QString& text) { controller_.searchButtonClick(text.toStdString()); });
  connect(&refreshButton_, &QPushButton::clicked, this, [this] { controller_.RefreshArrayData(); });
  connect(&table_, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem* item) {
    Activate(static_cast<std::size_t>(table_.indexOfTopLevelItem(item)));
  });
  connect(&openButton_, &QPushButton::clicked, this, [this] {
    if (auto* item = table_.currentItem()) Activate(static_cast<std::size_t>(table_.indexOfTopLevelItem(item)));
  });
  connect(&table_, &QTreeWidget::itemChanged, this, [this](QTreeWidgetItem* item) {
    controller_.SetChecked(static_cast<std::size_t>(table_.indexOfTopLevelItem(item)),
                           item->checkState(0) == Qt::Checked);
    UpdateButtons();
  });
  connect(&resendButton_, &QPushButton::clicked, this,
          [this] { controller_.ResendEmailMethod(controller_.CheckedRequestIds()); });
  connect(&deleteButton_, &QPushButton::clicked, this, [this] {
    widgets::AskFirst(*this, "uploadRequestsQuestion", [this, ids = controller_.CheckedRequestIds()](
                                                            const widgets::Ask& ask) { controller_.DeleteMethodTrash(ids, ask); });
  });
  connect(&downloadButton_, &QPushButton::clicked, this, [this] { controller_.methodDownload(controller_.CheckedFiles()); });
  connect(&clearCacheButton_, &QPushButton::clicked, this,
          [this] { controller_.ClearCBCheckedAndShowMessage(controller_.CheckedFiles()); });
  // goToFolderButtonClick
  connect(&folderButton_, &QPushButton::clicked, this, [] {
    const std::string root = SharedCache::UploadsRoot();
    std::error_code ignored;
    std::filesystem::create_directories(root, ignored);
    QDesktopServices::openUrl(QUrl::fromLocalFile(Q(root)));
  });
  connect(&newRequestButton_, &QPushButton::clicked, this, [this] {
    if (newRequest_) newRequest_();
  });
}

void UploadRequestsWindow::Open() {
  widgets::ShowInFront(*this);
  table_.setFocus();
  controller_.RefreshArrayData();
}

void UploadRequestsWindow::Draw() {
  const Controller& c = controller_;
  const int level = std::clamp(c.LevelView, 1, 3);
  QString place = Controller::kTitles[level - 1];
  if (level > 1) place += ": " + Q(c.currentSession);
  levelLabel_.setText(place);
  table_.setColumnHidden(1, level != 2);
  table_.setColumnHidden(2, level != 3);
  const int current = table_.currentItem() ? table_.indexOfTopLevelItem(table_.currentItem()) : 0;
  {
    QSignalBlocker quiet(table_);
    table_.clear();
    for (const auto& row : c.rows) {
      auto* item = new QTreeWidgetItem({Q(row.labelText), Q(row.expir)});
      item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
      item->setCheckState(0, row.checkBox ? Qt::Checked : Qt::Unchecked);
      item->setIcon(0, style()->standardIcon(level == 3 ? QStyle::SP_FileIcon : QStyle::SP_DirIcon));
      if (level == 3) {
        const std::size_t file = std::stoul(row.ids);
        if (file < c.arrayFileForDownload.size() && Exists(c.arrayFileForDownload[file].localPath)) item->setText(2, "yes");
      }
      table_.addTopLevelItem(item);
    }
    if (auto* item = table_.topLevelItem(std::min(current, table_.topLevelItemCount() - 1))) {
      table_.selectionModel()->setCurrentIndex(table_.indexFromItem(item), QItemSelectionModel::NoUpdate);
    }
  }
  UpdateButtons();
}

void UploadRequestsWindow::UpdateButtons() {
  const Controller& c = controller_;
  const int level = c.LevelView;
  const bool idle = !c.isBusy;
  const bool requests = !c.CheckedRequestIds().empty();
  const bool files = !c.CheckedFiles().empty();
  progressIndicator_.setVisible(c.isBusy);
  backButton_.setEnabled(idle && level > 1);
  // Named after the level it goes back to.
  backButton_.setText(level > 1 ? Controller::kTitles[level - 2] : "Back");
  refreshButton_.setEnabled(idle);
  openButton_.setEnabled(idle);
  resendButton_.setEnabled(idle && requests);
  deleteButton_.setEnabled(idle && requests);
  downloadButton_.setVisible(level == 3);
  clearCacheButton_.setVisible(level == 3);
  downloadButton_.setEnabled(idle && files);
  clearCacheButton_.setEnabled(idle && files);
}

void UploadRequestsWindow::Activate(std::size_t row) {
  const Controller& c = controller_;
  if (c.isBusy || row >= c.rows.size()) return;
  const auto& chosen = c.rows[row];
  if (c.LevelView == 1) return controller_.GetUsersListForSession(chosen.ids);
  if (c.LevelView == 2) return controller_.GetFilesListForUser(chosen.goid);
  const std::size_t file = std::stoul(chosen.ids);
  if (file < c.arrayFileForDownload.size() && Exists(c.arrayFileForDownload[file].localPath)) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(Q(c.arrayFileForDownload[file].localPath)));
  }
}

void UploadRequestsWindow::Tell(const std::string& text) { widgets::ShowMessage(this, text, "uploadRequestsMessage"); }
