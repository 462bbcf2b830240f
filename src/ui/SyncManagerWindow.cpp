#include "SyncManagerWindow.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QStyle>
#include <QTabBar>
#include <QVBoxLayout>

#include "TrayIcon.h"
#include "WidgetHelpers.h"

SyncManagerWindow::SyncManagerWindow(std::function<void()> startStop, QWidget* parent) : QWidget(parent) {
  setWindowTitle("Corvalink Sync");
  setWindowIcon(TrayIcon::Icon("corvalink-sync"));
  setObjectName("syncManagerWindow");
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(&tabs_);
  AddTab(0, &syncTab_, "Sync");

  auto* sync = new QVBoxLayout(&syncTab_);
  QFont bigger = syncStateLabel_.font();
  bigger.setPointSizeF(bigger.pointSizeF() * 1.2);
  syncStateLabel_.setFont(bigger);
  sync->addWidget(&syncStateLabel_);

  auto* storage = new QHBoxLayout(&storagesBox_);
  storage->setContentsMargins(0, 0, 0, 0);
  storage->addWidget(new QLabel("Storage"));
  storage->addWidget(&currentStorageNumber_);
  storage->addWidget(&storageLabel_, 1);
  sync->addWidget(&storagesBox_);

  auto* processed = new QHBoxLayout(&storagesProcessedBox_);
  processed->setContentsMargins(0, 0, 0, 0);
  processed->addWidget(&progressBar_, 1);
  processed->addWidget(&percentsOfStorage_);
  processed->addWidget(new QLabel("Files left:"));
  processed->addWidget(&filesLeftLabel_);
  sync->addWidget(&storagesProcessedBox_);

  auto* file = new QHBoxLayout(&fileBox_);
  file->setContentsMargins(0, 0, 0, 0);
  file->addWidget(&currentFileActionType_);
  file->addWidget(&currentFileName_, 1);
  file->addWidget(&currentFileSizeLabel_);
  file->addWidget(&percentsOfFile_);
  sync->addWidget(&fileBox_);
  sync->addStretch(1);

  currentFileName_.setTextInteractionFlags(Qt::TextSelectableByMouse);
  syncStateLabel_.setObjectName("syncStateLabel");
  filesLeftLabel_.setObjectName("filesLeftLabel");
  currentFileName_.setObjectName("currentFileName");
  buttonStopStart_.setObjectName("buttonStopStart");
  tabs_.setAccessibleName("Sync manager");
  tabs_.tabBar()->setAccessibleName("Tabs");
  syncStateLabel_.setAccessibleName("Sync state");
  currentFileName_.setAccessibleName("Current file");
  buttonStopStart_.setAccessibleName("Start or stop the sync");
  sync->addWidget(&buttonStopStart_, 0, Qt::AlignRight);
  connect(&buttonStopStart_, &QPushButton::clicked, this, [startStop = std::move(startStop)] {
    if (startStop) startStop();
  });
  resize(520, 260);
}

void SyncManagerWindow::AddTab(int number, QWidget* page, const QString& title) {
  pages_[number] = page;
  tabs_.insertTab(static_cast<int>(std::distance(pages_.begin(), pages_.find(number))), page, title);
}

void SyncManagerWindow::SetTabNumber(int tab) {
  if (auto page = pages_.find(tab); page != pages_.end()) tabs_.setCurrentWidget(page->second);
}

void SyncManagerWindow::Draw(const SyncProgressView& view) {
  syncStateLabel_.setText(QString::fromStdString(view.syncStateLabel));
  const bool running = view.buttonImage == "StopSync";
  buttonStopStart_.setText(running ? "Stop sync" : "Start sync");
  buttonStopStart_.setIcon(style()->standardIcon(running ? QStyle::SP_MediaStop : QStyle::SP_MediaPlay));
  storagesBox_.setVisible(view.storagesBoxShown);
  storagesProcessedBox_.setVisible(view.storagesProcessedBoxShown);
  fileBox_.setVisible(view.fileBoxShown);
  currentStorageNumber_.setText(QString::fromStdString(view.currentStorageNumber));
  storageLabel_.setText(QString::fromStdString(view.storageLabel));
  percentsOfStorage_.setText(QString::fromStdString(view.percentsOfStorage));
  filesLeftLabel_.setText(QString::fromStdString(view.filesLeftLabel));
  if (view.progressIndeterminate) {
    progressBar_.setRange(0, 0);
  } else {
    progressBar_.setRange(0, static_cast<int>(std::max<std::int64_t>(view.progressMaximum, 1)));
    progressBar_.setValue(static_cast<int>(std::min(view.progressValue, view.progressMaximum)));
  }
  currentFileActionType_.setText(QString::fromStdString(view.currentFileActionType));
  currentFileName_.setText(QString::fromStdString(view.currentFileName));
  currentFileSizeLabel_.setText(QString::fromStdString(view.currentFileSizeLabel));
  percentsOfFile_.setText(QString::fromStdString(view.percentsOfFile));
}

void SyncManagerWindow::ShowInFront() { widgets::ShowInFront(*this); }
