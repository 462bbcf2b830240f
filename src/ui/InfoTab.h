#pragma once
// InfoTab: the information tab of the sync manager: the version, a link to the
// account's server in the browser, and the log export: the user picks where the
// zip goes (the download folder first), the export runs on a worker, and a
// message says where it went.

#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include "WorkerThreads.h"

class InfoTab : public QWidget {
  Q_OBJECT
 public:
  explicit InfoTab(QWidget* parent = nullptr);
  ~InfoTab() override;

  // Packs the logs into target off the main thread; the button is off meanwhile.
  void ExportLogsTo(const QString& target);

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  void sendLogs();

  QLabel versionLabel_;
  QLabel serverLink_;
  QPushButton sendLogsButton_;
  WorkerThreads workers_;  // last: joined before the widgets go
};
