#pragma once
// SharedFilesWindow: Shared In and Shared Out over ViewSharedFilesController,
// which keeps the lists, the navigation and every rule and makes the server
// calls on its workers; this class only binds widgets to it. People come first
// (under their letters), then a person's items, then a shared folder's inside;
// a row is opened by a double click, Enter or "Open". Shared In downloads the
// selected items into its cache and clears it; Shared Out unshares, sends the
// notice again and changes the expiry or ends shares in sheets that list the
// items' recipients. Made at the first opening and
// kept for the run: closing only hides it, so no worker is joined meanwhile.

#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTabBar>
#include <QTreeWidget>
#include <QWidget>
#include <optional>
#include <string>
#include <vector>

#include "CVConnection.h"
#include "CVEditShare.h"
#include "CVListShareItem.h"
#include "ViewSharedFilesController.h"

class MainLoop;

class SharedFilesWindow : public QWidget {
  Q_OBJECT
 public:
  using Controller = ViewSharedFilesController;

  SharedFilesWindow(SharedFilesService& service, MainLoop& loop, QWidget* parent = nullptr);
  ~SharedFilesWindow() override;

  // In front, on the list of people of the tab shown, read again; policy: the
  // account's limits on an expiry as they stand now.
  void Open(CVConnection policy);
  Controller& controller() { return controller_; }
  // The sheet that changes the expiry of the selected items' shares, or ends them.
  CVEditShare& expirySheet() { return expirySheet_; }
  // The sheet that sends the notice again to the checked recipients.
  CVListShareItem& resendSheet() { return resendSheet_; }

 private:
  void Build();
  void SelectTab(Controller::WindowState tab);
  void Draw();
  void UpdateButtons();
  std::vector<Controller::Row> SelectedRows() const;
  std::vector<WSFileProperty> SelectedItems() const;
  void Activate(const Controller::Row& row);
  void Locate();
  void Tell(const std::string& text);

  Controller controller_;
  CVConnection policy_;
  std::vector<Controller::Row> shown_;  // the rows of the page as drawn
  std::optional<Controller::WindowState> pendingTab_;

  QTabBar tabs_;  // Shared In, Shared Out
  QLabel labelTitleTable_;
  QPushButton backButton_;
  QLineEdit searchField_;
  QPushButton sortButton_;
  QPushButton refreshButton_;
  QTreeWidget table_;
  QPushButton previousPageButton_;
  QLabel pageLabel_;
  QPushButton nextPageButton_;
  QPushButton openButton_;
  QPushButton downloadButton_;
  QPushButton stopButton_;
  QPushButton clearCacheButton_;
  QPushButton locateButton_;
  QPushButton unshareButton_;
  QPushButton resendButton_;
  QPushButton editShareButton_;
  QProgressBar progressIndicator_;
  QPushButton closeButton_;
  QLabel lastUpdateLabel_;

  CVEditShare expirySheet_;
  CVListShareItem resendSheet_;
};
