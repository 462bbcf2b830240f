#include "CVViewUploadRequest.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "CVStaticHelpers.h"
#include "SharedCache.h"

namespace {

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}


}  // namespace

CVViewUploadRequest::CVViewUploadRequest(UploadRequestService& service, Post toMain)
    : service_(service),
      worker_(
          std::move(toMain), [&service] { return service.CheckConnectionAndGetWSToken(); }, isBusy,
          [this] { Changed(); }, [this] { Tell(kNoConnection); }) {}

CVViewUploadRequest::~CVViewUploadRequest() { worker_.Stop(); }

std::string CVViewUploadRequest::ExpiryText(const std::string& expireAt) {
  std::tm t{};
  std::istringstream in(expireAt);
  in >> std::get_time(&t, "%Y-%m-%dT%H:%M:%S");
  if (in.fail()) return "Expires On: " + expireAt;
  char text[32];
  std::strftime(text, sizeof text, "%d.%m.%y %H:%M:%S", &t);
  return std::string("Expires On: ") + text;
}

void CVViewUploadRequest::RefreshArrayData() {
  worker_.Run([this](const std::string& token) -> std::function<void()> {
    auto requests = service_.GetUploadRequestsWithToken(token);
    // The records' order; one session's requests together.
    std::stable_sort(requests.begin(), requests.end(), [](const CVUploadRequest& a, const CVUploadRequest& b) {
      return a.reqSessionID < b.reqSessionID;
    });
    return [this, requests = std::move(requests)] {
      arrayData = requests;
      GetSessionListForArray();
    };
  });
}

void CVViewUploadRequest::GetSessionListForArray() {
  LevelView = 1;
  std::vector<Row> list;
  for (const auto& request : arrayData) {
    const bool seen = std::any_of(list.begin(), list.end(), [&](const Row& row) { return row.ids == request.reqSessionID; });
    if (!seen) list.push_back({request.reqSession, request.reqSessionID, "", "", ""});
  }
  Show(std::move(list));
}

void CVViewUploadRequest::GetUsersListForSession(const std::string& sessionId) {
  LevelView = 2;
  std::vector<Row> list;
  for (const auto& request : arrayData) {
    if (request.reqSessionID != sessionId) continue;
    currentSession = request.reqSession;
    const bool seen =
        std::any_of(list.begin(), list.end(), [&](const Row& row) { return row.uname == request.reqRecipientName; });
    if (!seen) {
      list.push_back({request.reqRecipientName.empty() ? request.reqRecipientEmail : request.reqRecipientName,
                      request.reqID, request.reqGuid, request.reqRecipientName, ExpiryText(request.reqExpireDateTime)});
    }
  }
  Show(std::move(list));
}

void CVViewUploadRequest::GetFilesListForUser(const std::string& guid) {
  currentGuid = guid;
  worker_.Run([this, guid](const std::string&) -> std::function<void()> {
    auto files = service_.GetFilesListForUser(guid, SharedCache::UploadsRoot()).value_or(std::vector<CVFileForCompare>{});
    std::erase_if(files, [](const CVFileForCompare& file) { return file.isFolder; });
    return [this, files = std::move(files)] {
      LevelView = 3;
      arrayFileForDownload = files;
      std::vector<Row> list;
      for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string& path = files[i].localPath;
        list.push_back({path.substr(path.rfind('/') + 1), std::to_string(i), currentGuid, "", ""});
      }
      Show(std::move(list));
    };
  });
}

void CVViewUploadRequest::BackMethod() {
  if (LevelView == 3) {
    for (const auto& request : arrayData) {
      if (request.reqGuid == currentGuid) return GetUsersListForSession(request.reqSessionID);
    }
  }
  GetSessionListForArray();
}

void CVViewUploadRequest::searchButtonClick(const std::string& text) {
  const std::string wanted = CVStaticHelpers::AsciiLower(text);
  rows.clear();
  for (const auto& row : arraySearchTemp) {
    if (CVStaticHelpers::AsciiLower(row.labelText).find(wanted) != std::string::npos) rows.push_back(row);
  }
  Changed();
}

void CVViewUploadRequest::ResendEmailMethod(const std::vector<std::string>& ids) {
  if (ids.empty()) return;
  worker_.Run([this, ids](const std::string& token) -> std::function<void()> {
    const bool done = service_.ResendRequestEmail(token, ids);
    return [this, done] { Tell(done ? kResent : kFailed); };
  });
}

void CVViewUploadRequest::DeleteMethodTrash(const std::vector<std::string>& ids, const Ask& ask) {
  if (ids.empty() || !ask(kQuestion, kDeleteQuestion)) return;
  worker_.Run([this, ids](const std::string& token) -> std::function<void()> {
    const bool done = service_.DeleteUploadRequest(token, ids);
    auto requests = done ? service_.GetUploadRequestsWithToken(token) : std::vector<CVUploadRequest>{};
    return [this, done, requests = std::move(requests)] {
      Tell(done ? kDeleted : kFailed);
      if (!done) return;
      arrayData = requests;
      GetSessionListForArray();
    };
  });
}

void CVViewUploadRequest::methodDownload(const std::vector<std::size_t>& rowsToFetch) {
  std::vector<CVFileForCompare> files;
  for (std::size_t row : rowsToFetch) {
    if (row >= arrayFileForDownload.size()) continue;
    const auto& file = arrayFileForDownload[row];
    if (Exists(file.localPath) || !arrayDownloadFilesInProcess.insert(file.localPath).second) continue;
    files.push_back(file);
  }
  if (files.empty()) return Tell("0 downloaded, everything is here already.");
  worker_.Run([this, files, guid = currentGuid](const std::string&) -> std::function<void()> {
    int done = 0;
    const std::string root = SharedCache::UploadsRoot();
    for (const auto& file : files) {
      if (SharedCache::MakeParentFolders(root, file.localPath) && service_.DownloadFile(file, guid)) ++done;
    }
    return [this, files, done] {
      for (const auto& file : files) arrayDownloadFilesInProcess.erase(file.localPath);
      std::string text = std::to_string(done) + " downloaded to " + SharedCache::UploadsRoot();
      if (done < static_cast<int>(files.size())) text += ", " + std::to_string(files.size() - done) + " failed (see the log)";
      Tell(text);
    };
  });
}

void CVViewUploadRequest::ClearCBCheckedAndShowMessage(const std::vector<std::size_t>& rowsToClear) {
  std::vector<std::string> paths;
  for (std::size_t row : rowsToClear) {
    if (row >= arrayFileForDownload.size()) continue;
    paths.push_back(arrayFileForDownload[row].localPath);
    // Rows name their file by its place; a search may have moved the row.
    for (auto* list : {&rows, &arraySearchTemp}) {
      for (auto& shown : *list) {
        if (shown.ids == std::to_string(row)) shown.checkBox = false;
      }
    }
  }
  // No paths would be the whole cache.
  if (!paths.empty()) SharedCache::Remove(SharedCache::UploadsRoot(), paths);
  Tell(kCleared);
  Changed();
}

void CVViewUploadRequest::SetChecked(std::size_t row, bool on) {
  if (row >= rows.size()) return;
  rows[row].checkBox = on;
  // The whole list keeps the mark across searches.
  for (auto& kept : arraySearchTemp) {
    if (kept.ids == rows[row].ids && kept.labelText == rows[row].labelText) kept.checkBox = on;
  }
}

std::vector<std::string> CVViewUploadRequest::CheckedRequestIds() const {
  std::vector<std::string> ids;
  auto add = [&ids](const std::string& id) {
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  };
  for (const auto& row : rows) {
    if (!row.checkBox) continue;
    for (const auto& request : arrayData) {
      // A session stands for all of its requests, a file for the request it came through.
      const bool match = LevelView == 1   ? request.reqSessionID == row.ids
                         : LevelView == 2 ? request.reqID == row.ids
                                          : request.reqGuid == row.goid;
      if (match) add(request.reqID);
    }
  }
  return ids;
}

std::vector<std::size_t> CVViewUploadRequest::CheckedFiles() const {
  std::vector<std::size_t> files;
  if (LevelView != 3) return files;
  for (const auto& row : rows) {
    if (row.checkBox) files.push_back(std::stoul(row.ids));
  }
  return files;
}

void CVViewUploadRequest::Show(std::vector<Row> list) {
  rows = list;
  arraySearchTemp = std::move(list);
  Changed();
}

void CVViewUploadRequest::Tell(const std::string& text) {
  if (onMessage) onMessage(text);
}

void CVViewUploadRequest::Changed() {
  if (onChange) onChange();
}
