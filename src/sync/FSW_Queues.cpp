#include "FSW_Queues.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <strings.h>
#include <unordered_set>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "NewFilesParser.h"
#include "ServerXMLParser.h"
#include "SmartSync.h"
#include "SyncCodes.h"

namespace {

constexpr const char* kClass = "FSW_Queues";

std::string LastComponent(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool HiddenName(const std::string& path) {
  std::string name = LastComponent(path);
  return !name.empty() && name.front() == '.';
}

std::string Parent(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

bool IsFolderOnDisk(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsCreateOrChange(const NFQ_File& entry) {
  return entry.fileAction == NFQ_Created || entry.fileAction == NFQ_Modified;
}

NFQ_File Entry(const std::string& path, bool isFolder, std::int32_t action) {
  NFQ_File entry;
  entry.nFilePath = path;
  entry.isFolder = isFolder;
  entry.fileAction = action;
  return entry;
}

// The folders known to come before their contents in this filter, with the
// removal of a whole subtree when a folder is deleted or renamed away.
class FolderSet {
 public:
  void Add(const std::string& path) { paths_.insert(path); }
  bool Contains(const std::string& path) const { return paths_.count(path) > 0; }
  void RemoveTree(const std::string& path) {
    paths_.erase(path);
    const std::string below = path + "/";
    for (auto it = paths_.lower_bound(below); it != paths_.end() && it->starts_with(below);) {
      it = paths_.erase(it);
    }
  }

 private:
  std::set<std::string> paths_;
};

}  // namespace

FSW_Queues::FSW_Queues(std::atomic<bool>* needToRestartNFQ) : needToRestartNFQ_(needToRestartNFQ) {}

void FSW_Queues::AddFSWPath(const std::string& path, bool isFolder, const std::string& renameTo,
                            std::int32_t eventFlag) {
  NFQ_File entry;
  entry.oldFilePath = path;
  entry.nFilePath = renameTo;
  entry.isFolder = isFolder;
  entry.fileAction = eventFlag;
  std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
  NF_Queue.push_back(std::move(entry));
}

void FSW_Queues::FilterCurrentQueue() { FilterPaths(); }

void FSW_Queues::FilterPaths() {
  std::vector<NFQ_File> copy;
  {
    std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
    copy.swap(NF_Queue);
  }
  FilterPaths(std::move(copy));
}

void FSW_Queues::FilterPaths(std::vector<NFQ_File> rawEvents) {
  std::vector<NFQ_File> merged;
  {
    std::lock_guard<std::mutex> lock(FSW_FQ_Lock);
    merged.swap(FQ_FilteredQueue);
  }
  std::vector<NFQ_File> children;
  printNFQueue(rawEvents, "_PRE");

  ServerXMLParser parser;
  const std::vector<CVFileForCompare> known = parser.readDownloadedFiles().value_or(std::vector<CVFileForCompare>{});
  if (parser.lastRead() == StateFileRead::Unreadable) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) +
                                       " - FilterPaths -> DownloadedFiles.xml does not read; every "
                                       "change counts as new until it does");
  }
  const CVFileForCompareMethods::PathIndex index(known);
  FolderSet folders;

  try {
    for (NFQ_File& event : rawEvents) {
      NFQ_File entry;
      std::string path = event.oldFilePath;
      // A storage folder itself is never synced, nor are hidden and partial files.
      if (HiddenName(path) || path.ends_with(".cvtemp") || RootItem(path)) continue;
      // Created or modified is decided by the record of the last sync, not by the event.
      if (IsCreateOrChange(event)) {
        event.fileAction = IsFileInServerArray(path, index) ? NFQ_Modified : NFQ_Created;
      }
      bool add = false;
      if (event.fileAction == NFQ_Renamed) {
        if (HiddenName(event.nFilePath)) continue;
        if (IsSitesSame(path, event.nFilePath)) {
          CVEventLogger::WriteMainLogMessage("RENAME_2");
          entry.oldFilePath = path;
          entry.nFilePath = event.nFilePath;
          entry.fileAction = NFQ_Renamed;
          entry.isFolder = event.isFolder;
          add = true;
        } else {
          // Moved between storages: gone from one, new in the other.
          CVEventLogger::WriteMainLogMessage("RENAME_3");
          merged.push_back(Entry(event.oldFilePath, event.isFolder, NFQ_Deleted));
          path = event.nFilePath;
          event.fileAction = NFQ_Created;
        }
      }
      if (event.fileAction != NFQ_Renamed) {
        entry.nFilePath = path;
        entry.fileAction = event.fileAction;
        entry.isFolder = event.isFolder;
        add = true;
        if (entry.isFolder && entry.fileAction != NFQ_Deleted && !IsFileInServerArray(path, index) &&
            IsFolderOnDisk(path)) {
          // What a new folder holds is read from the disk, whether its events came or not.
          const std::string below = path + "/";
          const bool broughtByChild = std::any_of(merged.begin(), merged.end(), [&](const NFQ_File& queued) {
            return queued.isFolder && queued.nFilePath.starts_with(below);
          });
          auto found = SmartSync::GetChildFilesAndFoldersNFQ(path, true);
          children.insert(children.end(), found.begin(), found.end());
          add = !broughtByChild;
        }
      }
      if (entry.isFolder && (entry.fileAction == NFQ_Deleted || entry.fileAction == NFQ_Renamed)) {
        folders.RemoveTree(entry.fileAction == NFQ_Renamed ? entry.oldFilePath : entry.nFilePath);
      }
      if (entry.isFolder && entry.fileAction != NFQ_Deleted) folders.Add(entry.nFilePath);
      if (!entry.isFolder && IsCreateOrChange(entry) && !IsFileInServerArray(path, index)) {
        // A new file's unknown parents go first, the highest first.
        std::vector<NFQ_File> parents;
        for (std::string parent = Parent(path);
             !parent.empty() && !IsFileInServerArray(parent, index) && !RootItem(parent) &&
             !folders.Contains(parent);
             parent = Parent(parent)) {
          parents.push_back(Entry(parent, true, NFQ_Created));
          folders.Add(parent);
        }
        merged.insert(merged.end(), parents.rbegin(), parents.rend());
      }
      if (add) merged.push_back(std::move(entry));
    }
  } catch (const std::exception& exception) {
    CVEventLogger::WriteExceptionsLog(exception.what());
    CVEventLogger::LogException(kClass, "FilterPaths", exception.what());
  }

  std::vector<NFQ_File> result;
  if (!merged.empty()) {
    result = merged;
    std::unordered_set<std::string> present;
    auto key = [](const NFQ_File& entry) { return entry.nFilePath + '\n' + std::to_string(entry.fileAction); };
    for (const auto& entry : result) present.insert(key(entry));
    for (const auto& child : children) {
      if (present.insert(key(child)).second) result.push_back(Entry(child.nFilePath, child.isFolder, child.fileAction));
    }
  }

  printNFQueue(result, "_NFQ");
  result = FilterPathsRenames(result);
  printNFQueue(result, "_NFF");
  result = PostFilterPaths(result, known);
  printNFQueue(result, "  _L");

  for (const auto& entry : result) {
    IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(entry.nFilePath, "1", entry.isFolder);
    IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(entry.nFilePath);
  }

  std::size_t arrivedMeanwhile;
  {
    std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
    arrivedMeanwhile = NF_Queue.size();
  }
  if (!NewFilesParser::saveNewFilesXML(result)) {
    CVEventLogger::WriteMainLogMessage(std::string(kClass) +
                                       " - FilterPaths -> NewFiles.xml could not be written; the queue "
                                       "stays in memory");
  }
  {
    std::lock_guard<std::mutex> lock(FSW_FQ_Lock);
    FQ_FilteredQueue.insert(FQ_FilteredQueue.end(), result.begin(), result.end());
  }
  if (needToRestartNFQ_ != nullptr) {
    if (arrivedMeanwhile == 0) {
      *needToRestartNFQ_ = false;
    } else {
      CVEventLogger::WriteMainLogMessage("FNFQB_FILTER");
      *needToRestartNFQ_ = true;
    }
  }
}

std::vector<NFQ_File> FSW_Queues::FilterPathsRenames(const std::vector<NFQ_File>& queue) {
  std::vector<NFQ_File> out;
  out.reserve(queue.size());
  for (const NFQ_File& rename : queue) {
    out.push_back(rename);
    if (rename.fileAction != NFQ_Renamed || out.size() < 2) continue;
    const std::string oldBelow = rename.oldFilePath + "/";
    const std::string newBelow = rename.nFilePath + "/";
    // The rename sits at `bound`; each entry moved behind it brings it one forward.
    std::size_t bound = out.size() - 1;
    for (std::size_t i = 0; i < bound;) {
      NFQ_File& waiting = out[i];
      bool moves = false;
      if (IsCreateOrChange(waiting)) {
        if (!rename.isFolder && waiting.nFilePath == rename.oldFilePath) {
          waiting.nFilePath = rename.nFilePath;
          moves = true;
        } else if (rename.isFolder && waiting.nFilePath.starts_with(oldBelow)) {
          waiting.nFilePath = newBelow + waiting.nFilePath.substr(oldBelow.size());
          moves = true;
        }
      }
      if (!moves) {
        ++i;
        continue;
      }
      NFQ_File moved = std::move(waiting);
      out.erase(out.begin() + static_cast<std::ptrdiff_t>(i));
      out.push_back(std::move(moved));
      --bound;
    }
  }
  return out;
}

std::vector<NFQ_File> FSW_Queues::PostFilterPaths(const std::vector<NFQ_File>& queue,
                                                  const std::vector<CVFileForCompare>& serverArray) {
  std::vector<NFQ_File> out;
  out.reserve(queue.size());
  try {
    for (const NFQ_File& next : queue) {
      out.push_back(next);
      const std::string& path = next.nFilePath;
      if (next.fileAction == NFQ_Deleted && out.size() >= 2) {
        // A deletion cancels what waited on the path and below it; renames stay,
        // since the server must learn them before the path can be deleted there.
        const std::string below = path + "/";
        for (std::size_t i = 0; i + 1 < out.size();) {
          const NFQ_File& waiting = out[i];
          if (waiting.fileAction != NFQ_Renamed &&
              (waiting.nFilePath == path || (next.isFolder && waiting.nFilePath.starts_with(below)))) {
            out.erase(out.begin() + static_cast<std::ptrdiff_t>(i));
          } else {
            ++i;
          }
        }
        // Editors that save by renaming the file away, writing it anew and deleting
        // the renamed copy: one change of the file, so the server keeps its history.
        if (!next.isFolder && out.size() >= 3) {
          for (std::size_t r = 0; r + 1 < out.size(); ++r) {
            const NFQ_File& away = out[r];
            if (away.fileAction != NFQ_Renamed || away.isFolder || away.nFilePath != path) continue;
            const std::string original = away.oldFilePath;
            const bool writtenAgain = std::any_of(out.begin() + static_cast<std::ptrdiff_t>(r) + 1, out.end() - 1,
                                                  [&](const NFQ_File& entry) {
                                                    return IsCreateOrChange(entry) && entry.nFilePath == original;
                                                  });
            if (!writtenAgain) continue;
            CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - PostFilterPaths -> saved in place: " +
                                               original);
            out.pop_back();
            out.erase(out.begin() + static_cast<std::ptrdiff_t>(r));
            break;
          }
        }
      } else if (IsCreateOrChange(next) && out.size() >= 2) {
        std::size_t at = out.size() - 1;  // where `next` stands
        bool nextRemoved = false;
        for (std::size_t i = at; i-- > 0;) {
          const NFQ_File& earlier = out[i];
          if (next.isFolder && ((earlier.fileAction == NFQ_Deleted && earlier.nFilePath == path) ||
                                (earlier.fileAction == NFQ_Renamed && earlier.oldFilePath == path))) {
            break;  // the folder was replaced: the create stays
          }
          if (earlier.nFilePath == path && IsCreateOrChange(earlier)) {
            if (next.isFolder) {
              if (!nextRemoved) out.erase(out.begin() + static_cast<std::ptrdiff_t>(at));
              nextRemoved = true;
            } else {
              out.erase(out.begin() + static_cast<std::ptrdiff_t>(i));
              --at;
            }
            continue;
          }
          if (next.isFolder && earlier.nFilePath == path && earlier.fileAction == NFQ_Renamed) {
            // The rename brings the folder.
            if (!nextRemoved) out.erase(out.begin() + static_cast<std::ptrdiff_t>(at));
            break;
          }
        }
      }
    }

    // A known file of the recorded size and time is not uploaded: this drops the
    // echo of a download and a mere touch.
    const CVFileForCompareMethods::PathIndex index(serverArray);
    out.erase(std::remove_if(out.begin(), out.end(),
                             [&](const NFQ_File& entry) {
                               return (IsCreateOrChange(entry) || entry.fileAction == -1) &&
                                      IsFileInServerArray(entry.nFilePath, index) &&
                                      !IsFileChanged(entry.nFilePath, serverArray, index);
                             }),
              out.end());
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "PostFilterPaths", exception.what());
  }
  return out;
}

void FSW_Queues::RenameFilesInQueue(const std::string& oldName, const std::string& newName) {
  const std::string root = CVStaticHelpers::GenerateRootPath();
  const std::string oldPrefix = root + "/" + oldName;
  const std::string newPrefix = root + "/" + newName;
  auto reaim = [&](std::string& path) {
    if (!path.starts_with(oldPrefix)) return;
    // The name alone, or the name followed by "/": "Docs" must not re-aim "Docs2".
    if (path.size() > oldPrefix.size() && path[oldPrefix.size()] != '/') return;
    path.replace(0, oldPrefix.size(), newPrefix);
  };
  {
    std::lock_guard<std::mutex> lock(FSW_FQ_Lock);
    for (auto& entry : FQ_FilteredQueue) {
      reaim(entry.nFilePath);
      if (entry.fileAction == NFQ_Renamed) reaim(entry.oldFilePath);
    }
  }
  std::vector<NFQ_File> copy;
  {
    std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
    copy.swap(NF_Queue);
  }
  for (auto& entry : copy) {
    if (entry.fileAction == NFQ_Renamed && entry.oldFilePath.starts_with(oldPrefix) &&
        entry.nFilePath.starts_with(oldPrefix)) {
      reaim(entry.nFilePath);
    }
  }
  FilterPaths(std::move(copy));
}

void FSW_Queues::printNFQueue(const std::vector<NFQ_File>& queue, const std::string& prefix) {
  // A tree copied in is thousands of entries, printed at each of four stages:
  // the first ones tell what happened, the rest is counted.
  constexpr std::size_t kShown = 100;
  std::string text;
  for (std::size_t i = 0; i < queue.size() && i < kShown; ++i) {
    const NFQ_File& entry = queue[i];
    text += " " + prefix + ": old file path: " + entry.oldFilePath + " to: " + entry.nFilePath + " (:" +
            NFQActionName(entry.fileAction) + ")\n";
  }
  if (queue.size() > kShown) text += " " + prefix + ": ... and " + std::to_string(queue.size() - kShown) + " more\n";
  text += " " + prefix + ":--------------------------";
  CVEventLogger::WriteMainLogMessage(text);
}

bool FSW_Queues::IsFileInServerArray(const std::string& path, const std::vector<CVFileForCompare>& array) {
  return IsFileInServerArray(path, CVFileForCompareMethods::PathIndex(array));
}

bool FSW_Queues::IsFileInServerArray(const std::string& path, const CVFileForCompareMethods::PathIndex& index) {
  return index.Contains(path);
}

bool FSW_Queues::IsFileChanged(const std::string& path, const std::vector<CVFileForCompare>& array) {
  return IsFileChanged(path, array, CVFileForCompareMethods::PathIndex(array));
}

bool FSW_Queues::IsFileChanged(const std::string& path, const std::vector<CVFileForCompare>& array,
                               const CVFileForCompareMethods::PathIndex& index) {
  auto at = index.Find(path);
  if (!at) return false;
  const CVFileForCompare& record = array[*at];
  auto local = CVFileForCompareMethods::CreateCVFileForCompare(path);
  // Gone since the event: let the operation find out what stands there now.
  if (!local) return true;
  // A folder is never changed by itself. Its size on Linux is that of its entry
  // table, which grows with the names in it and says nothing of its contents, and
  // the server side of a folder has nothing to update: a known folder whose
  // contents change must not be sent as a change of the folder.
  if (local->isFolder || record.isFolder) return local->isFolder != record.isFolder;
  // An edit that keeps the size still changes the time the last sync recorded.
  return local->size != record.size || local->modifiedTime != record.modifiedTime;
}

bool FSW_Queues::IsSitesSame(const std::string& path, const std::string& oldPath) {
  std::int64_t first = -1, second = -1;
  try {
    const std::string root = CVStaticHelpers::GenerateRootPathForStorages() + "/";
    auto sites = CVConfiguration::Instance().SitesCopy();
    auto within = [](const std::string& candidate, const std::string& folder) {
      return candidate == folder || candidate.starts_with(folder + "/");
    };
    for (std::size_t i = 0; i < sites.size(); ++i) {
      const std::string folder = root + sites[i]->Name;
      if (within(path, folder)) first = static_cast<std::int64_t>(i);
      if (within(oldPath, folder)) second = static_cast<std::int64_t>(i);
    }
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "IsSitesSame", exception.what());
  }
  return first == second;
}

bool FSW_Queues::RootItem(const std::string& path) {
  try {
    const std::string root = CVStaticHelpers::GenerateRootPathForStorages() + "/";
    const std::string parent = Parent(path) + "/";
    return ::strcasecmp(root.c_str(), parent.c_str()) == 0;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClass, "RootItem", exception.what());
    return false;
  }
}

std::size_t FSW_Queues::RawCount() {
  std::lock_guard<std::mutex> lock(FSW_NFQ_Lock);
  return NF_Queue.size();
}

std::size_t FSW_Queues::FilteredCount() {
  std::lock_guard<std::mutex> lock(FSW_FQ_Lock);
  return FQ_FilteredQueue.size();
}
