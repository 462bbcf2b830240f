#pragma once
// ActivityWindow: the account's usage history, page by page, and the files the
// sync newly created or updated here, on two tabs, over
// NotificationWindowController. The lists are read on the controller's
// workers; the window shows the spinner meanwhile. A double click on a local
// row marks it seen, and it leaves the list.

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTabWidget>
#include <QTreeWidget>
#include <QWidget>

#include "NotificationWindowController.h"

class MainLoop;

class ActivityWindow : public QWidget {
  Q_OBJECT
 public:
  ActivityWindow(ActivityService& service, MainLoop& loop, QWidget* parent = nullptr);

  NotificationWindowController& controller() { return controller_; }

 private:
  void UpdateTableUI();
  static void Fill(QTreeWidget& table, const std::vector<NotificationWindowController::Row>& rows, bool local);

  NotificationWindowController controller_;
  QTabWidget tabs_;
  QTreeWidget tableView_;
  QTreeWidget tableViewLocalFiles_;
  QLabel textFieldPageNum_;
  QLabel usageError_;
  QProgressBar prIndicator_;
  QPushButton prevButton_;
  QPushButton nextButton_;
  QPushButton closeButton_;
};
