#pragma once
// UploadRequestsWindow: the upload requests over CVViewUploadRequest, which
// keeps the levels (sessions, the people of a session, the files that came in
// through one request) and every rule, and makes the server calls on its
// workers; this class only binds widgets to it. Rows carry check boxes: the
// checked ones are resent, deleted (after a question), fetched into "External
// user uploads" or dropped from it. "New request…" opens the request window.
// Made at the first opening and kept for the run, like the shared files window.

#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeWidget>
#include <QWidget>
#include <functional>

#include "CVViewUploadRequest.h"

class MainLoop;

class UploadRequestsWindow : public QWidget {
  Q_OBJECT
 public:
  using Controller = CVViewUploadRequest;

  UploadRequestsWindow(UploadRequestService& service, MainLoop& loop, std::function<void()> newRequest,
                       QWidget* parent = nullptr);
  ~UploadRequestsWindow() override;

  // In front, on the sessions, read again.
  void Open();
  Controller& controller() { return controller_; }

 private:
  void Build();
  void Draw();
  void UpdateButtons();
  void Activate(std::size_t row);
  void Tell(const std::string& text);

  Controller controller_;
  std::function<void()> newRequest_;

  QPushButton backButton_;
  QLabel levelLabel_;
  QLineEdit searchField_;
  QPushButton refreshButton_;
  QTreeWidget table_;
  QPushButton openButton_;
  QPushButton resendButton_;
  QPushButton deleteButton_;
  QPushButton downloadButton_;
  QPushButton clearCacheButton_;
  QPushButton folderButton_;
  QPushButton newRequestButton_;
  QProgressBar progressIndicator_;
  QPushButton closeButton_;
};
