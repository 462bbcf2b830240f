#pragma once
// CVViewUploadRequest: the workflow of the upload request view without any
// widget. Level 1 lists the sessions, level 2 the people of a session (one
// request each), level 3 the files that came in through one request; it
// re-announces and deletes requests and fetches their files into the
// "External user uploads" cache. Lives on the main thread like the other
// sharing controllers: server calls on workers, results through the hop.

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "UploadRequestService.h"
#include "WindowWorker.h"

class CVViewUploadRequest {
 public:
  using Post = WindowWorker::Post;
  using Ask = std::function<bool(const std::string& title, const std::string& question)>;

  static constexpr const char* kResent = "Email resent successfully.";
  static constexpr const char* kFailed = "Error occured, please try again later.";
  static constexpr const char* kDeleteQuestion = "Delete upload request?";
  static constexpr const char* kQuestion = "Question";
  static constexpr const char* kDeleted = "Upload request deleted successfully.";
  static constexpr const char* kCleared = "Cache was cleared successfully.";
  static constexpr const char* kNoConnection = "The server cannot be reached now, please try again later.";
  static constexpr const char* kTitles[] = {"Sessions", "Uploads", "Files"};

  // One line of the list; at level 3 ids is the file's place in arrayFileForDownload.
  struct Row {
    std::string labelText, ids, goid, uname, expir;
    bool checkBox = false;
  };

  CVViewUploadRequest(UploadRequestService& service, Post toMain);
  ~CVViewUploadRequest();

  void RefreshArrayData();  // loads the requests, then shows the sessions
  void GetSessionListForArray();
  void GetUsersListForSession(const std::string& sessionId);
  // The files of one request; arrayFileForDownload and the rows at level 3.
  void GetFilesListForUser(const std::string& guid);
  void BackMethod();
  void searchButtonClick(const std::string& text);

  // Requests by reqID.
  void ResendEmailMethod(const std::vector<std::string>& ids);
  void DeleteMethodTrash(const std::vector<std::string>& ids, const Ask& ask);
  // The files of arrayFileForDownload at these rows that are not here yet and
  // not being fetched; the message tells the count.
  void methodDownload(const std::vector<std::size_t>& rows);
  void ClearCBCheckedAndShowMessage(const std::vector<std::size_t>& rows);

  // The check box of a row of the list as shown.
  void SetChecked(std::size_t row, bool on);
  // The requests the checked rows stand for: a session's all, a person's one,
  // a file's the request it came through.
  std::vector<std::string> CheckedRequestIds() const;
  // At level 3, the places in arrayFileForDownload of the checked files.
  std::vector<std::size_t> CheckedFiles() const;

  // "Expires On: dd.MM.yy HH:mm:ss" of "yyyy-MM-ddTHH:mm:ss" in UTC; an
  // expiry of another form as it stands.
  static std::string ExpiryText(const std::string& expireAt);

  std::function<void()> onChange;
  std::function<void(const std::string&)> onMessage;

  int LevelView = 1;
  bool isBusy = false;
  std::string currentSession, currentGuid;
  std::vector<CVUploadRequest> arrayData;
  std::vector<Row> rows, arraySearchTemp;
  std::vector<CVFileForCompare> arrayFileForDownload;

 private:
  void Tell(const std::string& text);
  void Changed();
  void Show(std::vector<Row> list);

  UploadRequestService& service_;
  std::set<std::string> arrayDownloadFilesInProcess;
  ServerCallWorker worker_;  // last: joined before the rest goes away
};
