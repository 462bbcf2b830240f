#pragma once
// InfoTab: the information tab of the sync manager: the version, a link to the
// account's server in the browser, and the log export, which stays off until
// this build can export the logs.

#include <QLabel>
#include <QPushButton>
#include <QWidget>

class InfoTab : public QWidget {
  Q_OBJECT
 public:
  explicit InfoTab(QWidget* parent = nullptr);

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  QLabel versionLabel_;
  QLabel serverLink_;
  QPushButton sendLogsButton_;
};
