#include "SERVER_Queues.h"

#include <algorithm>
#include <exception>
#include <map>
#include <set>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "AsyncFileCommonPart.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVFileForCompareMethods.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"
#include "DownloadedXMLStaticMethods.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "ManagerDownload.h"
#include "MassDeletionGuard.h"
#include "ServerXMLParser.h"
#include "HeldBackNames.h"
#include "ServerNameRules.h"
#include "SmartSync.h"
#include "StateFileSupport.h"
#include "UIFunctions.h"

namespace {

constexpr const char* kClass = "SERVER_Queues";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}

// True when path lies below the storage's folder (given with its final "/") and
// climbs nowhere: a line anywhere else would put a file outside the storage.
bool IsInsideStorage(const std::string& path, const std::string& storageFolder) {
  if (path.size() <= storageFolder.size() || path.compare(0, storageFolder.size(), storageFolder) != 0) {
    return false;
  }
  std::string_view rest(path);
  rest.remove_prefix(storageFolder.size());
  while (!rest.empty()) {
    std::size_t slash = rest.find('/');
    std::string_view part = rest.substr(0, slash);
    if (part == "." || part == "..") return false;
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }
  return true;
}

// What the comparison found, for the log: a count per result, and the lines
// that give work up to a bound, so that a pass over a large storage in step
// writes a few lines and not one per file.
class CompareNotes {
 public:
  static constexpr std::size_t kWorkLines = 100;

  void Add(const std::string& path, std::int32_t result, bool work) {
    ++counts_[result];
    if (!work) return;
    if (++workLines_ > kWorkLines) return;
    lines_ += "\nServerFile: ";
    lines_ += path;
    lines_ += " res: " + std::to_string(result);
  }
  std::string Text() const {
    std::string text;
    for (const auto& [result, count] : counts_) {
      text += (text.empty() ? "" : ", ") + std::to_string(count) + " with res: " + std::to_string(result);
    }
    if (text.empty()) text = "no lines";
    text += lines_;
    if (workLines_ > kWorkLines) text += "\n... and " + std::to_string(workLines_ - kWorkLines) + " more with work";
    return text;
  }

 private:
  std::map<std::int32_t, std::size_t> counts_;
  std::size_t workLines_ = 0;
  std::string lines_;
};

CVFileWithAction ItemFor(const CVFileForCompare& file, std::int32_t action) {
  CVFileWithAction item;
  item.fileAction = action;
  item.isFolder = file.isFolder;
  item.nFilePath = file.localPath;
  item.dateModified = file.modifiedTime;
  item.fileSize = file.size;
  return item;
}

}  // namespace

SERVER_Queues::SERVER_Queues(const Clock* clock, std::function<bool()> stopRequested)
    : clock_(clock), stopRequested_(std::move(stopRequested)) {}

void SERVER_Queues::SetListingContext(const Clock* clock, std::function<bool()> stopRequested) {
  std::lock_guard<std::mutex> lock(contextLock_);
  clock_ = clock;
  stopRequested_ = std::move(stopRequested);
}

void SERVER_Queues::SetNoticeHandler(std::function<void(const std::string& text)> notice) {
  std::lock_guard<std::mutex> lock(contextLock_);
  notice_ = std::move(notice);
}

void SERVER_Queues::MarkInStep(const std::string& path, bool isFolder) {
  if (IconOverlayInFinderStaticMethods::CheckClonnedFileExistence(path)) return;
  if (isFolder) {
    IconOverlayInFinderStaticMethods::CreateClonnedFolder(path);
  } else {
    IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(path, "", false);
  }
  IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(path);
}

void SERVER_Queues::MarkPendingUpload(const std::string& path, bool isFolder) {
  IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(path, "1", isFolder);
  IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(path);
}

SERVER_Queues::StorageListing SERVER_Queues::ListStorage(CVSharepoint& site) {
  const Clock* clock;
  std::function<bool()> stopRequested;
  {
    std::lock_guard<std::mutex> lock(contextLock_);
    clock = clock_ ? clock_ : &defaultClock_;
    stopRequested = stopRequested_;
  }
  ManagerDownload manager(*clock, std::move(stopRequested));
  StorageListing listing;
  listing.files = manager.GetFileListFromServerNew(UIFunctions::URLDecodedString(site.Url), site,
                                                   /*recursive=*/true, /*uploadRequest=*/false,
                                                   /*WithCanStopped=*/true);
  listing.isSiteOffline = manager.isSiteOffline;
  return listing;
}

void SERVER_Queues::Fill_NFQ_ForStorage(const std::string& storageName) {
  CVEventLogger::WriteMainLogMessage("Fill_NFQ_ForStorage (Start)");
  siteOffline = false;
  {
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    NFSQ_ServerQueue.clear();
  }
  try {
    CVConfiguration& configuration = CVConfiguration::Instance();
    auto site = configuration.GetSiteByName(storageName);
    if (!site) {
      siteOffline = true;
      CVEventLogger::WriteMainLogMessage("Site == nil");
      return;
    }
    CVSharepoint storage;
    {
      std::lock_guard<std::recursive_mutex> lock(configuration.fSpSitesLock);
      storage = *site;
    }

    StorageListing listing = ListStorage(storage);
    // Nothing or an empty list: a storage that lists nothing is taken for one
    // that could not be listed, so that nothing local looks deleted.
    if (!listing.files || listing.files->empty()) {
      siteOffline = true;
      CVEventLogger::WriteMainLogMessage("serverFiles == nil");
      return;
    }
    std::vector<CVFileForCompare>& files = *listing.files;

    if (auto rules = CVSelectiveSync::Instance().GetSiteRulesByName(storageName)) rules->addSyncItems(files);

    try {
      // A count, not a line per path: a storage in step must not fill the log at every pass.
      CVEventLogger::WriteMainLogMessage("\n********************NF_SQ***********************\n For site: " +
                                         storageName + " \n\nffc: " + std::to_string(files.size()) +
                                         " listed\n--------------------NF_SQ-----------------------\n");
    } catch (const std::exception& exception) {
      CVEventLogger::LogException(kClass, "Fill_NFQ_ForStorage", std::string("ffc: **NF_SQ** ") + exception.what());
    }

    if (listing.isSiteOffline) {
      siteOffline = true;
      return;
    }
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    NFSQ_ServerQueue.insert(NFSQ_ServerQueue.end(), std::make_move_iterator(files.begin()),
                            std::make_move_iterator(files.end()));
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "Fill_NFQ_ForStorage", exception.what());
    siteOffline = true;
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    NFSQ_ServerQueue.clear();
  }
}

bool SERVER_Queues::FilterNFQ(const std::string& storageName) {
  {
    std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
    SQ_ServerQueue.clear();
  }
  std::vector<CVFileForCompare> listing;
  std::uint64_t generation;
  {
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    generation = clearGeneration_;
    // Taken, not copied: the raw listing is emptied at the end of the filter anyway.
    listing.swap(NFSQ_ServerQueue);
  }

  std::vector<CVFileWithAction> work;
  bool usable = false;
  try {
    usable = Compare(storageName, listing, work);
  } catch (const std::exception& exception) {
    // Half a comparison could hold deletions that the rest would have undone.
    CVEventLogger::LogException(kClass, "FilterNFQ", exception.what());
  }
  bool handed = false;
  if (usable) {
    std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
    if (clearGeneration_ == generation) {
      handed = std::any_of(work.begin(), work.end(),
                           [](const CVFileWithAction& item) { return item.fileAction != FWA_Nothing; });
      SQ_ServerQueue.insert(SQ_ServerQueue.end(), std::make_move_iterator(work.begin()),
                            std::make_move_iterator(work.end()));
    } else {
      // A local operation threw the queue away while this comparison ran: its
      // items are stale, and the loop rebuilds the queue once the local work is done.
      Log("FilterNFQ", "Server queue cleared during the comparison; " + std::to_string(work.size()) +
                           " items dropped for the rebuild");
    }
  } else {
    siteOffline = true;
  }
  std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
  NFSQ_ServerQueue.clear();
  return handed;
}

bool SERVER_Queues::Compare(const std::string& storageName, const std::vector<CVFileForCompare>& listing,
                            std::vector<CVFileWithAction>& work) {
  if (listing.empty()) {
    // The listing was emptied under us: every record would look deleted.
    Log("FilterNFQ", "No listing to compare for " + storageName + "; the storage is passed over");
    return false;
  }

  ServerXMLParser parser;
  auto read = parser.readDownloadedFiles();
  if (parser.lastRead() == StateFileRead::Unreadable) {
    // Nothing is known of the records: the server's files would look new and
    // the local ones unknown. Better no comparison than a wrong one.
    Log("FilterNFQ", "DownloadedFiles.xml is unreadable; storage " + storageName +
                         " is passed over until the file can be read");
    return false;
  }
  std::vector<CVFileForCompare> records = read.value_or(std::vector<CVFileForCompare>{});
  Log("FilterNFQ", "DownloadFiles.count: " + std::to_string(records.size()));
  // Records lost to a broken file are rebuilt once for each storage, and this
  // storage is compared as on a first sync.
  const std::uint64_t brokenReads = DownloadedXMLStaticMethods::BrokenReads();
  const bool rebuild = brokenReads > rebuiltAt_[storageName];

  auto rulesSite = CVSelectiveSync::Instance().GetSiteRulesByName(storageName);
  const std::vector<CVSelectiveSyncItem> syncItems =
      rulesSite ? rulesSite->SyncItems() : std::vector<CVSelectiveSyncItem>{};
  const CVSyncRulesDictionary rules =
      rulesSite ? CVSelectiveSync::GetSyncRulesDictionary(*rulesSite) : CVSyncRulesDictionary{};

  const std::string root = CVStaticHelpers::GenerateRootPath();
  const std::string storageFolder = root + "/" + storageName + "/";
  std::vector<CVFileForCompare> rebuilt;
  if (rebuild) rebuilt = RebuildRecords(listing, records, rules, storageFolder);
  // Reads of the broken file until now belong to this rebuild.
  rebuiltAt_[storageName] = DownloadedXMLStaticMethods::BrokenReads();
  const CVFileForCompareMethods::PathIndex index(records);
  std::unordered_set<std::string> seen;
  seen.reserve(listing.size());
  // Items whose kind changed: a local folder that goes up with what it holds, a
  // local file that replaces a server folder, and local items the download of
  // a server item moves out of the way.
  std::unordered_set<std::string> queuedUploads;
  std::vector<std::string> replacedOnServer;
  std::vector<std::string> makingRoom;
  // Server items whose names this file system cannot hold.
  std::vector<std::string> tooLong;
  auto below = [](const std::vector<std::string>& folders, const std::string& path) {
    return std::any_of(folders.begin(), folders.end(), [&](const std::string& folder) {
      return path != folder && StateFileSupport::IsSameOrBelow(path, folder);
    });
  };
  // Size and time of the files the server lists anew: what it moved keeps them.
  std::set<std::pair<std::int64_t, std::int64_t>> newOnServer;
  CompareNotes notes;
  work.reserve(listing.size());

  // The lines of the listing.
  for (const auto& line : listing) {
    seen.insert(line.localPath);
    if (!IsInsideStorage(line.localPath, storageFolder)) {
      Log("FilterNFQ", "Line outside the storage's folder dropped: " + line.localPath);
      continue;
    }
    const std::string relative = line.localPath.substr(root.size() + 1);
    if (auto rule = CVSelectiveSync::FindSyncRule(rules, relative);
        rule && rule->Rule == CVSelectiveSyncRule::syncNone) {
      continue;  // its record stays unprocessed and becomes a local delete below
    }
    auto position = index.Find(line.localPath);
    CVFileForCompare* record = position ? &records[*position] : nullptr;
    if (!record && !line.isFolder) newOnServer.emplace(line.size, line.modifiedTime);
    if (auto problem = ServerNameRules::LocalPathProblem(line.localPath, line.isFolder);
        !problem.empty() || below(tooLong, line.localPath)) {
      // Never cut to fit: a shorter name could be another item's.
      if (record) record->wasProcessed = true;
      if (!below(tooLong, line.localPath)) {
        tooLong.push_back(line.localPath);
        Tell(HeldBackName{line.localPath, problem, "", true});
      }
      continue;
    }
    if (below(replacedOnServer, line.localPath)) {
      // Goes with the server folder that a local file replaces.
      if (record) record->wasProcessed = true;
      continue;
    }
    const auto local = CVFileForCompareMethods::CreateCVFileForCompare(line.localPath);
    const std::int32_t result = CVFileForCompareMethods::CheckFile2(line, record, local);
    const std::int32_t action = GetFWAEvent(result);
    notes.Add(line.localPath, result, action != FWA_Nothing);
    if (action == FWA_Nothing) MarkInStep(line.localPath, line.isFolder);
    CVFileWithAction item = ItemFor(line, action);
    const bool kindChanged = local && local->isFolder != line.isFolder;
    if (kindChanged && action == FWA_UploadToServer) {
      item.isFolder = local->isFolder;
      work.push_back(std::move(item));
      if (!local->isFolder) {
        replacedOnServer.push_back(line.localPath);
        continue;
      }
      // A folder in place of a server file goes up with everything in it.
      for (const auto& inside : SmartSync::readLocalFiles(line.localPath)) {
        queuedUploads.insert(inside.localPath);
        work.push_back(ItemFor(inside, FWA_UploadToServer));
        MarkPendingUpload(inside.localPath, inside.isFolder);
      }
      continue;
    }
    if (kindChanged) makingRoom.push_back(line.localPath);
    work.push_back(std::move(item));
  }
  Log("FilterNFQ", "All Items FilterNFQ:\n" + notes.Text());

  // In step at the last sync, and now in no (synced) line: excluded by a rule,
  // moved on the server (a new line of the same size and time comes down), or
  // gone on the server, where the guard may hold the deletions.
  std::vector<CVFileForCompare> vanished;
  std::size_t storageFiles = 0;
  for (const auto& record : records) {
    if (!CVFileForCompareMethods::IsSamePath(record.site, storageName)) continue;
    if (!record.isFolder) ++storageFiles;
    if (record.wasProcessed) continue;
    if (seen.count(record.localPath) ||
        (!record.isFolder && newOnServer.count({record.size, record.modifiedTime}))) {
      work.push_back(ItemFor(record, FWA_DeleteLocally));
    } else {
      vanished.push_back(record);
    }
  }
  const bool holding = GuardDeletions(storageName, vanished, storageFiles, work);

  // What the server no longer lists, selective sync forgets; not while its
  // deletions are held, as the listing may be what is wrong.
  if (rulesSite && !holding) {
    for (const auto& item : syncItems) {
      if (!seen.count(item.Path)) rulesSite->removeSyncItemAndRule(item.Path);
    }
  }

  // Until a first pass has ended: what was put into the tree while the program
  // was not running.
  if (!firstTimeSyncPerformed || rebuild) {
    for (const auto& local : SmartSync::readLocalFiles(root + "/" + storageName)) {
      if (index.Contains(local.localPath) || queuedUploads.count(local.localPath) ||
          below(makingRoom, local.localPath)) {
        continue;
      }
      work.push_back(ItemFor(local, FWA_UploadToServer));
      MarkPendingUpload(local.localPath, local.isFolder);
    }
  }
  if (rebuild) TellRebuilt(storageName, rebuilt, brokenReads);
  // Reports that no longer hold: the server's item is gone or renamed, the
  // local one is gone (a rename by the user is released when it goes up).
  for (const auto& held : HeldBackNames::Instance().All()) {
    if (!StateFileSupport::IsSameOrBelow(held.localPath, storageFolder)) continue;
    const bool stands = held.fromServer ? seen.count(held.localPath) > 0
                                        : CVStaticHelpers::ExistsInAnyForm(held.localPath);
    if (!stands) HeldBackNames::Instance().Release(held.localPath);
  }
  return true;
}

bool SERVER_Queues::GuardDeletions(const std::string& storageName, const std::vector<CVFileForCompare>& vanished,
                                   std::size_t storageFiles, std::vector<CVFileWithAction>& work) {
  const auto review = deletionGuard.Decide(storageName, vanished, storageFiles);
  std::size_t held = 0;
  std::vector<CVFileForCompare> restore;
  for (std::size_t i = 0; i < vanished.size(); ++i) {
    const CVFileForCompare& record = vanished[i];
    switch (review.verdicts[i]) {
      case MassDeletionGuard::Verdict::Hold:
        ++held;
        break;
      case MassDeletionGuard::Verdict::Restore:
        // Declined: what is still here goes back up; what is gone here too
        // only loses its record.
        if (CVStaticHelpers::ExistsInAnyForm(record.localPath)) {
          restore.push_back(record);
          break;
        }
        [[fallthrough]];
      case MassDeletionGuard::Verdict::Delete:
        work.push_back(ItemFor(record, FWA_DeleteLocally));
        break;
    }
  }
  // Folders before what they hold.
  std::sort(restore.begin(), restore.end(),
            [](const CVFileForCompare& a, const CVFileForCompare& b) { return a.localPath < b.localPath; });
  for (const auto& record : restore) {
    work.push_back(ItemFor(record, FWA_UploadToServer));
    MarkPendingUpload(record.localPath, record.isFolder);
  }
  if (held > 0) {
    Log("FilterNFQ", "deletions held for " + storageName + ": " + std::to_string(held) +
                         " items the server no longer lists; the storage has " + std::to_string(storageFiles) +
                         " files");
  }
  if (review.tell) Notify(*review.tell);
  return held > 0;
}

void SERVER_Queues::Tell(const HeldBackName& name) {
  Log("FilterNFQ", HeldBackNames::Describe(name));
  if (HeldBackNames::Instance().Hold(name)) Notify(HeldBackNames::Describe(name));
}

void SERVER_Queues::Notify(const std::string& text) {
  std::function<void(const std::string&)> notice;
  {
    std::lock_guard<std::mutex> lock(contextLock_);
    notice = notice_;
  }
  if (notice) notice(text);
}

std::vector<CVFileForCompare> SERVER_Queues::RebuildRecords(const std::vector<CVFileForCompare>& listing,
                                                            std::vector<CVFileForCompare>& records,
                                                            const CVSyncRulesDictionary& rules,
                                                            const std::string& storageFolder) {
  // What is the same on both sides, by kind, size and time, was in step: it
  // gets its record back without a transfer. The rest has no record and goes
  // through the first sync's flow, which overwrites nothing.
  const std::string root = CVStaticHelpers::GenerateRootPath();
  const CVFileForCompareMethods::PathIndex known(records);
  std::vector<CVFileForCompare> rebuilt;
  std::vector<CVFileWithAction> writes;
  for (const auto& line : listing) {
    if (!IsInsideStorage(line.localPath, storageFolder) || known.Contains(line.localPath)) continue;
    if (auto rule = CVSelectiveSync::FindSyncRule(rules, line.localPath.substr(root.size() + 1));
        rule && rule->Rule == CVSelectiveSyncRule::syncNone) {
      continue;
    }
    const auto local = CVFileForCompareMethods::CreateCVFileForCompare(line.localPath);
    if (!local || local->isFolder != line.isFolder ||
        (!line.isFolder && (local->size != line.size || local->modifiedTime != line.modifiedTime))) {
      continue;
    }
    CVFileForCompare record = line;
    record.wasProcessed = false;
    record.site = ServerXMLParser::SiteForLocalPath(line.localPath);
    rebuilt.push_back(record);
    writes.push_back(ItemFor(line, FWA_Nothing));
  }
  bool written = true;
  for (const auto& write : writes) written = AsyncFileCommonPart::WriteToDownloadedFiles(write, false) && written;
  if (!written) {
    Log("FilterNFQ", "some rebuilt records could not be written; their files are compared as on a first sync");
  }
  records.insert(records.end(), rebuilt.begin(), rebuilt.end());
  return rebuilt;
}

void SERVER_Queues::TellRebuilt(const std::string& storageName, const std::vector<CVFileForCompare>& rebuilt,
                                std::uint64_t brokenReads) {
  Log("FilterNFQ", "DownloadedFiles.xml was broken: " + std::to_string(rebuilt.size()) +
                       " records of storage " + storageName +
                       " rebuilt from what is the same here and on the server; the rest is compared as on a "
                       "first sync");
  // Once for all storages: the reads of this breakage come before the last told.
  if (brokenReads <= toldRebuiltAt_) return;
  toldRebuiltAt_ = rebuiltAt_[storageName];
  Notify("The record of what is in step (DownloadedFiles.xml) could not be read; a copy is kept beside it in " +
         CVStaticHelpers::GenerateSettingsPath() +
         ". It was rebuilt from the files that are the same here and on the server; the others are compared "
         "as on a first sync, and nothing is overwritten.");
}

void SERVER_Queues::WriteDebugInformation(std::int32_t action, const std::string& forPath,
                                          const std::string& withPrefix) {
  if ((action >= 0 && action <= 8) || action == FWA_UpdateDownloadedFiles) return;
  CVEventLogger::WriteMainLogMessage(withPrefix + ":" + forPath + ":FWA_Nothing");
}

void SERVER_Queues::ClearServerQueues() {
  {
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    ++clearGeneration_;
    NFSQ_ServerQueue.clear();
  }
  std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
  SQ_ServerQueue.clear();
}

std::size_t SERVER_Queues::ServerQueueSize() {
  std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
  return SQ_ServerQueue.size();
}

std::vector<CVFileWithAction> SERVER_Queues::FirstItems(std::size_t most) {
  std::lock_guard<std::mutex> lock(SQ_FQ_Lock);
  const auto end = SQ_ServerQueue.begin() + static_cast<std::ptrdiff_t>(std::min(most, SQ_ServerQueue.size()));
  return std::vector<CVFileWithAction>(SQ_ServerQueue.begin(), end);
}
