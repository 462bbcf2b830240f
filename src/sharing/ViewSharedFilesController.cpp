#include "ViewSharedFilesController.h"

#include <strings.h>
#include <sys/stat.h>
#include <utf8proc.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "SharedCache.h"

namespace {

constexpr int kDeepestFolder = 64;  // a server that lists a folder inside itself ends here


// The first character in upper case ("é" and "É" share a group); a byte that
// starts no UTF-8 character stands as it is.
std::string FirstLetter(const std::string& name) {
  if (name.empty()) return "";
  utf8proc_int32_t code = 0;
  const auto used = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                     static_cast<utf8proc_ssize_t>(name.size()), &code);
  if (used <= 0) return name.substr(0, 1);
  utf8proc_uint8_t upper[4];
  const auto length = utf8proc_encode_char(utf8proc_toupper(code), upper);
  return std::string(reinterpret_cast<const char*>(upper), static_cast<std::size_t>(length));
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "\\" + name;
}

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

std::string NowText() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

// One item to fetch: the shared item itself (no inner path), or an entry at
// inner inside a shared folder, cached under top/folder.
struct Fetch {
  WSFileProperty item;
  std::optional<std::string> inner;
  std::string top, folder;
};

struct Counts {
  int downloaded = 0, present = 0, failed = 0;
};

void FetchAll(SharedFilesService& service, const std::string& token, const Fetch& fetch, int depth,
              Counts& counts) {
  const std::string root = SharedCache::SharedInRoot();
  const std::string& name = fetch.item.file_name;
  if (fetch.item.isFolder) {
    if (depth >= kDeepestFolder) return;
    const std::string inner = fetch.inner.value_or("");
    const std::string folder = fetch.inner ? Join(fetch.folder, name) : "";
    for (auto& child : service.GetFileList(true, token, inner, fetch.item.share_id)) {
      Fetch next{child, Join(inner, child.file_name), fetch.top, folder};
      // The entries carry the share's id; the server's word for the folder's inside.
      next.item.share_id = fetch.item.share_id;
      FetchAll(service, token, next, depth + 1, counts);
    }
    return;
  }
  std::optional<std::string> local;
  if (!fetch.top.empty()) {
    local = fetch.inner ? SharedCache::PathInCache(root, fetch.top, fetch.folder, name)
                        : std::optional<std::string>(root + "/" + fetch.top);
  }
  if (!local) {
    ++counts.failed;
    return;
  }
  if (Exists(*local)) {
    ++counts.present;
    return;
  }
  std::optional<std::int64_t> modified;
  if (fetch.item.file_modified) {
    modified = std::chrono::duration_cast<std::chrono::seconds>(fetch.item.file_modified->time_since_epoch()).count();
  }
  const bool done = SharedCache::MakeParentFolders(root, *local) &&
                    service.DownloadSharing(*local, fetch.item.share_id, true, fetch.inner, token,
                                            {fetch.item.file_size, modified});
  ++(done ? counts.downloaded : counts.failed);
}

}  // namespace

ViewSharedFilesController::ViewSharedFilesController(SharedFilesService& service, Post toMain)
    : service_(service),
      worker_(
          std::move(toMain), [&service] { return service.CheckConnectionAndGetWSToken(); }, isBusy,
          [this] { Changed(); }, [this] { Tell(kNoConnection); }) {}

ViewSharedFilesController::~ViewSharedFilesController() {
  service_.StopDownloading();
  worker_.Stop();
}

std::string ViewSharedFilesController::PersonOf(const WSFileProperty& item) {
  if (item.ownerFullName.empty()) return item.owner;
  return item.ownerFullName + kPersonMark + "(" + item.owner + ")";
}

void ViewSharedFilesController::SortSharedFilesArray(std::vector<WSFileProperty>& items, bool ascending) {
  std::stable_sort(items.begin(), items.end(), [ascending](const WSFileProperty& a, const WSFileProperty& b) {
    if (a.isFolder != b.isFolder) return ascending ? a.isFolder : b.isFolder;
    const int order = ::strcasecmp(a.file_name.c_str(), b.file_name.c_str());
    return ascending ? order < 0 : order > 0;
  });
}

std::string ViewSharedFilesController::GetLocalPathForWSFileProperty(const WSFileProperty& item) const {
  if (!sharedIn()) return "";
  const std::string root = SharedCache::SharedInRoot();
  if (currentFolderId == "0") {
    auto name = SharedCache::SafeComponent(item.share_id + "_" + item.file_name);
    return name ? root + "/" + *name : "";
  }
  if (currentFolderRootPath.empty()) return "";
  return SharedCache::PathInCache(root, currentFolderRootPath, currentFolderPath, item.file_name).value_or("");
}

// --- Lists ---

void ViewSharedFilesController::SelectTab(WindowState state) {
  currentWindowState = state;
  labelTitleTable = state == kSharedIn ? kOwners : kRecipients;
  GetRecipientsList();
}

void ViewSharedFilesController::GetRecipientsList() {
  currentFolderId = "0";
  currentFolderPath.clear();
  currentFolderRootPath.clear();
  stack_.clear();
  level = Level::People;
  const bool in = sharedIn();
  Load([in](SharedFilesService& service, const std::string& token) { return service.GetFileList(in, token, "", {}); },
       [this](std::vector<WSFileProperty> items) {
         std::vector<std::string> people;
         for (const auto& item : items) {
           std::string person = PersonOf(item);
           if (std::find(people.begin(), people.end(), person) == people.end()) people.push_back(person);
         }
         std::vector<std::string> letters;
         for (const auto& person : people) {
           std::string letter = FirstLetter(person);
           if (std::find(letters.begin(), letters.end(), letter) == letters.end()) letters.push_back(letter);
         }
         std::sort(letters.begin(), letters.end());
         if (!ascendingSortDirection) std::reverse(letters.begin(), letters.end());
         std::vector<Row> list;
         for (const auto& letter : letters) {
           list.push_back({Row::Group, letter, {}, ""});
           for (const auto& person : people) {
             if (FirstLetter(person) == letter) list.push_back({Row::Person, person, {}, ""});
           }
         }
         return list;
       });
}

void ViewSharedFilesController::DoubleClickRecipient(const std::string& person) {
  currentRecipientName = person;
  LoadItems();
}

void ViewSharedFilesController::LoadItems() {
  level = Level::Items;
  currentFolderId = "0";
  currentFolderPath.clear();
  currentFolderRootPath.clear();
  stack_.clear();
  const bool in = sharedIn();
  const std::string person = currentRecipientName;
  Load(
      [in, person](SharedFilesService& service, const std::string& token) {
        auto items = service.GetFileList(in, token, "", {});
        // FilterByRecipient
        std::erase_if(items, [&](const WSFileProperty& item) {
          return item.owner != person && item.ownerFullName != person && PersonOf(item) != person;
        });
        return items;
      },
      [this](std::vector<WSFileProperty> items) { return ItemRows(std::move(items), false); });
}

void ViewSharedFilesController::DoubleClickFolder(const WSFileProperty& folder) {
  if (!folder.isFolder) return;
  stack_.push_back({level, currentFolderId, currentFolderPath, currentFolderRootPath});
  if (currentFolderId == "0") {
    currentFolderId = folder.share_id;
    currentFolderRootPath = SharedCache::SafeComponent(folder.share_id + "_" + folder.file_name).value_or("");
    currentFolderPath.clear();
    // Its files then have no place in the cache: shown, never fetched.
    if (sharedIn() && currentFolderRootPath.empty()) {
      CVEventLogger::WriteMainLogMessage(
          "<WARNING!> View Shared Files Window -> DoubleClickFolder: range of root path not found");
    }
  } else {
    currentFolderPath = Join(currentFolderPath, folder.file_name);
  }
  LoadFolder();
}

void ViewSharedFilesController::LoadFolder() {
  level = Level::Folder;
  const bool in = sharedIn();
  const std::string path = currentFolderPath, id = currentFolderId;
  Load([in, path, id](SharedFilesService& service,
                      const std::string& token) { return service.GetFileList(in, token, path, id); },
       [this](std::vector<WSFileProperty> items) { return ItemRows(std::move(items), true); });
}

void ViewSharedFilesController::DoubleClickGoUp() {
  if (stack_.empty()) {
    if (level == Level::Items) GetRecipientsList();
    return;
  }
  const Place back = stack_.back();
  stack_.pop_back();
  currentFolderId = back.folderId;
  currentFolderPath = back.folderPath;
  currentFolderRootPath = back.rootPath;
  if (back.level == Level::Folder) {
    LoadFolder();
  } else {
    auto kept = stack_;
    LoadItems();
    stack_ = kept;
  }
}

void ViewSharedFilesController::Refresh() {
  switch (level) {
    case Level::People: return GetRecipientsList();
    case Level::Items: return LoadItems();
    case Level::Folder: return LoadFolder();
  }
}

void ViewSharedFilesController::SetSortDirection(bool ascending) {
  ascendingSortDirection = ascending;
  Refresh();
}

std::vector<ViewSharedFilesController::Row> ViewSharedFilesController::ItemRows(std::vector<WSFileProperty> items,
                                                                                bool up) const {
  SortSharedFilesArray(items, ascendingSortDirection);
  std::vector<Row> list;
  if (up) list.push_back({Row::Up, "..", {}, ""});
  for (auto& item : items) {
    std::string local = item.isFolder ? "" : GetLocalPathForWSFileProperty(item);
    list.push_back({Row::Item, item.file_name, std::move(item), std::move(local)});
  }
  return list;
}

void ViewSharedFilesController::SearchBoxAction(const std::string& text) {
  const std::string wanted = CVStaticHelpers::AsciiLower(text);
  rows.clear();
  for (const auto& row : originalArrayData) {
    if (wanted.empty() || row.kind == Row::Up ||
        (row.kind != Row::Group && CVStaticHelpers::AsciiLower(row.name).find(wanted) != std::string::npos)) {
      rows.push_back(row);
    }
  }
  page = 0;
  Changed();
}

std::size_t ViewSharedFilesController::PageCount() const {
  return std::max<std::size_t>(1, (rows.size() + kPageSize - 1) / kPageSize);
}

void ViewSharedFilesController::ShowPage(std::size_t wanted) {
  page = std::min(wanted, PageCount() - 1);
  Changed();
}

std::vector<ViewSharedFilesController::Row> ViewSharedFilesController::PageRows() const {
  const std::size_t first = std::min(rows.size(), page * kPageSize);
  const std::size_t last = std::min(rows.size(), first + kPageSize);
  return {rows.begin() + static_cast<std::ptrdiff_t>(first), rows.begin() + static_cast<std::ptrdiff_t>(last)};
}

// --- Actions ---

void ViewSharedFilesController::DownloadFileAsync(std::vector<WSFileProperty> items) {
  if (!sharedIn() || items.empty()) return;
  std::vector<Fetch> fetches;
  for (auto& item : items) {
    if (currentFolderId == "0") {
      fetches.push_back({item, std::nullopt, SharedCache::SafeComponent(item.share_id + "_" + item.file_name).value_or(""), ""});
    } else {
      item.share_id = currentFolderId;
      fetches.push_back({item, Join(currentFolderPath, item.file_name), currentFolderRootPath, currentFolderPath});
    }
  }
  worker_.Run([this, fetches](const std::string& token) -> std::function<void()> {
    Counts counts;
    for (const auto& fetch : fetches) FetchAll(service_, token, fetch, 0, counts);
    return [this, counts] {
      lastUpdate = std::string("Last Update:") + NowText();
      std::string text = std::to_string(counts.downloaded) + " downloaded to " + SharedCache::SharedInRoot();
      if (counts.present > 0) text += ", " + std::to_string(counts.present) + " already there";
      if (counts.failed > 0) text += ", " + std::to_string(counts.failed) + " failed (see the log)";
      Tell(text);
      Changed();
    };
  });
}

void ViewSharedFilesController::StopDownloading() { service_.StopDownloading(); }

void ViewSharedFilesController::ClearCache(const std::vector<WSFileProperty>& items, const Ask& ask) {
  if (!sharedIn()) return;
  std::vector<std::string> paths;
  for (const auto& item : items) {
    const std::string path = item.isFolder && currentFolderId == "0"
                                 ? SharedCache::SharedInRoot() + "/" +
                                       SharedCache::SafeComponent(item.share_id + "_" + item.file_name).value_or("")
                                 : GetLocalPathForWSFileProperty(item);
    if (!path.empty()) paths.push_back(path);
  }
  if (items.empty() && !ask(kWarning, kClearQuestion)) return;
  if (!items.empty() && paths.empty()) return;
  SharedCache::Remove(SharedCache::SharedInRoot(), paths);
  Changed();
}

std::string ViewSharedFilesController::JoinIds(const std::vector<std::string>& ids) {
  std::string joined;
  for (const auto& id : ids) joined += (joined.empty() ? "" : ";") + id;
  return joined;
}

void ViewSharedFilesController::UnshareSlectedFiles(const std::vector<WSFileProperty>& items, const Ask& ask) {
  if (sharedIn() || items.empty() || !ask("", items.size() == 1 ? kUnshareOne : kUnshareMany)) return;
  Unshare(SearcIDForRecipients(RecipientsOf(items, {})), false);
}

void ViewSharedFilesController::UnshareLinks(const std::vector<ShareRow>& rows) {
  const auto ids = SearcIDForRecipients(rows);
  if (!sharedIn() && !ids.empty()) Unshare(ids, true);
}

void ViewSharedFilesController::Unshare(const std::vector<std::string>& ids, bool toPeople) {
  worker_.Run([this, ids = JoinIds(ids), toPeople](const std::string& token) -> std::function<void()> {
    const bool done = service_.DeleteSharedLink(token, ids);
    return [this, done, toPeople] {
      Tell(done ? kUnshared : kUnshareError);
      toPeople ? GetRecipientsList() : Refresh();
    };
  });
}

void ViewSharedFilesController::loadDataForTable(const std::vector<WSFileProperty>& items,
                                                 std::function<void(std::vector<ShareRow>)> open) {
  if (sharedIn() || level != Level::Items || items.empty()) return;
  worker_.Run([this, items, open](const std::string& token) -> std::function<void()> {
    auto rows = RecipientsOf(items, service_.GetFileList(false, token, "", {}));
    return [open, rows = std::move(rows)]() mutable { open(std::move(rows)); };
  });
}

std::vector<ViewSharedFilesController::ShareRow> ViewSharedFilesController::RecipientsOf(
    const std::vector<WSFileProperty>& chosen, const std::vector<WSFileProperty>& all) {
  std::vector<ShareRow> rows;
  auto add = [&rows](const WSFileProperty& share, bool checked) {
    for (auto& row : rows) {
      if (row.shareId == share.share_id) {
        row.chb = row.chb || checked;
        return;
      }
    }
    rows.push_back({checked, PersonOf(share), share.file_name, share.share_id, share.shareGroup, share.isFolder,
                    share.shared_at});
  };
  for (const auto& item : chosen) {
    add(item, true);
    if (item.shareGroup.empty()) continue;  // nothing ties it to other recipients
    for (const auto& share : all) {
      if (share.shareGroup == item.shareGroup && share.file_name == item.file_name && share.isFolder == item.isFolder) {
        add(share, false);
      }
    }
  }
  return rows;
}

std::vector<std::string> ViewSharedFilesController::SearcIDForRecipients(const std::vector<ShareRow>& rows) {
  std::vector<std::string> ids;
  for (const auto& row : rows) {
    if (row.chb && !row.shareId.empty() && std::find(ids.begin(), ids.end(), row.shareId) == ids.end()) {
      ids.push_back(row.shareId);
    }
  }
  return ids;
}

void ViewSharedFilesController::ResendEmail(const std::vector<ShareRow>& rows) {
  const auto ids = SearcIDForRecipients(rows);
  if (sharedIn() || ids.empty()) return;
  worker_.Run([this, ids = JoinIds(ids)](const std::string& token) -> std::function<void()> {
    const bool done = service_.ResendEmailShared(token, ids);
    return [this, done] { Tell(done ? kResent : kUnshareError); };
  });
}

void ViewSharedFilesController::ExtendShare(const std::vector<ShareRow>& rows, std::optional<Clock::time_point> until) {
  const auto ids = SearcIDForRecipients(rows);
  if (sharedIn() || ids.empty()) return;
  long validity = CorvalinkWS::kNoExpiry;
  if (until) {
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(*until - Clock::now()).count();
    validity = static_cast<long>(std::max<std::int64_t>(1, minutes));
  }
  worker_.Run([this, ids, validity](const std::string& token) -> std::function<void()> {
    const std::string result = service_.ShareFilesExtend2(ids, validity, token);
    const bool done = ExtendSucceeded(result);
    if (!done) CVEventLogger::WriteMainLogMessage("View Shared Files Window -> ExtendShare: " + result);
    return [this, done] {
      Tell(done ? kExtended : kUnshareError);
      GetRecipientsList();
    };
  });
}

bool ViewSharedFilesController::ExtendSucceeded(const std::string& result) {
  // The server refuses with "-1;..."; a call that failed on its way says "err..." or nothing.
  return !result.empty() && result.rfind("-1;", 0) != 0 && result.rfind("err", 0) != 0;
}

// --- Plumbing ---

void ViewSharedFilesController::Load(
    std::function<std::vector<WSFileProperty>(SharedFilesService&, const std::string& token)> fetch,
    std::function<std::vector<Row>(std::vector<WSFileProperty>)> toRows) {
  worker_.Run([this, fetch, toRows](const std::string& token) -> std::function<void()> {
    auto items = fetch(service_, token);
    return [this, items = std::move(items), toRows]() mutable {
      originalArrayData = toRows(std::move(items));
      rows = originalArrayData;
      page = 0;
      Changed();
    };
  });
}

void ViewSharedFilesController::Tell(const std::string& text) {
  if (onMessage) onMessage(text);
}

void ViewSharedFilesController::Changed() {
  if (onChange) onChange();
}
