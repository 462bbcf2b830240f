#pragma once
// SERVER_Queues: turns the listing of one storage into work items for the main
// loop, by a three-way comparison of the listing, the disk and the record of the
// last sync. NFSQ_ServerQueue holds the raw listing, SQ_ServerQueue the work list.
// Owned by SmartSync; Fill and Filter run on the scheduler's thread in a pass or
// on the loop's thread in a refill, always under compareLock, which the caller
// takes, so two comparisons never interleave.
//
// No local delete comes from what was not read whole: a listing that is missing,
// empty or stopped, or a record file that cannot be read, leaves the storage
// offline for the pass, and no work item is made. Records lost to a broken file
// are rebuilt from what is the same on both sides, and the rest of the storage
// is compared as on a first sync.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVSelectiveSync.h"
#include "CVSharepoint.h"
#include "Clock.h"
#include "HeldBackNames.h"
#include "MassDeletionGuard.h"
#include "SyncRecords.h"

class SERVER_Queues {
 public:
  // A listing as the server gave it: the records, or nothing, and whether the
  // run ended without a usable session.
  struct StorageListing {
    std::optional<std::vector<CVFileForCompare>> files;
    bool isSiteOffline = false;
  };

  SERVER_Queues() = default;
  // clock: for the listing's pauses; stopRequested: true once the main loop is
  // to stop, which ends a listing in progress.
  SERVER_Queues(const Clock* clock, std::function<bool()> stopRequested);
  virtual ~SERVER_Queues() = default;
  SERVER_Queues(const SERVER_Queues&) = delete;
  SERVER_Queues& operator=(const SERVER_Queues&) = delete;

  // The same as the constructor's arguments, for an owner that comes later.
  void SetListingContext(const Clock* clock, std::function<bool()> stopRequested);
  // Tells the user what the comparison had to mend (a rebuilt record), once.
  void SetNoticeHandler(std::function<void(const std::string& text)> notice);

  // Fills NFSQ_ServerQueue with the storage's listing and sets siteOffline.
  virtual void Fill_NFQ_ForStorage(const std::string& storageName);
  // Fills SQ_ServerQueue from NFSQ_ServerQueue; only when siteOffline is clear.
  // In order: the lines of the listing, the local deletions, and, until the
  // first pass has ended, the uploads of items the record does not know.
  // True when it handed the loop something to do (which the loop may have taken
  // off the queue already by the time this returns).
  virtual bool FilterNFQ(const std::string& storageName);

  // The recursive listing of a storage from the server (ManagerDownload), with
  // the loop's stop test. Tests list without a server here.
  virtual StorageListing ListStorage(CVSharepoint& site);

  // Logs "prefix:path:FWA_Nothing" for an action that is no operation (outside
  // 0 to 8 and not 99); nothing for the others.
  static void WriteDebugInformation(std::int32_t action, const std::string& forPath,
                                    const std::string& withPrefix);
  static std::int32_t GetFWAEvent(std::int32_t compareResult) { return ::GetFWAEvent(compareResult); }

  // Empties both queues. A comparison running meanwhile then drops its items,
  // which were made for a state that a local operation is changing.
  void ClearServerQueues();
  std::size_t ServerQueueSize();
  // Copies of the first items of the work list, at most most of them.
  std::vector<CVFileWithAction> FirstItems(std::size_t most);

  std::vector<CVFileForCompare> NFSQ_ServerQueue;
  // Taken from the front one item at a time: a deque keeps that constant per item.
  std::deque<CVFileWithAction> SQ_ServerQueue;
  std::atomic<bool> siteOffline{false};
  std::atomic<bool> firstTimeSyncPerformed{false};
  std::mutex SQ_NFQ_Lock;
  std::mutex SQ_FQ_Lock;
  std::mutex compareLock;
  // Holds the local deletions of a listing that drops most of a storage.
  MassDeletionGuard deletionGuard;

 protected:
  // The file manager's state tree. An item found in step gets its clone the
  // first time it is met; an unknown local item queued for upload shows "1".
  virtual void MarkInStep(const std::string& path, bool isFolder);
  virtual void MarkPendingUpload(const std::string& path, bool isFolder);

 private:
  // The comparison of FilterNFQ into work; false when it must give no work
  // this pass.
  bool Compare(const std::string& storageName, const std::vector<CVFileForCompare>& listing,
               std::vector<CVFileWithAction>& work);
  // Records for the lines that the disk holds alike (kind, size, time), written
  // and added to records; the ones made.
  std::vector<CVFileForCompare> RebuildRecords(const std::vector<CVFileForCompare>& listing,
                                               std::vector<CVFileForCompare>& records,
                                               const CVSyncRulesDictionary& rules, const std::string& storageFolder);
  void TellRebuilt(const std::string& storageName, const std::vector<CVFileForCompare>& rebuilt,
                   std::uint64_t brokenReads);
  // Hands the records the server no longer lists to the guard and adds what
  // it lets through to work; true when deletions are held.
  bool GuardDeletions(const std::string& storageName, const std::vector<CVFileForCompare>& vanished,
                      std::size_t storageFiles, std::vector<CVFileWithAction>& work);
  // Reports an item that stays where it is; the user is told the first time.
  void Tell(const HeldBackName& name);
  // The text to the user through the notice handler, when one is set.
  void Notify(const std::string& text);

  // Counts ClearServerQueues calls; raised before the work list is emptied.
  std::atomic<std::uint64_t> clearGeneration_{0};
  mutable std::mutex contextLock_;
  const Clock* clock_ = nullptr;
  std::function<bool()> stopRequested_;
  std::function<void(const std::string&)> notice_;
  Clock defaultClock_;
  // Under compareLock: the count of broken reads of the record file when each
  // storage's records were last rebuilt, and when the user was last told.
  std::map<std::string, std::uint64_t> rebuiltAt_;
  std::uint64_t toldRebuiltAt_ = 0;
};
