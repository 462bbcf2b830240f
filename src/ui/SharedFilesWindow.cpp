#include "SharedFilesWindow.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLocale>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <filesystem>
#include <utility>

#include "MainLoop.h"
#include "SharedCache.h"
#include "TrayIcon.h"
#include "WidgetHelpers.h"

namespace {

using Controller = ViewSharedFilesController;

QString Q(const std::string& text) { return QString::fromStdString(text); }

bool Exists(const std::string& path) {
  std::error_code ignored;
  return !path.empty() && std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

enum Column { kName, kSize, kShared, kExpires, kCached };

}  // namespace

SharedFilesWindow::SharedFilesWindow(SharedFilesService& service, MainLoop& loop, QWidget* parent)
    : QWidget(parent),
      controller_(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); }),
      expirySheet_(controller_, this),
      resendSheet_(controller_, this) {
  widgets::Name(*this, "sharedFilesWindow", "Shared files");
  setWindowTitle("Shared files");
  setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  Build();
  controller_.onChange = [this] { Draw(); };
  controller_.onMessage = [this](const std::string& text) { Tell(text); };
}

SharedFilesWindow::~SharedFilesWindow() {
  controller_.onChange = nullptr;
  controller_.onMessage = nullptr;
}

void SharedFilesWindow::Build() {
  widgets::Name(tabs_, "tabs", "Shared In or Shared Out");
  widgets::Name(labelTitleTable_, "labelTitleTable", "List");
  widgets::Name(backButton_, "backButton", "Back");
  widgets::Name(searchField_, "searchField", "Search the list");
  widgets::Name(sortButton_, "sortButton", "Sort order");
  widgets::Name(refreshButton_, "refreshButton", "Refresh");
  widgets::Name(table_, "sharedTable", "Shared items");
  widgets::Name(previousPageButton_, "previousPageButton", "Previous page");
  widgets::Name(pageLabel_, "pageLabel", "Page");
  widgets::Name(nextPageButton_, "nextPageButton", "Next page");
  widgets::Name(openButton_, "openButton", "Open");
  widgets::Name(downloadButton_, "downloadButton", "Download");
  widgets::Name(stopButton_, "stopButton", "Stop downloading");
  widgets::Name(clearCacheButton_, "clearCacheButton", "Clear cache");
  widgets::Name(locateButton_, "locateButton", "Show in folder");
  widgets::Name(unshareButton_, "unshareButton", "Unshare");
  widgets::Name(resendButton_, "resendButton", "Resend notice");
  widgets::Name(editShareButton_, "editShareButton", "Change expiry");
  widgets::Name(progressIndicator_, "progressIndicator", "Working");
  widgets::Name(closeButton_, "closeButton", "Close shared files");
  closeButton_.setText("Close");
  connect(&closeButton_, &QPushButton::clicked, this, &QWidget::close);
  widgets::Name(lastUpdateLabel_, "lastUpdateLabel", "Last update");

  tabs_.addTab("Shared In");
  tabs_.addTab("Shared Out");
  backButton_.setText("Back");
  searchField_.setPlaceholderText("Search");
  searchField_.setClearButtonEnabled(true);
  refreshButton_.setText("Refresh");
  previousPageButton_.setText("<");
  nextPageButton_.setText(">");
  openButton_.setText("Open");
  downloadButton_.setText("Download");
  stopButton_.setText("Stop");
  clearCacheButton_.setText("Clear cache");
  locateButton_.setText("Show in folder");
  unshareButton_.setText("Unshare");
  resendButton_.setText("Resend notice");
  editShareButton_.setText("Change expiry…");
  progressIndicator_.setRange(0, 0);
  progressIndicator_.setTextVisible(false);
  progressIndicator_.setMaximumHeight(8);
  table_.setRootIsDecorated(false);
  table_.setSelectionMode(QAbstractItemView::ExtendedSelection);
  table_.setHeaderLabels({"Name", "Size", "Shared", "Expires", "In the cache"});
  table_.header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table_.header()->setStretchLastSection(false);
  table_.header()->setSectionResizeMode(kName, QHeaderView::Stretch);

  auto* tabs = new QHBoxLayout;
  tabs->addWidget(&tabs_);
  tabs->addStretch(1);
  tabs->addWidget(&searchField_, 1);
  tabs->addWidget(&sortButton_);
  tabs->addWidget(&refreshButton_);
  auto* place = new QHBoxLayout;
  place->addWidget(&backButton_);
  place->addWidget(&labelTitleTable_, 1);
  place->addWidget(&previousPageButton_);
  place->addWidget(&pageLabel_);
  place->addWidget(&nextPageButton_);
  auto* buttons = new QHBoxLayout;
  for (QWidget* button : std::initializer_list<QWidget*>{&openButton_, &downloadButton_, &stopButton_,
                                                          &clearCacheButton_, &locateButton_, &unshareButton_,
                                                          &resendButton_, &editShareButton_}) {
    buttons->addWidget(button);
  }
  buttons->addStretch(1);
  buttons->addWidget(&closeButton_);
  auto* status = new QHBoxLayout;
  status->addWidget(&lastUpdateLabel_, 1);
  status->addWidget(&progressIndicator_, 1);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(tabs);
  layout->addLayout(place);
  layout->addWidget(&table_, 1);
  layout->addLayout(buttons);
  layout->addLayout(status);
  resize(760, 480);

  connect(&tabs_, &QTabBar::currentChanged, this,
          [this](int tab) { SelectTab(tab == 0 ? Controller::kSharedIn : Controller::kSharedOut); });
  connect(&backButton_, &QPushButton::clicked, this, [this] { controller_.DoubleClickGoUp(); });
  connect(&searchField_, &QLineEdit::textChanged, this,
          [this](const QString& text) { controller_.SearchBoxAction(text.toStdString()); });
  connect(&sortButton_, &QPushButton::clicked, this,
          [this] { controller_.SetSortDirection(!controller_.ascendingSortDirection); });
  connect(&refreshButton_, &QPushButton::clicked, this, [this] { controller_.Refresh(); });
  connect(&previousPageButton_, &QPushButton::clicked, this, [this] {
    if (controller_.page > 0) controller_.ShowPage(controller_.page - 1);
  });
  connect(&nextPageButton_, &QPushButton::clicked, this, [this] { controller_.ShowPage(controller_.page + 1); });
  auto activate = [this](QTreeWidgetItem* item) {
    const int row = item ? table_.indexOfTopLevelItem(item) : -1;
    if (row >= 0 && static_cast<std::size_t>(row) < shown_.size()) Activate(shown_[static_cast<std::size_t>(row)]);
  };
  connect(&table_, &QTreeWidget::itemActivated, this, activate);
  connect(&table_, &QTreeWidget::itemSelectionChanged, this, &SharedFilesWindow::UpdateButtons);
  connect(&openButton_, &QPushButton::clicked, this, [this, activate] { activate(table_.currentItem()); });
  connect(&downloadButton_, &QPushButton::clicked, this, [this] { controller_.DownloadFileAsync(SelectedItems()); });
  connect(&stopButton_, &QPushButton::clicked, this, [this] { controller_.StopDownloading(); });
  connect(&clearCacheButton_, &QPushButton::clicked, this, [this] {
    widgets::AskFirst(*this, "sharedFilesQuestion",
                      [this, items = SelectedItems()](const widgets::Ask& ask) { controller_.ClearCache(items, ask); });
  });
  connect(&locateButton_, &QPushButton::clicked, this, &SharedFilesWindow::Locate);
  connect(&unshareButton_, &QPushButton::clicked, this, [this] {
    widgets::AskFirst(*this, "sharedFilesQuestion", [this, items = SelectedItems()](const widgets::Ask& ask) {
      controller_.UnshareSlectedFiles(items, ask);
    });
  });
  connect(&resendButton_, &QPushButton::clicked, this, [this] {
    controller_.loadDataForTable(SelectedItems(), [this](auto rows) { resendSheet_.Open(std::move(rows)); });
  });
  connect(&editShareButton_, &QPushButton::clicked, this, [this] {
    controller_.loadDataForTable(SelectedItems(), [this](auto rows) { expirySheet_.Open(std::move(rows), policy_); });
  });
}

void SharedFilesWindow::Open(CVConnection policy) {
  policy_ = std::move(policy);
  widgets::ShowInFront(*this);
  table_.setFocus();
  SelectTab(static_cast<Controller::WindowState>(controller_.currentWindowState));
}

// A tab chosen while a list loads or files come in is shown once that is through.
void SharedFilesWindow::SelectTab(Controller::WindowState tab) {
  if (!controller_.isBusy) return controller_.SelectTab(tab);
  pendingTab_ = tab;
  Draw();
}

void SharedFilesWindow::Draw() {
  const Controller& c = controller_;
  if (pendingTab_ && !c.isBusy) {
    // Not from inside the controller's own change.
    QTimer::singleShot(0, this, [this] {
      if (auto tab = std::exchange(pendingTab_, std::nullopt)) SelectTab(*tab);
    });
  }
  const bool in = c.currentWindowState == Controller::kSharedIn;
  {
    QSignalBlocker quiet(tabs_);
    tabs_.setCurrentIndex(pendingTab_.value_or(static_cast<Controller::WindowState>(c.currentWindowState)));
  }
  QString place = Q(c.labelTitleTable);
  if (c.level != Controller::Level::People) place = Q(c.currentRecipientName);
  if (c.level == Controller::Level::Folder && !c.currentFolderPath.empty()) {
    place += " / " + Q(c.currentFolderPath).replace('\\', " / ");
  }
  labelTitleTable_.setText(place);
  sortButton_.setText(c.ascendingSortDirection ? "A to Z" : "Z to A");
  pageLabel_.setText(QString("Page %1 of %2").arg(c.page + 1).arg(c.PageCount()));
  previousPageButton_.setEnabled(c.page > 0);
  nextPageButton_.setEnabled(c.page + 1 < c.PageCount());
  table_.setColumnHidden(kCached, !in);
  lastUpdateLabel_.setText(Q(c.lastUpdate));
  progressIndicator_.setVisible(c.isBusy);

  // The rows again; the selection stays when the same rows come back.
  std::vector<int> selected;
  for (const auto* item : table_.selectedItems()) selected.push_back(table_.indexOfTopLevelItem(const_cast<QTreeWidgetItem*>(item)));
  const auto rows = c.PageRows();
  const bool samePlaces = std::equal(rows.begin(), rows.end(), shown_.begin(), shown_.end(),
                                     [](const Controller::Row& a, const Controller::Row& b) {
                                       return a.kind == b.kind && a.name == b.name && a.item.share_id == b.item.share_id;
                                     });
  shown_ = rows;
  {
    QSignalBlocker quiet(table_);
    table_.clear();
    for (const auto& row : rows) {
      auto* item = new QTreeWidgetItem({Q(row.name)});
      if (row.kind == Controller::Row::Group) {
        QFont bold = item->font(kName);
        bold.setBold(true);
        item->setFont(kName, bold);
        item->setFlags(Qt::ItemIsEnabled);
      } else if (row.kind == Controller::Row::Item) {
        const WSFileProperty& file = row.item;
        item->setIcon(kName, style()->standardIcon(file.isFolder ? QStyle::SP_DirIcon : QStyle::SP_FileIcon));
        if (!file.isFolder) item->setText(kSize, QLocale().formattedDataSize(file.file_size));
        item->setText(kShared, widgets::DateText(file.shared_at));
        item->setText(kExpires, file.expire_at ? widgets::DateText(file.expire_at) : "never");
        if (!file.isFolder && Exists(row.localPath)) item->setText(kCached, "yes");
      }
      table_.addTopLevelItem(item);
    }
    if (samePlaces) {
      for (int row : selected) {
        if (auto* item = table_.topLevelItem(row)) item->setSelected(true);
      }
    }
    // Keyboard users start on the first row that opens; nothing is chosen yet.
    for (int row = 0; row < table_.topLevelItemCount() && !table_.currentItem(); ++row) {
      if (table_.topLevelItem(row)->flags() & Qt::ItemIsSelectable) {
        table_.selectionModel()->setCurrentIndex(table_.model()->index(row, 0), QItemSelectionModel::NoUpdate);
      }
    }
  }
  UpdateButtons();
}

void SharedFilesWindow::UpdateButtons() {
  const bool in = controller_.currentWindowState == Controller::kSharedIn;
  const bool idle = !controller_.isBusy;
  const bool chosen = !SelectedItems().empty();
  for (QWidget* control : std::initializer_list<QWidget*>{&downloadButton_, &clearCacheButton_, &locateButton_}) {
    control->setVisible(in);
  }
  for (QWidget* control : std::initializer_list<QWidget*>{&unshareButton_, &resendButton_, &editShareButton_}) {
    control->setVisible(!in);
  }
  stopButton_.setVisible(in && controller_.isBusy);
  for (QWidget* control : std::initializer_list<QWidget*>{&downloadButton_, &unshareButton_, &resendButton_,
                                                          &editShareButton_, &locateButton_}) {
    control->setEnabled(idle && chosen);
  }
  // Sheets of shares: from a person's list, not from inside a shared folder.
  for (QWidget* control : std::initializer_list<QWidget*>{&resendButton_, &editShareButton_}) {
    control->setEnabled(idle && chosen && controller_.level == Controller::Level::Items);
  }
  for (QWidget* control : std::initializer_list<QWidget*>{&clearCacheButton_, &refreshButton_, &sortButton_,
                                                          &openButton_}) {
    control->setEnabled(idle);
  }
  backButton_.setEnabled(idle && controller_.level != Controller::Level::People);
}

std::vector<Controller::Row> SharedFilesWindow::SelectedRows() const {
  std::vector<Controller::Row> rows;
  for (int row = 0; row < table_.topLevelItemCount(); ++row) {
    if (table_.topLevelItem(row)->isSelected() && static_cast<std::size_t>(row) < shown_.size()) {
      rows.push_back(shown_[static_cast<std::size_t>(row)]);
    }
  }
  return rows;
}

std::vector<WSFileProperty> SharedFilesWindow::SelectedItems() const {
  std::vector<WSFileProperty> items;
  for (const auto& row : SelectedRows()) {
    if (row.kind == Controller::Row::Item) items.push_back(row.item);
  }
  return items;
}

void SharedFilesWindow::Activate(const Controller::Row& row) {
  if (controller_.isBusy) return;
  switch (row.kind) {
    case Controller::Row::Group: return;
    case Controller::Row::Person: return controller_.DoubleClickRecipient(row.name);
    case Controller::Row::Up: return controller_.DoubleClickGoUp();
    case Controller::Row::Item: break;
  }
  if (row.item.isFolder) return controller_.DoubleClickFolder(row.item);
  if (controller_.currentWindowState != Controller::kSharedIn) return;
  if (!Exists(row.localPath)) return Tell(Controller::kNotLocated);
  QDesktopServices::openUrl(QUrl::fromLocalFile(Q(row.localPath)));
}

// LocateFile: the folder that holds the selected file's copy in the cache.
void SharedFilesWindow::Locate() {
  const auto rows = SelectedRows();
  if (rows.empty()) return;
  const std::string& path = rows.front().localPath;
  if (!Exists(path)) return Tell(Controller::kNotLocated);
  QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(Q(path)).absolutePath()));
}

void SharedFilesWindow::Tell(const std::string& text) { widgets::ShowMessage(this, text, "sharedFilesMessage"); }
