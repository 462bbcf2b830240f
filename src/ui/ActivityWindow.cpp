#include "ActivityWindow.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QTabBar>
#include <QVBoxLayout>

#include "MainLoop.h"
#include "WidgetHelpers.h"

namespace {

// The columns by their identifiers, in the order shown.
void Columns(QTreeWidget& table, const QStringList& identifiers, const QStringList& titles) {
  table.setRootIsDecorated(false);
  table.setColumnCount(static_cast<int>(titles.size()));
  table.setHeaderLabels(titles);
  for (int i = 0; i < identifiers.size(); ++i) table.headerItem()->setData(i, Qt::UserRole, identifiers[i]);
  table.header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table.header()->setStretchLastSection(true);
}

}  // namespace

ActivityWindow::ActivityWindow(ActivityService& service, MainLoop& loop, QWidget* parent)
    : QWidget(parent, Qt::Window),
      controller_(service, [&loop](std::function<void()> callback) { loop.Post(std::move(callback)); }) {
  widgets::Name(*this, "activityWindow", "Activity");
  setWindowTitle("Activity");
  widgets::Name(tableView_, "tableView", "Usage history");
  Columns(tableView_, {"actioncolumn", "datecolumn", "fileurlcolumn"}, {"Action", "Date", "File"});
  widgets::Name(tableViewLocalFiles_, "tableViewLocalFiles", "Local updates");
  Columns(tableViewLocalFiles_, {"filepath", "filestatus", "statusdate"}, {"File", "Status", "Date"});
  tableViewLocalFiles_.setToolTip("Double-click a file to mark it as seen.");
  widgets::Name(textFieldPageNum_, "textFieldPageNum", "Page");
  widgets::Name(usageError_, "usageError", "Problem");
  usageError_.hide();
  widgets::Name(prIndicator_, "prIndicator", "Working");
  prIndicator_.setRange(0, 0);
  prIndicator_.setMaximumWidth(120);
  widgets::Name(prevButton_, "prevButton", "Previous page");
  prevButton_.setText("Previous");
  widgets::Name(nextButton_, "nextButton", "Next page");
  nextButton_.setText("Next");
  widgets::Name(closeButton_, "closeButton", "Close");
  closeButton_.setText("Close");

  auto* history = new QWidget;
  auto* pages = new QHBoxLayout;
  pages->addWidget(&usageError_);
  pages->addStretch(1);
  pages->addWidget(&prevButton_);
  pages->addWidget(&textFieldPageNum_);
  pages->addWidget(&nextButton_);
  auto* historyLayout = new QVBoxLayout(history);
  historyLayout->addWidget(&tableView_, 1);
  historyLayout->addLayout(pages);
  auto* local = new QWidget;
  (new QVBoxLayout(local))->addWidget(&tableViewLocalFiles_);
  widgets::Name(tabs_, "tabs", "Activity");
  tabs_.addTab(history, "Usage history");
  tabs_.addTab(local, "Local updates");
  tabs_.tabBar()->setTabData(0, "1");
  tabs_.tabBar()->setTabData(1, "2");

  auto* bottom = new QHBoxLayout;
  bottom->addWidget(&prIndicator_);
  bottom->addStretch(1);
  bottom->addWidget(&closeButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&tabs_, 1);
  layout->addLayout(bottom);
  resize(720, 420);

  connect(&prevButton_, &QPushButton::clicked, this, [this] { controller_.PrevPage(); });
  connect(&nextButton_, &QPushButton::clicked, this, [this] { controller_.NextPage(); });
  connect(&closeButton_, &QPushButton::clicked, this, &QWidget::close);
  connect(&tabs_, &QTabWidget::currentChanged, this,
          [this](int index) { controller_.SelectTab(tabs_.tabBar()->tabData(index).toString().toStdString()); });
  connect(&tableViewLocalFiles_, &QTreeWidget::itemDoubleClicked, this, [this](QTreeWidgetItem* item) {
    controller_.RowDoubleClicked(static_cast<std::size_t>(tableViewLocalFiles_.indexOfTopLevelItem(item)));
  });
  controller_.onChange = [this] { UpdateTableUI(); };
  controller_.windowDidLoad();
}

void ActivityWindow::Fill(QTreeWidget& table, const std::vector<NotificationWindowController::Row>& rows,
                          bool local) {
  table.clear();
  for (const auto& row : rows) {
    const auto action = QString::fromStdString(row.action), date = QString::fromStdString(row.date),
               url = QString::fromStdString(row.fileURL);
    auto* item = new QTreeWidgetItem(local ? QStringList{url, action, date} : QStringList{action, date, url});
    item->setToolTip(local ? 0 : 2, url);
    table.addTopLevelItem(item);
  }
}

void ActivityWindow::UpdateTableUI() {
  Fill(tableView_, controller_.UsageRows(), false);
  Fill(tableViewLocalFiles_, controller_.LocalRows(), true);
  prIndicator_.setVisible(controller_.inProgressNow || controller_.inProgressNowLocal);
  textFieldPageNum_.setText(QString::fromStdString(controller_.PageText()));
  nextButton_.setEnabled(controller_.nextEnabled());
  prevButton_.setEnabled(controller_.prevEnabled());
  usageError_.setText(QString::fromStdString(controller_.usageError()));
  usageError_.setVisible(!controller_.usageError().empty());
}
