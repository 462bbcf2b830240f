#pragma once
// AsyncFileMethods: carries the sync's changes to the server: upload (in one
// request, or in parts that the server assembles), rename, create folder,
// delete folder, delete file. Each operation finds the storage of the local
// path, gets its token, calls the file service, turns the reply into a result
// code of the sync, records the result in DownloadedFiles.xml, and after a
// refused token tries once more with a new one. It also holds the mapping from a
// local path to a server path.
//
// The sync thread runs the operations, one at a time; StopCurrentAction comes
// from another thread and ends a running upload at once (rename, create and
// delete are short and run to their end). What the sync must learn from here
// comes through handlers the application installs, so that this layer never
// reaches into the sync.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVSharepoint.h"
#include "ServerFileOperations.h"
#include "SyncRecords.h"
#include "WorkerThreads.h"

class AsyncFileUploader;
class Clock;
class MobileClientWS;

class AsyncFileMethods : public ServerFileOperations {
 public:
  // currentAction: what runs now.
  enum Action : std::int32_t {
    kActionUpload = 0,
    kActionRename = 1,
    kActionCreateFolder = 2,
    kActionDeleteFile = 3,
    kActionDeleteFolder = 4,
  };

  static constexpr int kUploadPasses = 3;
  static constexpr int kTokenPasses = 2;
  // A part the server answered with an unexpected status goes again at most
  // this often, after a pause that grows with each repeat.
  static constexpr int kPartRepeats = 3;
  static constexpr std::chrono::seconds kPartRepeatPause{2};
  static constexpr std::int64_t kAzurePartSizeKb = 4096;
  // Parts of one file on the wire at once, within the shared queue's 4 requests.
  static constexpr int kPartsInFlight = 3;

  // clock: of the pauses and waits of an upload; the request engine's when null.
  explicit AsyncFileMethods(std::shared_ptr<const Clock> clock = nullptr);
  ~AsyncFileMethods() override;
  AsyncFileMethods(const AsyncFileMethods&) = delete;
  AsyncFileMethods& operator=(const AsyncFileMethods&) = delete;

  // --- Installed by the application ---

  // Told false when a rename found its target taken on the server ("Error Code
  // - 183"): the server queue's setFirstTimeSyncPerformed, so that the next pass
  // compares the whole storage.
  void SetFirstTimeSyncPerformedHandler(std::function<void(bool performed)> handler);
  // The sync's syncMainThreadShouldRun: while it says no, no part is sent.
  void SetSyncMainThreadShouldRun(std::function<bool()> shouldRun);
  // The part size in kilobytes; without one the server's (GetPartSizeNSNumber),
  // asked once and kept.
  void SetPartSizeSource(std::function<std::int64_t()> kilobytes);

  // --- The operations of the sync ---

  std::int32_t UploadFileToServer(CVFileWithAction& item) override;
  // Each with writeState (for create folder: writeToLog) true.
  std::int32_t RenameFileOnServer(CVFileWithAction& item) override;
  std::int32_t CreateFolderOnServer(CVFileWithAction& item) override;
  std::int32_t DeleteFileOnServer(CVFileWithAction& item) override;
  std::int32_t DeleteFolderOnServer(CVFileWithAction& item) override;
  bool RecordIfServerHoldsSame(CVFileWithAction& item, const std::vector<std::string>& serverInfo) override;
  Sent SendFile(CVFileWithAction& item) override;
  std::int32_t RecordSent(CVFileWithAction& item, const Sent& sent) override;
  // With the same hooks and part size, and a stop of its own.
  std::shared_ptr<ServerFileOperations> Beside() override;
  // Renames oldFilePath to nFilePath on the server: 0, or -61 when the server
  // had no source (or the target was taken), which the sync treats as done.
  std::int32_t RenameFileOnServer(CVFileWithAction& item, bool writeState);
  std::int32_t CreateFolderOnServer(CVFileWithAction& item, bool writeToLog);
  std::int32_t DeleteFolderOnServer(CVFileWithAction& item, bool writeState);
  std::int32_t DeleteFileOnServer(CVFileWithAction& item, bool writeState);
  // Any thread: a running upload ends at once and returns -5.
  void StopCurrentAction() override;

  // --- The upload's steps ---

  // One pass of an upload with this token: in one request, or in parts. The
  // status of the upload (200 done; see AsyncFileUploader for the others; 0 when
  // the file vanished and its pending parts were dropped; -999 on an exception).
  int UploadFileToServerAtPath51(const std::string& path, const std::string& token, const std::string& servPath,
                                 const CVSharepoint& site);
  // The file in one request; -999 on an exception.
  int UploadFileToServerAtPath(const std::string& path, const std::string& token, const std::string& servPath);
  // Maps the progress of a part onto the whole file; (0, 0, 0) resets it.
  void ChangeVariableForVisiblePercent(std::int64_t partSize, std::int64_t step, std::int64_t fileSize);
  // True when the file exists and has that size.
  static bool CheckFileSize(std::int64_t size, const std::string& CompareForFile);

  // --- Rules ---

  // The server's path of a local path of forSite: its location followed by the
  // path below the storage's folder, with the storage's separator ("\" for
  // "CIFS" and for locations that hold one, "/" for the rest).
  static std::string generateServerPath(const std::string& localPath, const CVSharepoint& forSite);
  // Why a local path cannot be sent to the server ("" when it can): it must lie
  // below the storage's folder, with no "." or ".." component, no "\" in a
  // name, which the server would read as a separator, and no name that the
  // storage's kind refuses (ServerNameRules).
  static std::string NameProblemForServer(const std::string& localPath, const CVSharepoint& site);
  // -1000 for "", 0 for exactly "0;", else the number before the first ";"
  // (-1000 when there is none).
  [[nodiscard]] static std::int32_t CheckResponseString(const std::string& reply);
  // 0 for 200 to 299, -1 for 401, -6 for -6, else -5.
  [[nodiscard]] static std::int32_t CheckResponseCode(int status);
  // The MD5 of data as 32 lower-case hexadecimal digits.
  static std::string GetMD5ForData(const std::string& data);
  // The storage folder's name in nFilePath; "" when there is none.
  static std::string GetSiteNameForFileWithAction(const CVFileWithAction& file);
  // The number of parts: the exact ceiling of size / partBytes, at least 1.
  static std::int64_t PartCount(std::int64_t size, std::int64_t partBytes);
  // Whether a storage takes parts: server level 2 or more and not SharePoint.
  static bool PartialUploadPossible(int wsVersionLevel, const std::string& storageType);
  // 4096 for "azure" whatever is configured, else the configured size.
  static std::int64_t PartSizeKbFor(const std::string& storageType, std::int64_t configuredKb);

  // --- State, readable from any thread ---

  bool actionWasStoppedByUser() const { return actionWasStoppedByUser_; }
  std::int32_t currentAction() const { return currentAction_; }

 private:
  struct Target;
  struct PassResult {
    std::int32_t code = -1000;
    bool badToken = false;  // drop the token and try once more
  };

  // Sets the action, finds the storage and checks the path; nothing (logged)
  // when the operation cannot go to the server.
  std::optional<Target> Begin(const char* method, const CVFileWithAction& item, std::int32_t action);
  // The token loop of rename, create and delete: at most two passes, the second
  // only after a refused token.
  std::int32_t TokenLoop(const Target& target, const std::function<PassResult(const std::string& token)>& pass);
  std::int32_t DeleteOnServer(CVFileWithAction& item, bool writeState, bool folder);

  // One file's part upload: its parts in order, then the server's assembly.
  struct PartUpload {
    std::string path;
    std::string servPath;
    std::string siteName;
    std::string token;  // renewed when the server refuses it, under tokenLock
    std::int64_t size = 0;
    std::int64_t partBytes = 0;
    std::mutex tokenLock;
  };
  // Parts go kPartsInFlight at a time, each hashed on its own thread while the
  // others travel, against the server's hashes asked once for the round.
  int RunPartLoop(MobileClientWS& mobile, PartUpload& upload);
  // One part: a refused token renewed once, an unexpected status repeated a few
  // times; -101 when the file's size changed. hash: the part's, once the server has it.
  int SendPart(AsyncFileUploader& uploader, PartUpload& upload, std::int64_t step,
               const std::vector<std::string>& serverMD5, std::string& hash);
  std::int64_t ConfiguredPartSizeKb();
  std::shared_ptr<AsyncFileUploader> NewUploader();
  void DropUploader(const std::shared_ptr<AsyncFileUploader>& uploader);
  // Sleeps on the clock unless a stop comes first; false after a stop.
  bool PauseUnlessStopped(std::chrono::nanoseconds duration);
  bool Stopped() const { return actionWasStoppedByUser_ || CancelFlag::ThisThreadCancelled(); }
  // After an upload: the server's time and size into the record, and the time
  // onto the local file when the file is still what went up.
  void RecordUpload(CVFileWithAction& item, const std::vector<std::string>& info,
                    const std::optional<std::pair<std::int64_t, std::int64_t>>& before);

  std::shared_ptr<const Clock> clock_;

  mutable std::mutex hooksLock_;
  std::function<void(bool)> firstTimeSyncPerformed_;
  std::function<bool()> syncMainThreadShouldRun_;
  std::function<std::int64_t()> partSizeSource_;
  std::int64_t serverPartSizeKb_ = 0;

  std::mutex cvWSLock_;  // guards cvWS and the stop's condition
  std::condition_variable stopCondition_;
  // The uploaders of the running upload: one, or one per part in flight.
  std::vector<std::shared_ptr<AsyncFileUploader>> cvWS;
  std::shared_ptr<MobileClientWS> mobileClient;

  std::atomic<bool> actionWasStoppedByUser_{false};
  std::atomic<std::int32_t> currentAction_{kActionUpload};
};
