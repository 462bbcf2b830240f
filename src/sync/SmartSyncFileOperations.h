#pragma once
// SmartSyncFileOperations: carries out one work item of the main loop, with all
// that goes around the transfer: the path is marked as the sync's own so that the
// watcher keeps quiet, the file's state is written for the file manager, the
// selective sync store learns the item, and the result decides whether a local
// queue entry is finished or stays for the next round. Conflicts never overwrite:
// the user's content moves aside under a local copy name first.
// Runs on the main loop thread; Stop* may come from another thread.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "DownloadAhead.h"
#include "DownloadLanding.h"
#include "FileOperationDispatcher.h"
#include "HeldBackNames.h"
#include "ServerFileOperations.h"
#include "SyncRecords.h"
#include "WorkAhead.h"

class AppDelegate;
class CVSelectiveSyncSite;
class AsyncFileDownloader;

class SmartSyncFileOperations : public FileOperationDispatcher {
 public:
  SmartSyncFileOperations(AppDelegate& app, ServerFileOperations& server);
  ~SmartSyncFileOperations() override;

  std::int32_t PerformNextFileOperation(SmartSync& sync, CVFileWithAction& item) override;
  void StopCurrentAction() override;
  void StopDownloading() override;
  void FinishPendingWork() override;

  std::int32_t PerformUploadToServer(SmartSync& sync, CVFileWithAction& item);
  std::int32_t PerformDeleteOnServer(SmartSync& sync, CVFileWithAction& item);
  std::int32_t PerformDownloadFromServer(SmartSync& sync, CVFileWithAction& item);
  std::int32_t PerformDeleteLocally(SmartSync& sync, CVFileWithAction& item,
                                    const std::shared_ptr<CVSelectiveSyncSite>& WithSSSite);
  std::int32_t PerformRenameFileOnServer(SmartSync& sync, CVFileWithAction& item,
                                         const std::shared_ptr<CVSelectiveSyncSite>& WithSite);
  std::int32_t PerformCreateAndUploadLocalCopy(SmartSync& sync, CVFileWithAction& item);
  std::int32_t PerformCreateLocalCopyAndDownloadFromServer(SmartSync& sync, CVFileWithAction& item,
                                                           std::int64_t oldFileSize,
                                                           std::int64_t oldModifiedDate);
  // True when an upload may overwrite what the server holds: the server has
  // nothing there, or what this client last saw (by size).
  bool CheckNextFileOnServer(const CVFileWithAction& item,
                             const std::optional<std::vector<std::string>>& serverData);

 protected:
  // The server and transfer calls, here so that tests can put fakes in their place.
  virtual bool DownloadFile(CVFileWithAction& item);
  virtual std::optional<std::vector<std::string>> GetFileInfo(const std::string& localPath);
  virtual std::string GetFileInfoReturnForPath(const std::string& localPath);
  // What the server lists below a local folder's server path, every level or
  // one; nothing when the listing failed or holds nothing.
  virtual std::optional<std::vector<CVFileForCompare>> ListServerFolder(SmartSync& sync, const std::string& localPath,
                                                                        bool recursive);

 private:
  // Moves the file aside without ever replacing what stands at copyPath.
  static bool MoveAside(const std::string& from, const std::string& to);
  void MarkInProgress(const std::string& path, bool isFolder);
  void WriteState(const std::string& path, const std::string& state, bool isFolder);
  void RemoveState(const std::string& path);
  void Forget(const std::shared_ptr<CVSelectiveSyncSite>& site, const CVFileWithAction& item);
  void QueueUploadOfGivenUpRename(SmartSync& sync, const CVFileWithAction& item);
  // Puts a local item (a folder with everything in it) into the local queue as
  // new, for an upload that no watcher event will bring.
  void QueueLocalUpload(SmartSync& sync, const std::string& path, bool isFolder);
  // Before a server item of the other kind takes the path: the local item goes
  // to the Trash when the record shows it unchanged, else it moves aside under
  // a local copy name and is queued for upload. False when it could not go.
  bool MakeRoomForServerItem(SmartSync& sync, const CVFileWithAction& item);
  // True when the disk holds path as the record of the last sync left it (a
  // folder with every item below it).
  static bool LocalAsRecorded(const std::string& path);
  // True when the server's item of that kind at the item's path is what this
  // client last saw: a file of the recorded size and time, or a folder whose
  // listing holds only recorded items alike.
  bool ServerAsRecorded(SmartSync& sync, const CVFileWithAction& item, bool serverIsFolder,
                        const std::vector<std::string>& serverData);
  // Why path cannot go up under its name, as the entry to report: a name that
  // the storage's kind refuses, or, where the storage does not tell upper from
  // lower case, an item of the same folder that the server knows under the
  // same name. The entry is that of the highest component held back.
  std::optional<HeldBackName> NameHeldBack(const std::string& path);
  // The name of the server's item that a storage without case takes for the
  // one of path, when it is spelled otherwise.
  std::optional<std::string> ServerSpellingOf(SmartSync& sync, const std::string& path);
  // Keeps the item here and reports it; the user is told the first time.
  std::int32_t HoldBack(const HeldBackName& name);
  // True for an upload worth sending before the loop reaches it: a new small
  // file, a plain one under a name that may go up, in a folder the server has.
  bool UploadQualifies(const CVFileWithAction& item);
  // Before any item but the next of those sent ahead: what went up ahead is
  // recorded first, in its order, as the loop would have had it, so that an
  // item that comes in between (a local rename of one of these files) finds
  // them on the server and in the record.
  void SettleUploadsAhead(const CVFileWithAction& next);
  // What follows an upload here: its overlay state and its place in the selective sync store.
  void Uploaded(const std::shared_ptr<CVSelectiveSyncSite>& site, const CVFileWithAction& item);
  // True (and the record forgotten) when the server no longer has the item.
  bool ForgetIfGoneFromServer(const CVFileWithAction& item, const char* method);

  // The other names of folder that a storage of storageType takes for name.
  std::vector<std::string> NamesLike(const std::string& folder, const std::string& name,
                                     const std::string& storageType);

  AppDelegate& app_;
  ServerFileOperations& server_;
  // Moves the batch of arrived downloads into place, their paths the sync's own.
  void LandDownloads();

  DownloadLanding landing_;
  // The names of the folders the last clash tests read, by comparison key, each
  // while it stays unchanged: uploads come folder by folder, and a test reads
  // every folder of the path. Most recent first. Loop thread only.
  struct FolderNames {
    std::string path;
    std::string storageType;
    std::int64_t changed = -1;  // the folder's status change time, ns
    std::uint64_t inode = 0;
    std::map<std::string, std::vector<std::string>> byKey;
  };
  static constexpr std::size_t kFoldersKept = 8;
  std::list<FolderNames> folderNames_;
  std::mutex downloaderLock_;
  std::shared_ptr<AsyncFileDownloader> cvAFD_;
  // After landing_: what runs ahead hands its files to the landing until it has stopped.
  DownloadAhead ahead_;
  // New files sent while the loop works on the one before; only where the
  // server has nothing at their path. The loop records each in its turn.
  static constexpr std::size_t kUploadsAhead = 3;  // with the loop's own, the request queue's four
  static constexpr std::int64_t kLargestUploadAhead = 1 << 20;
  WorkAhead<ServerFileOperations, std::optional<ServerFileOperations::Sent>> uploadsAhead_;
};
