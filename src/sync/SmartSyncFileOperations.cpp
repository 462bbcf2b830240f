#include "SmartSyncFileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <filesystem>
#include <set>

#include "AppDelegate.h"
#include "AsyncFileCommonPart.h"
#include "AsyncFileDownloader.h"
#include "CVConfiguration.h"
#include "CrashPoint.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVIPRestriction.h"
#include "CVSelectiveSync.h"
#include "CVSelectiveSyncRule.h"
#include "CVFileForCompareMethods.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "ManagerDownload.h"
#include "MyParser.h"
#include "ServerFileOperations.h"
#include "ServerNameRules.h"
#include "ServerXMLParser.h"
#include "SmartSync.h"
#include "StateFileSupport.h"
#include "SyncListener.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {
constexpr const char* kClass = "SmartSync";

void Log(const std::string& method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}

std::string LastComponent(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::optional<std::int64_t> Number(const std::string& text) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

const char* Kind(bool isFolder) { return isFolder ? "folder" : "file"; }

// The record of the last sync, asked path by path (in any normalisation form).
std::optional<CVFileForCompare> RecordOf(const std::string& path) { return DownloadedFilesStore::Instance().FindSame(path); }

// True when item has a record of its kind, and a file its size and time.
bool Alike(const CVFileForCompare& item) {
  auto record = RecordOf(item.localPath);
  return record && record->isFolder == item.isFolder &&
         (item.isFolder || (record->size == item.size && record->modifiedTime == item.modifiedTime));
}

// The storage's name and kind of a local path; nothing outside the storages.
std::optional<std::pair<std::string, std::string>> StorageOf(const std::string& path) {
  auto site = CVStaticHelpers::GetSpSiteForLocalPath(path);
  if (!site) return std::nullopt;
  std::lock_guard<std::recursive_mutex> lock(CVConfiguration::Instance().fSpSitesLock);
  return std::make_pair(site->Name, site->StorageType);
}

bool OnShareKind(const std::string& path) {
  auto storage = StorageOf(path);
  return storage && ServerNameRules::IsShareKind(storage->second);
}

bool IsRecorded(const std::string& path) { return RecordOf(path).has_value(); }

std::string ParentOf(const std::string& path) { return path.substr(0, path.find_last_of('/')); }

// A name for an item of folder, after name, that no entry there takes for its own.
std::string FreeName(const std::string& folder, const std::string& name, const std::string& storageType) {
  std::set<std::string> taken;
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    taken.insert(ServerNameRules::ComparisonKey(it->path().filename().string(), storageType));
  }
  const std::string valid = ServerNameRules::ValidName(name, storageType);
  if (valid != name && !taken.count(ServerNameRules::ComparisonKey(valid, storageType))) return valid;
  const std::size_t dot = valid.rfind('.');
  const bool hasExtension = dot != std::string::npos && dot > 0;
  const std::string stem = hasExtension ? valid.substr(0, dot) : valid;
  const std::string extension = hasExtension ? valid.substr(dot) : "";
  for (int count = 2;; ++count) {
    std::string candidate = stem + " (" + std::to_string(count) + ")" + extension;
    if (!taken.count(ServerNameRules::ComparisonKey(candidate, storageType))) return candidate;
  }
}

std::int32_t SiteIndex(const std::string& name) {
  auto sites = CVConfiguration::Instance().SitesCopy();
  for (std::size_t i = 0; i < sites.size(); ++i) {
    if (sites[i]->Name == name) return static_cast<std::int32_t>(i);
  }
  return 0;
}
}  // namespace

SmartSyncFileOperations::SmartSyncFileOperations(AppDelegate& app, ServerFileOperations& server)
    : app_(app),
      server_(server),
      ahead_(
          [this] {
            auto downloader = std::make_shared<AsyncFileDownloader>(app_.sharedClock());
            downloader->SetLanding(&landing_, /*onlyWherePathFree=*/true);
            return downloader;
          },
          [](const CVFileWithAction& item, AsyncFileDownloader& downloader) { return downloader.DownloadFile(item); }),
      uploadsAhead_(
          kUploadsAhead, [this] { return server_.Beside(); },
          [this](const CVFileWithAction& item, ServerFileOperations& sender) -> std::optional<ServerFileOperations::Sent> {
            if (CVStaticHelpers::isFileLockedPreUploadCheck(item.nFilePath, app_.clock())) return std::nullopt;
            // Only where the server says it has nothing; the loop decides what anything else means.
            if (!CVHandler::IsNotFoundReply(GetFileInfoReturnForPath(item.nFilePath))) return std::nullopt;
            CVFileWithAction copy = item;
            return sender.SendFile(copy);
          },
          [](ServerFileOperations& sender) { sender.StopCurrentAction(); }) {}

SmartSyncFileOperations::~SmartSyncFileOperations() = default;

void SmartSyncFileOperations::StopCurrentAction() {
  server_.StopCurrentAction();
  uploadsAhead_.Stop();
}

void SmartSyncFileOperations::MarkInProgress(const std::string& path, bool isFolder) {
  app_.AddFileInProgress(path);
  if (!isFolder) return;
  // Everything the store knows below a folder is the sync's own too.
  if (auto site = CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(path)) {
    for (const auto& child : site->GetArrayFilesFoldersForFolder(path)) {
      app_.AddFileInProgress(child);
      app_.AddFileInProgress(MyParser::GetFileCVTempForFileLocalPath(child));
    }
  }
}

bool SmartSyncFileOperations::MoveAside(const std::string& from, const std::string& to) {
  // Never over an existing file: the copy's name was free when it was chosen, and
  // if something took it since, the move fails instead of destroying it.
  if (syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), 1 /* RENAME_NOREPLACE */) == 0) {
    return true;
  }
  Log("MoveAside", "could not move " + from + " to " + to + ": " + std::strerror(errno));
  return false;
}

void SmartSyncFileOperations::Forget(const std::shared_ptr<CVSelectiveSyncSite>& site,
                                     const CVFileWithAction& item) {
  if (!site) return;
  if (item.isFolder) {
    site->removeSyncItemsAndRulesForFolder(item.nFilePath);
  } else {
    site->removeSyncItemAndRule(item.nFilePath);
  }
}

std::optional<std::vector<std::string>> SmartSyncFileOperations::GetFileInfo(const std::string& localPath) {
  auto site = CVStaticHelpers::GetSpSiteForLocalPath(localPath);
  if (!site) return std::nullopt;
  return CVHandler::Instance().GetFileInfo(CVStaticHelpers::serverPathFromLocalPath(localPath), site->Name);
}

std::optional<std::vector<CVFileForCompare>> SmartSyncFileOperations::ListServerFolder(SmartSync& sync,
                                                                                      const std::string& localPath,
                                                                                      bool recursive) {
  auto site = CVStaticHelpers::GetSpSiteForLocalPath(localPath);
  if (!site) return std::nullopt;
  CVSharepoint storage;
  {
    std::lock_guard<std::recursive_mutex> lock(CVConfiguration::Instance().fSpSitesLock);
    storage = *site;
  }
  ManagerDownload manager(app_.clock(), [&sync] { return !sync.syncMainThreadShouldRun; });
  auto listed = manager.GetFileListFromServerNew(CVStaticHelpers::serverPathFromLocalPath(localPath), storage,
                                                 recursive, /*uploadRequest=*/false, /*WithCanStopped=*/true);
  if (manager.isSiteOffline) return std::nullopt;
  return listed;
}

std::string SmartSyncFileOperations::GetFileInfoReturnForPath(const std::string& localPath) {
  auto site = CVStaticHelpers::GetSpSiteForLocalPath(localPath);
  if (!site) return "";
  return CVHandler::Instance().GetFileInfoReturnForPath(CVStaticHelpers::serverPathFromLocalPath(localPath),
                                                        site->Name);
}

std::int32_t SmartSyncFileOperations::PerformNextFileOperation(SmartSync& sync, CVFileWithAction& item) {
  Log("PerformNextFileOperation", "Next File Operation " + item.nFilePath);
  SettleUploadsAhead(item);
  auto storage = CVStaticHelpers::GetSpSiteForLocalPath(item.nFilePath);
  if (!storage) return SYNC_RETURN_OK;  // no storage: the entry stays where it is
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName(storage->Name);
  SyncListener::SendSyncNumberChangedNotification(SiteIndex(storage->Name));
  SyncListener::SendFileInProgressChangedNotification(LastComponent(item.nFilePath), item.fileSize,
                                                      item.fileAction);
  // Downloads wait to land together; anything else finds them in place.
  if (item.fileAction != FWA_DownloadFromServer || landing_.Due(item.fileSize)) LandDownloads();
  std::int32_t result = SYNC_RETURN_NO_OPERATION;
  auto markBusy = [&] { WriteState(item.nFilePath, "1", item.isFolder); };
  try {
    switch (item.fileAction) {
      case FWA_UploadToServer:
      case FWA_DeleteOnServerAndUploadToServer:
        Log("PerformNextFileOperation",
            "(FWA_UploadToServer||FWA_DeleteOnServerAndUploadToServer) for file: " + item.nFilePath + " ");
        markBusy();
        result = PerformUploadToServer(sync, item);
        if (result == SYNC_RETURN_OK) {
          Uploaded(site, item);
        } else {
          WriteState(item.nFilePath, "2", item.isFolder);
        }
        break;
      case FWA_DeleteOnServer:
        Log("PerformNextFileOperation", "(FWA_DeleteOnServer) for file: " + item.nFilePath + " ");
        if (site && !site->IsCanDeleteFile(item.nFilePath)) {
          Log("PerformNextFileOperation",
              "___This File Delete on server but selective sync non checked___ : " + item.nFilePath);
          result = SYNC_RETURN_OK;
        } else {
          result = PerformDeleteOnServer(sync, item);
          Log("PerformNextFileOperation", "Result Delete on server " + std::to_string(result));
          RemoveState(item.nFilePath);
          if (result == SYNC_RETURN_OK) Forget(site, item);
        }
        break;
      case FWA_DownloadFromServer:
        Log("PerformNextFileOperation", "(FWA_DownloadFromServer) for file: " + item.nFilePath + " ");
        markBusy();
        result = PerformDownloadFromServer(sync, item);
        if (result == SYNC_RETURN_OK) {
          WriteState(item.nFilePath, "", item.isFolder);
          if (site) site->addSyncItem(item.isFolder, item.nFilePath);
        } else {
          WriteState(item.nFilePath, "2", item.isFolder);
        }
        break;
      case FWA_DeleteLocally:
        Log("PerformNextFileOperation", "(FWA_DeleteLocally) for file: " + item.nFilePath + " ");
        result = PerformDeleteLocally(sync, item, site);
        RemoveState(item.nFilePath);
        if (result == SYNC_RETURN_STATE_CHANGED) {
          // Deleted because the server no longer has it: the store forgets it too.
          Forget(site, item);
          result = SYNC_RETURN_OK;
        }
        break;
      case FWA_CreateLocalCopyAndDownloadFromServer1:
      case FWA_CreateLocalCopyAndDownloadFromServer2:
        Log("PerformNextFileOperation",
            "(FWA_CreateLocalCopyAndDownloadFromServer1||FWA_CreateLocalCopyAndDownloadFromServer2) for file: " +
                item.nFilePath + " ");
        markBusy();
        result = PerformCreateLocalCopyAndDownloadFromServer(sync, item, item.fileSize, item.dateModified);
        if (result == SYNC_RETURN_OK) {
          WriteState(item.nFilePath, "", item.isFolder);
          if (site) site->addSyncItem(item.isFolder, item.nFilePath);
        } else {
          WriteState(item.nFilePath, "2", item.isFolder);
        }
        break;
      case FWA_CreateAndUploadLocalCopy:
        Log("PerformNextFileOperation", "(FWA_CreateAndUploadLocalCopy) for file: " + item.nFilePath + " ");
        markBusy();
        result = PerformCreateAndUploadLocalCopy(sync, item);
        if (result == SYNC_RETURN_OK) {
          WriteState(item.nFilePath, "", item.isFolder);
          if (site) site->addSyncItem(item.isFolder, item.nFilePath);
        } else {
          WriteState(item.nFilePath, "2", item.isFolder);
        }
        break;
      case FWA_RenameFileOnServer: {
        const auto held = HeldBackNames::Instance().Find(item.oldFilePath);
        if (held && StateFileSupport::IsSameOrBelow(held->localPath, item.oldFilePath)) {
          // It never went up under the old name: it goes up now under the new one.
          HeldBackNames::Instance().Release(item.oldFilePath);
          if (item.isFolder) {
            QueueLocalUpload(sync, item.nFilePath, true);
            result = SYNC_RETURN_OK;
          } else {
            result = PerformUploadToServer(sync, item);
          }
        } else if (held || (OnShareKind(item.oldFilePath) && !IsRecorded(item.oldFilePath))) {
          // Not on the server under the old name, which there could stand for another item.
          result = PerformUploadToServer(sync, item);
        } else if (auto refused = NameHeldBack(item.nFilePath)) {
          result = HoldBack(*refused);
        } else {
          result = PerformRenameFileOnServer(sync, item, site);
        }
        if (result == SYNC_RETURN_RENAME_SOURCE_GONE) {
          result = CVStaticHelpers::ExistsInAnyForm(item.nFilePath) ? PerformUploadToServer(sync, item)
                                                                    : SYNC_RETURN_OK;
        }
        if (result != SYNC_RETURN_OK) {
          WriteState(item.nFilePath, "2", item.isFolder);
        } else {
          WriteState(item.nFilePath, "", item.isFolder);
          if (site) site->renameSyncItemAndRule(item.oldFilePath, item.nFilePath, item.isFolder);
        }
        RemoveState(item.oldFilePath);
        break;
      }
      default:
        break;
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "PerformNextFileOperation", failure.what());
    result = SYNC_RETURN_FAILED;
  }

  sync.write_log_inforamtion(item, false);
  // No pause for the file system to deliver this operation's events: they come
  // late on the paths released here, and the watcher knows them by path, time
  // and the state the operation left on the disk.
  app_.ReleaseFilesInProgress();
  Log("PerformNextFileOperation", "Result code: ((( " + std::to_string(result) + " )))");

  auto finish = [&] {
    if (item.isFSWAction) {
      CrashPoint("local-change-done");
      AsyncFileCommonPart::RemoveFromNewFiles(item);
      sync.RemoveFileFromFSWArrayQueue();
    }
  };
  bool exists = CVStaticHelpers::ExistsInAnyForm(item.nFilePath);
  if (result == SYNC_RETURN_OK || result == SYNC_RETURN_SIZE_CHANGED || result == SYNC_RETURN_NAME_HELD_BACK) {
    finish();
  } else if (item.attemptsCount >= 3 && item.fileAction != FWA_UploadToServer) {
    if (item.fileAction == FWA_RenameFileOnServer && item.isFSWAction) QueueUploadOfGivenUpRename(sync, item);
    finish();
  } else if (result == SYNC_RETURN_LOCKED) {
    Log("PerformNextFileOperation",
        "Return SYNC_RETURN_LOCKED, waiting for the next round for file: " + item.nFilePath);
    sync.itemsLeftForLater = true;
  } else if (result == SYNC_RETURN_STATE_CHANGED && item.fileAction == FWA_UploadToServer &&
             item.isFSWAction && !exists) {
    CVEventLogger::WriteMainLogMessage("<WARNING> Upload (-6) for file: " + item.nFilePath);
    AsyncFileCommonPart::RemoveFromNewFiles(item);
    sync.RemoveFileFromFSWArrayQueue();
  } else if (result == SYNC_RETURN_STATE_CHANGED && item.fileAction == FWA_DeleteOnServer &&
             item.isFSWAction && exists) {
    CVEventLogger::WriteMainLogMessage("<WARNING> Delete On Server (-6) for file: " + item.nFilePath);
    sync.RemoveFileFromFSWArrayQueue();
  } else if (result == SYNC_RETURN_STATE_CHANGED) {
    sync.itemsLeftForLater = true;  // stays for the next round
  } else if (result == SYNC_RETURN_RESTRICTED) {
    Log("PerformNextFileOperation", "Restricted file/folder: " + item.nFilePath);
    CVIPRestriction::Instance().AddNodeIfNoSuchWitServerPathFile(item.nFilePath,
                                                                 CVStaticHelpers::FormatDateTime(0));
    AsyncFileCommonPart::RemoveFromNewFiles(item);
    if (item.isFSWAction) sync.RemoveFileFromFSWArrayQueue();
  } else {
    sync.write_log_inforamtion(item, true);
    CVEventLogger::WriteMainLogMessage("!!! OPERATION FAILED !!! " + std::to_string(result));
    if (result == SYNC_RETURN_FAILED) sync.syncedWithSomeErrors = true;
    sync.itemsLeftForLater = true;
  }
  // What the operation changed in the selective sync store is in its journal
  // already; the store is written whole at the end of the pass.
  return result;
}

void SmartSyncFileOperations::QueueUploadOfGivenUpRename(SmartSync& sync, const CVFileWithAction& item) {
  // A rename given up after its attempts would lose the file on the server when
  // something stands at the new path: send that as a new file instead.
  if (!CVStaticHelpers::ExistsInAnyForm(item.nFilePath)) return;
  QueueLocalUpload(sync, item.nFilePath, item.isFolder);
  Log("PerformNextFileOperation", "rename given up, queued as a new file: " + item.nFilePath);
}

void SmartSyncFileOperations::QueueLocalUpload(SmartSync& sync, const std::string& path, bool isFolder) {
  std::vector<NFQ_File> entries(1);
  entries[0].fileAction = NFQ_Created;
  entries[0].isFolder = isFolder;
  entries[0].nFilePath = path;
  if (isFolder) {
    auto inside = SmartSync::GetChildFilesAndFoldersNFQ(path, true);
    entries.insert(entries.end(), inside.begin(), inside.end());
  }
  {
    std::lock_guard<std::mutex> lock(sync.fswQueue().FSW_FQ_Lock);
    auto& queue = sync.fswQueue().FQ_FilteredQueue;
    queue.insert(queue.end(), entries.begin(), entries.end());
  }
  for (const auto& entry : entries) AsyncFileCommonPart::ChangeNewFiles(entry, NFQ_Created);
}

bool SmartSyncFileOperations::LocalAsRecorded(const std::string& path) {
  auto self = CVFileForCompareMethods::CreateCVFileForCompare(path);
  if (!self || !Alike(*self)) return false;
  if (!self->isFolder) return true;
  const auto inside = SmartSync::readLocalFiles(path);
  return std::all_of(inside.begin(), inside.end(), [](const CVFileForCompare& item) { return Alike(item); });
}

bool SmartSyncFileOperations::MakeRoomForServerItem(SmartSync& sync, const CVFileWithAction& item) {
  struct stat info {};
  if (lstat(item.nFilePath.c_str(), &info) != 0) return true;
  const bool localIsFolder = S_ISDIR(info.st_mode);
  if (localIsFolder == item.isFolder) return true;
  sync.AddPath(item.nFilePath, localIsFolder);
  if (LocalAsRecorded(item.nFilePath)) {
    // The server has had this content; a deletion by the sync lands in the Trash.
    if (!CVStaticHelpers::MoveFileToTrash(item.nFilePath)) {
      Log("MakeRoomForServerItem", "could not move to the Trash: " + item.nFilePath);
      return false;
    }
    Log("MakeRoomForServerItem", std::string("the server replaced the ") + Kind(localIsFolder) + " by a " +
                                     Kind(item.isFolder) + "; the local one is in the Trash: " + item.nFilePath);
  } else {
    const std::string copy = CVStaticHelpers::getLocalCopyName(item.nFilePath);
    app_.AddFileInProgress(copy);
    if (!MoveAside(item.nFilePath, copy)) return false;
    Log("MakeRoomForServerItem", std::string("the server holds a ") + Kind(item.isFolder) + " at " + item.nFilePath +
                                     "; the local " + Kind(localIsFolder) + " goes up as " + copy);
    QueueLocalUpload(sync, copy, localIsFolder);
  }
  CVFileWithAction gone = item;
  gone.isFolder = localIsFolder;
  AsyncFileCommonPart::RemoveFromDownloadedFiles(gone);
  return true;
}

bool SmartSyncFileOperations::ServerAsRecorded(SmartSync& sync, const CVFileWithAction& item, bool serverIsFolder,
                                               const std::vector<std::string>& serverData) {
  CVFileForCompare server;
  server.localPath = item.nFilePath;
  server.isFolder = serverIsFolder;
  if (!serverIsFolder) {
    auto size = serverData.size() > 2 ? Number(serverData[2]) : std::nullopt;
    auto modified = serverData.size() > 3 ? Number(serverData[3]) : std::nullopt;
    if (!size || !modified) return false;
    server.size = *size;
    server.modifiedTime = *modified;
    return Alike(server);
  }
  if (!Alike(server)) return false;
  auto listed = ListServerFolder(sync, item.nFilePath, true);
  if (!listed) {
    // Nothing listed: an empty folder is as recorded only when nothing was recorded in it.
    const auto records = ServerXMLParser().readDownloadedFiles();
    return records && std::none_of(records->begin(), records->end(), [&](const CVFileForCompare& record) {
             return record.localPath != item.nFilePath &&
                    StateFileSupport::IsSameOrBelow(record.localPath, item.nFilePath);
           });
  }
  return std::all_of(listed->begin(), listed->end(),
                     [](const CVFileForCompare& line) { return Alike(line); });
}

std::optional<HeldBackName> SmartSyncFileOperations::NameHeldBack(const std::string& path) {
  auto storage = StorageOf(path);
  if (!storage) return std::nullopt;
  const auto& [name, type] = *storage;
  const bool share = ServerNameRules::IsShareKind(type);
  std::string parent = CVStaticHelpers::GeneratePathToSite(name);
  if (!path.starts_with(parent + "/")) return std::nullopt;
  for (std::size_t start = parent.size() + 1; start <= path.size();) {
    std::size_t end = std::min(path.find('/', start), path.size());
    const std::string component = path.substr(start, end - start);
    const std::string current = path.substr(0, end);
    if (auto problem = ServerNameRules::NameProblem(component, type); !problem.empty()) {
      return HeldBackName{current, problem, FreeName(parent, component, type)};
    }
    // Two names one storage takes for the same: the one the server knows keeps syncing.
    const auto like = share ? NamesLike(parent, component, type) : std::vector<std::string>{};
    if (!like.empty() && !IsRecorded(current)) {
      for (const auto& sibling : like) {
        if (!IsRecorded(parent + "/" + sibling)) continue;
        return HeldBackName{current,
                            "\"" + sibling + "\" in the same folder has the same name for the server's storage, "
                            "which does not tell upper from lower case",
                            FreeName(parent, component, type)};
      }
    }
    parent = current;
    start = end + 1;
  }
  return std::nullopt;
}

std::vector<std::string> SmartSyncFileOperations::NamesLike(const std::string& folder, const std::string& name,
                                                            const std::string& storageType) {
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0) return {};
  const std::int64_t changed = static_cast<std::int64_t>(info.st_ctim.tv_sec) * 1'000'000'000 + info.st_ctim.tv_nsec;
  auto kept = std::find_if(folderNames_.begin(), folderNames_.end(), [&](const FolderNames& names) {
    return names.path == folder && names.storageType == storageType;
  });
  if (kept != folderNames_.end()) folderNames_.splice(folderNames_.begin(), folderNames_, kept);
  FolderNames& names = kept != folderNames_.end() ? folderNames_.front() : folderNames_.emplace_front();
  if (folderNames_.size() > kFoldersKept) folderNames_.pop_back();
  if (names.path != folder || names.storageType != storageType || names.changed != changed ||
      names.inode != info.st_ino) {
    names = FolderNames{folder, storageType, changed, static_cast<std::uint64_t>(info.st_ino), {}};
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
      const std::string entry = it->path().filename().string();
      names.byKey[ServerNameRules::ComparisonKey(entry, storageType)].push_back(entry);
    }
  }
  std::vector<std::string> like;
  auto found = names.byKey.find(ServerNameRules::ComparisonKey(name, storageType));
  if (found == names.byKey.end()) return like;
  for (const auto& entry : found->second) {
    if (entry != name) like.push_back(entry);
  }
  return like;
}

std::optional<std::string> SmartSyncFileOperations::ServerSpellingOf(SmartSync& sync, const std::string& path) {
  auto storage = StorageOf(path);
  if (!storage) return std::nullopt;
  const std::string name = path.substr(path.find_last_of('/') + 1);
  const std::string key = ServerNameRules::ComparisonKey(name, storage->second);
  const std::string parent = ParentOf(path);
  for (const auto& line : ListServerFolder(sync, parent, false).value_or(std::vector<CVFileForCompare>{})) {
    if (ParentOf(line.localPath) != parent) continue;
    const std::string listed = line.localPath.substr(parent.size() + 1);
    if (listed != name && ServerNameRules::ComparisonKey(listed, storage->second) == key) return listed;
  }
  return std::nullopt;
}

std::int32_t SmartSyncFileOperations::HoldBack(const HeldBackName& name) {
  Log("HoldBack", HeldBackNames::Describe(name));
  if (HeldBackNames::Instance().Hold(name)) app_.NotifyUser(HeldBackNames::Describe(name));
  return SYNC_RETURN_NAME_HELD_BACK;
}

void SmartSyncFileOperations::Uploaded(const std::shared_ptr<CVSelectiveSyncSite>& site, const CVFileWithAction& item) {
  WriteState(item.nFilePath, "0", item.isFolder);
  if (site && !item.oldFilePath.empty()) {
    site->renameSyncItemAndRule(item.oldFilePath, item.nFilePath, item.isFolder);
  } else if (site) {
    site->addSyncItem(item.isFolder, item.nFilePath);
    site->addSyncRule(CVSelectiveSyncRule::syncAll, item.nFilePath);
  }
}

void SmartSyncFileOperations::SettleUploadsAhead(const CVFileWithAction& next) {
  if (uploadsAhead_.Running() == 0 || uploadsAhead_.Holds(next)) return;
  for (auto& [item, sent] : uploadsAhead_.TakeAll()) {
    if (!sent || sent->code != SYNC_RETURN_OK) continue;
    Log("SettleUploadsAhead", "sent ahead, recorded before " + next.nFilePath + ": " + item.nFilePath);
    app_.AddFileInProgress(item.nFilePath);
    if (server_.RecordSent(item, *sent) == SYNC_RETURN_OK) {
      Uploaded(CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(item.nFilePath), item);
    }
  }
}

bool SmartSyncFileOperations::UploadQualifies(const CVFileWithAction& item) {
  if (item.fileAction != FWA_UploadToServer || item.isFolder || item.isFSWAction) return false;
  struct stat info {};
  if (::lstat(item.nFilePath.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kLargestUploadAhead) {
    return false;
  }
  if (IsRecorded(item.nFilePath) || NameHeldBack(item.nFilePath)) return false;
  // Its folder went up before it: the storage's own, or one the record knows.
  const std::string folder = ParentOf(item.nFilePath);
  auto storage = StorageOf(item.nFilePath);
  if (!storage) return false;
  if (folder == CVStaticHelpers::GeneratePathToSite(storage->first)) return true;
  auto record = RecordOf(folder);
  return record && record->isFolder;
}

bool SmartSyncFileOperations::CheckNextFileOnServer(const CVFileWithAction& item,
                                                    const std::optional<std::vector<std::string>>& serverData) {
  try {
    if (!serverData || serverData->empty()) return true;
    auto record = DownloadedFilesStore::Instance().FindSame(item.nFilePath);
    if (!record || serverData->size() < 3) return false;
    return record->size == std::stoll((*serverData)[2]);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "CheckNextFileOnServer", failure.what());
    return false;
  }
}

std::int32_t SmartSyncFileOperations::PerformUploadToServer(SmartSync& sync, CVFileWithAction& item) {
  try {
    Log("PerformUploadToServer", "Upload to server:  " + item.nFilePath);
    app_.AddFileInProgress(item.nFilePath);
    auto ahead = uploadsAhead_.Take(item, /*sameVersionOnly=*/false);
    // The next new files go up while this one does; after a folder, once it is there.
    if (!item.isFolder) {
      uploadsAhead_.Start(sync.serverQueue().FirstItems(2 * kUploadsAhead),
                          [this](const CVFileWithAction& next) { return UploadQualifies(next); },
                          /*leadingOnly=*/true);
    }
    if (ahead && ahead->second && ahead->second->code == SYNC_RETURN_OK) {
      // The server had nothing there and has the file now: recorded in its turn,
      // unless it changed after it went up.
      return server_.RecordSent(item, *ahead->second);
    }
    if (!CVStaticHelpers::ExistsInAnyForm(item.nFilePath)) return SYNC_RETURN_STATE_CHANGED;
    if (auto held = NameHeldBack(item.nFilePath)) return HoldBack(*held);
    struct stat info {};
    if (lstat(item.nFilePath.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
      // Links are never followed: what they point at may lie outside the storage.
      Log("PerformUploadToServer", "symbolic link skipped: " + item.nFilePath);
      return SYNC_RETURN_OK;
    }
    if (!item.isFolder && CVStaticHelpers::isFileLockedPreUploadCheck(item.nFilePath, app_.clock())) {
      return SYNC_RETURN_LOCKED;
    }
    if (auto local = CVFileForCompareMethods::CreateCVFileForCompare(item.nFilePath)) item.isFolder = local->isFolder;
    auto serverData = GetFileInfo(item.nFilePath);
    if (!sync.syncMainThreadShouldRun) return SYNC_RETURN_LOCKED;
    if (serverData && !serverData->empty() && OnShareKind(item.nFilePath) && !IsRecorded(item.nFilePath)) {
      // The server answered for a name it takes for this one: maybe another
      // item, spelled in another case, which this one must not overwrite.
      if (auto spelling = ServerSpellingOf(sync, item.nFilePath)) {
        auto storage = StorageOf(item.nFilePath);
        return HoldBack({item.nFilePath,
                         "the server holds \"" + *spelling +
                             "\", the same name for its storage, which does not tell upper from lower case",
                         FreeName(ParentOf(item.nFilePath), LastComponent(item.nFilePath), storage->second)});
      }
    }
    const bool serverIsFolder = serverData && serverData->size() > 1 && (*serverData)[1] == "D";
    if (serverData && !serverData->empty() && serverIsFolder != item.isFolder) {
      // A file became a folder here, or the reverse. When the server still holds
      // what this client last saw, the change wins and the server keeps the old
      // item as a version; otherwise both sides changed, and the server's keeps the name.
      if (!ServerAsRecorded(sync, item, serverIsFolder, *serverData)) return PerformCreateAndUploadLocalCopy(sync, item);
      CVFileWithAction old = item;
      old.isFolder = serverIsFolder;
      const std::int32_t removed =
          serverIsFolder ? server_.DeleteFolderOnServer(old) : server_.DeleteFileOnServer(old);
      if (removed != SYNC_RETURN_OK) return removed;
      Log("PerformUploadToServer", std::string("the server's ") + Kind(serverIsFolder) + " gives way to the local " +
                                       Kind(item.isFolder) + ": " + item.nFilePath);
      serverData.reset();
    }
    if (item.isFolder) return server_.CreateFolderOnServer(item);
    if (CVStaticHelpers::isFileLockedPreUploadCheck(item.nFilePath, app_.clock())) {
      return SYNC_RETURN_STATE_CHANGED;
    }
    if (!sync.syncMainThreadShouldRun) return SYNC_RETURN_LOCKED;
    if (!CheckNextFileOnServer(item, serverData)) {
      // An upload whose record a crash lost finds its own content there: nothing to copy.
      if (server_.RecordIfServerHoldsSame(item, *serverData)) return SYNC_RETURN_OK;
      return PerformCreateAndUploadLocalCopy(sync, item);
    }
    if (!sync.syncMainThreadShouldRun) return SYNC_RETURN_LOCKED;
    if (SmartSync::CheckFileNameStringState(item.nFilePath) == 1) {
      item.nFilePath = CVStaticHelpers::PrecomposedForm(item.nFilePath);
      CVEventLogger::WriteMainLogMessage("(PerformUploadToServer)");
    }
    std::int32_t result = server_.UploadFileToServer(item);
    return result == SYNC_RETURN_SERVER_NOT_FOUND ? SYNC_RETURN_LOCKED : result;
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("PerformUploadToServer: ") + failure.what());
    return SYNC_RETURN_FAILED;
  }
}

std::int32_t SmartSyncFileOperations::PerformCreateAndUploadLocalCopy(SmartSync& sync, CVFileWithAction& item) {
  try {
    Log("PerformCreateAndUploadLocalCopy", "Create and upload local copy:  " + item.nFilePath);
    std::string original = item.nFilePath;
    std::string copy = CVStaticHelpers::getLocalCopyName(original);
    sync.AddPath(original, item.isFolder);
    app_.AddFileInProgress(copy);
    if (!MoveAside(original, copy)) return SYNC_RETURN_LOCKED;
    if (item.isFolder) {
      // A folder goes up with everything in it, item by item.
      QueueLocalUpload(sync, copy, true);
      item.nFilePath = copy;
      return SYNC_RETURN_OK;
    }
    if (SmartSync::CheckFileNameStringState(original) == 1) {
      copy = CVStaticHelpers::PrecomposedForm(copy);
      CVEventLogger::WriteMainLogMessage("(PerformCreateAndUploadLocalCopy)");
    }
    item.nFilePath = copy;
    std::int32_t result = server_.UploadFileToServer(item);
    if (auto site = CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(copy)) {
      site->addSyncItem(false, copy);
      site->addSyncRule(CVSelectiveSyncRule::syncAll, copy);
    }
    return result;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "PerformCreateAndUploadLocalCopy", failure.what());
    return SYNC_RETURN_FAILED;
  }
}

std::int32_t SmartSyncFileOperations::PerformCreateLocalCopyAndDownloadFromServer(
    SmartSync& sync, CVFileWithAction& item, std::int64_t, std::int64_t) {
  std::string original = item.nFilePath;
  std::string copy;
  std::int32_t result = SYNC_RETURN_FAILED;
  try {
    Log("PerformCreateLocalCopyAndDownloadFromServer", "Create local copy and download from server " + original);
    app_.AddFileInProgress(original);
    // The same content on both sides needs neither a copy nor a download.
    if (auto info = GetFileInfo(original); info && server_.RecordIfServerHoldsSame(item, *info)) return SYNC_RETURN_OK;
    copy = CVStaticHelpers::getLocalCopyName(original);
    app_.AddFileInProgress(copy);
    if (!MoveAside(original, copy)) {
      // Nothing is downloaded over the user's file.
      result = SYNC_RETURN_LOCKED;
    } else if (!DownloadFile(item)) {
      result = SYNC_RETURN_LOCKED;  // the user's content waits under the copy's name
    } else if (CVStaticHelpers::FileSame(copy, original)) {
      std::error_code error;
      std::filesystem::remove(copy, error);
      AsyncFileCommonPart::WriteToDownloadedFiles(item, false);
      result = SYNC_RETURN_OK;
    } else {
      NFQ_File entry;
      entry.nFilePath = copy;
      entry.fileAction = NFQ_Created;
      entry.isFolder = false;
      CVFileWithAction upload = SmartSync::CreateCVFileWithActionFromNFQFile(entry);
      if (SmartSync::CheckFileNameStringState(original) == 1) {
        upload.nFilePath = CVStaticHelpers::PrecomposedForm(copy);
        CVEventLogger::WriteMainLogMessage("(PerformCreateLocalCopyAndDownloadFromServer)");
      }
      result = server_.UploadFileToServer(upload);
      if (auto site = CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(copy)) {
        site->addSyncItem(false, copy);
        site->addSyncRule(CVSelectiveSyncRule::syncAll, copy);
      }
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "PerformCreateLocalCopyAndDownloadFromServer", failure.what());
    result = SYNC_RETURN_FAILED;
  }
  (void)sync;
  // Both paths stay the sync's own until the operation releases them.
  return result;
}

std::int32_t SmartSyncFileOperations::PerformDownloadFromServer(SmartSync& sync, CVFileWithAction& item) {
  try {
    app_.AddFileInProgress(item.nFilePath);
    app_.AddFileInProgress(MyParser::GetFileCVTempForFileLocalPath(item.nFilePath));
    if (!MakeRoomForServerItem(sync, item)) return SYNC_RETURN_LOCKED;
    if (item.isFolder) {
      std::error_code error;
      std::filesystem::create_directories(item.nFilePath, error);
      if (!error) {
        AsyncFileCommonPart::WriteToDownloadedFiles(item, false);
        return SYNC_RETURN_OK;
      }
      Log("PerformDownloadFromServer", "Download folder not success: " + item.nFilePath);
    } else {
      // The files after this one come over while it does.
      ahead_.Start(sync.serverQueue().FirstItems(2 * DownloadAhead::kMostAhead));
      if (DownloadFile(item)) return SYNC_RETURN_OK;
      Log("PerformDownloadFromServer", "Download file not success: " + item.nFilePath);
    }
    if (ForgetIfGoneFromServer(item, "PerformDownloadFromServer")) return SYNC_RETURN_OK;
    return SYNC_RETURN_LOCKED;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "PerformDownloadFromServer", failure.what());
    return SYNC_RETURN_LOCKED;
  }
}

bool SmartSyncFileOperations::ForgetIfGoneFromServer(const CVFileWithAction& item, const char* method) {
  // After a failed transfer the server is asked whether the item is still there.
  std::string reply = GetFileInfoReturnForPath(item.nFilePath);
  if (CVHandler::IsNotFoundReply(reply)) {
    AsyncFileCommonPart::RemoveFromDownloadedFiles(item);
    return true;
  }
  Log(method, "File not delete on server: " + item.nFilePath + ", code error: " + reply);
  return false;
}

std::int32_t SmartSyncFileOperations::PerformDeleteLocally(SmartSync&, CVFileWithAction& item,
                                                           const std::shared_ptr<CVSelectiveSyncSite>& site) {
  app_.AddFileInProgress(item.nFilePath);
  bool checked = site && site->IsCheckedRuleForLocalPath(item.nFilePath);
  if (checked) Log("PerformDeleteLocally", "Delete locally call SERVER for path: " + item.nFilePath);
  bool removed = true;
  if (!CVStaticHelpers::ExistsInAnyForm(item.nFilePath)) {
    Log("PerformDeleteLocally", "File/Folder not exist! Or exist could not be determined! " + item.nFilePath);
  } else {
    if (item.isFolder) MarkInProgress(item.nFilePath, true);
    if (!CVStaticHelpers::MoveFileToTrash(item.nFilePath) && CVStaticHelpers::ExistsInAnyForm(item.nFilePath)) {
      Log("PerformDeleteLocally", "Error delete locally for path: " + item.nFilePath);
      removed = false;
    }
  }
  if (item.isFSWAction) {
    Log("PerformDeleteLocally",
        "Not standart situation, file action TRUE!!! this not correct handle for file: " + item.nFilePath);
  }
  if (!removed) {
    Log("PerformDeleteLocally",
        "Delete locally not correct, to file/folder not access, will try later for path: " + item.nFilePath);
    return SYNC_RETURN_LOCKED;
  }
  AsyncFileCommonPart::RemoveFromDownloadedFiles(item);
  return checked ? SYNC_RETURN_STATE_CHANGED : SYNC_RETURN_OK;
}

std::int32_t SmartSyncFileOperations::PerformDeleteOnServer(SmartSync&, CVFileWithAction& item) {
  try {
    Log("PerformDeleteOnServer", "Delete on server:  " + item.nFilePath);
    if (CVStaticHelpers::ExistsInAnyForm(item.nFilePath)) {
      Log("PerformDeleteOnServer", "Not delete (exist) file/folder: " + item.nFilePath);
      return SYNC_RETURN_STATE_CHANGED;
    }
    // What never went up under this name is not on the server; where the storage
    // does not tell upper from lower case, the name could stand for another item.
    if (HeldBackNames::Instance().Release(item.nFilePath) ||
        (OnShareKind(item.nFilePath) && !IsRecorded(item.nFilePath))) {
      Log("PerformDeleteOnServer", "never on the server under this name, nothing to delete: " + item.nFilePath);
      return SYNC_RETURN_OK;
    }
    if (SmartSync::CheckFileNameStringState(item.nFilePath) == 1) {
      item.nFilePath = CVStaticHelpers::PrecomposedForm(item.nFilePath);
      CVEventLogger::WriteMainLogMessage("(PerformDeleteOnServer)");
    }
    std::int32_t result = item.isFolder ? server_.DeleteFolderOnServer(item) : server_.DeleteFileOnServer(item);
    if (result == SYNC_RETURN_OK) {
      AsyncFileCommonPart::RemoveFromDownloadedFiles(item);
      return SYNC_RETURN_OK;
    }
    if (ForgetIfGoneFromServer(item, "PerformDeleteOnServer")) return SYNC_RETURN_OK;
    return result;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "PerformDeleteOnServer", failure.what());
    return SYNC_RETURN_FAILED;
  }
}

std::int32_t SmartSyncFileOperations::PerformRenameFileOnServer(SmartSync&, CVFileWithAction& item,
                                                                const std::shared_ptr<CVSelectiveSyncSite>&) {
  Log("PerformRenameFileOnServer", "Rename on server:  " + item.nFilePath);
  MarkInProgress(item.nFilePath, item.isFolder);
  MarkInProgress(item.oldFilePath, item.isFolder);
  if (SmartSync::CheckFileNameStringState(item.oldFilePath) == 1) {
    item.oldFilePath = CVStaticHelpers::PrecomposedForm(item.oldFilePath);
    item.nFilePath = CVStaticHelpers::PrecomposedForm(item.nFilePath);
    CVEventLogger::WriteMainLogMessage("(PerformRenameFileOnServer)");
  }
  return server_.RenameFileOnServer(item);
}

bool SmartSyncFileOperations::DownloadFile(CVFileWithAction& item) {
  if (auto fetched = ahead_.Take(item); fetched && fetched->arrived) {
    app_.DiskHasRoom();
    return true;
  }
  // Not fetched ahead, or that download failed: it runs here, with its attempts.
  // A fresh downloader for each download, kept where a stop from another thread finds it.
  auto downloader = std::make_shared<AsyncFileDownloader>(app_.sharedClock());
  downloader->SetLanding(&landing_);
  {
    std::lock_guard<std::mutex> lock(downloaderLock_);
    cvAFD_ = downloader;
  }
  bool arrived = downloader->DownloadFile(item);
  // Only a plain download may wait to land with others: the conflict flows
  // compare and move the file at once.
  if (arrived && item.fileAction != FWA_DownloadFromServer) LandDownloads();
  if (arrived) {
    app_.DiskHasRoom();
  } else if (downloader->lastLocalErrno() == ENOSPC || downloader->lastLocalErrno() == EDQUOT) {
    app_.NotifyDiskFull(item.nFilePath);
  }
  std::lock_guard<std::mutex> lock(downloaderLock_);
  if (cvAFD_ == downloader) cvAFD_.reset();
  return arrived;
}

void SmartSyncFileOperations::LandDownloads() {
  if (landing_.empty()) return;
  landing_.Land([this](const std::string& path) { app_.AddFileInProgress(path); });
}

void SmartSyncFileOperations::FinishPendingWork() {
  if (const std::size_t left = uploadsAhead_.Finish()) {
    // Not recorded: the next pass finds them on the server with the same content.
    Log("FinishPendingWork", std::to_string(left) + " upload(s) sent ahead were not reached");
  }
  ahead_.Finish();
  if (landing_.empty()) return;
  LandDownloads();
  app_.ReleaseFilesInProgress();
}

void SmartSyncFileOperations::StopDownloading() {
  std::shared_ptr<AsyncFileDownloader> downloader;
  {
    std::lock_guard<std::mutex> lock(downloaderLock_);
    downloader = cvAFD_;
  }
  if (downloader) downloader->StopDownloading();
  ahead_.Stop();
}

void SmartSyncFileOperations::WriteState(const std::string& path, const std::string& state, bool isFolder) {
  IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(path, state, isFolder);
  IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(path);
}

void SmartSyncFileOperations::RemoveState(const std::string& path) {
  IconOverlayInFinderStaticMethods::RemoveFromClonnedPathsTree(path);
  IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(path);
}
