#include "CVSelectiveSyncSite.h"

#include <algorithm>
#include <exception>
#include <unordered_set>
#include <utility>

#include "CVEventLogger.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"

namespace {

const char kClassName[] = "CVSelectiveSyncSite";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClassName) + " - " + method + " -> " + text);
}

std::string StripFinalSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// path is the folder itself or lies below it; "Docs2" is not in "Docs".
bool IsInFolder(const std::string& path, const std::string& folder) {
  if (path.size() < folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return path.size() == folder.size() || path[folder.size()] == '/';
}

// The folder's own path moves to the new one, and so does everything below it.
bool MoveUnder(std::string& path, const std::string& from, const std::string& to) {
  if (!IsInFolder(path, from)) return false;
  path = to + path.substr(from.size());
  return true;
}

}  // namespace

CVSelectiveSyncSite::CVSelectiveSyncSite(std::string name)
    : CVSelectiveSyncSite(std::move(name), {}, {}, nullptr) {}

CVSelectiveSyncSite::CVSelectiveSyncSite(std::string name, std::vector<CVSelectiveSyncRule> rules,
                                         std::vector<CVSelectiveSyncItem> items,
                                         std::shared_ptr<std::recursive_mutex> lock)
    : lock_(lock ? std::move(lock) : std::make_shared<std::recursive_mutex>()),
      name_(std::move(name)),
      rules_(std::move(rules)),
      items_(std::move(items)) {}

std::string CVSelectiveSyncSite::Name() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return name_;
}

std::vector<CVSelectiveSyncRule> CVSelectiveSyncSite::SyncRules() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return rules_;
}

std::vector<CVSelectiveSyncItem> CVSelectiveSyncSite::SyncItems() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return items_;
}

void CVSelectiveSyncSite::getInXML(CVStateXMLFile::Writer& writer) const {
  std::vector<std::string> skipped;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    writer.StartElement("StorageRules");
    writer.WriteElement("Name", CVStateXMLFile::IsXMLText(name_) ? name_ : std::string());
    writer.StartElement("SyncRules");
    for (const auto& rule : rules_) {
      if (!CVStateXMLFile::IsXMLText(rule.ItemUrl)) {
        skipped.push_back("rule " + rule.ItemUrl);
        continue;
      }
      writer.StartElement("SyncRule");
      writer.WriteElement("ItemUrl", rule.ItemUrl);
      writer.WriteElement("Rule", rule.Rule == CVSelectiveSyncRule::syncAll ? "syncAll" : "syncNone");
      writer.EndElement();
    }
    writer.EndElement();
    writer.StartElement("SyncItems");
    for (const auto& item : items_) {
      if (!CVStateXMLFile::IsXMLText(item.Path)) {
        skipped.push_back("item " + item.Path);
        continue;
      }
      writer.StartElement("SyncItem");
      writer.WriteElement("Path", item.Path);
      writer.WriteElement("IsFolder", item.IsFolder ? "true" : "false");
      writer.WriteElement("WasDeleted", item.WasDeleted ? "true" : "false");
      writer.EndElement();
    }
    writer.EndElement();
    writer.EndElement();
  }
  for (const auto& entry : skipped) Log("getInXML", "Not stored, the name is not UTF-8 text: " + entry);
}

CVSelectiveSyncItem CVSelectiveSyncSite::addSyncItem(bool folder, const std::string& forPath) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  for (const auto& item : items_) {
    if (item.Path == forPath) return item;
  }
  items_.push_back(CVSelectiveSyncItem{forPath, folder, false});
  return items_.back();
}

std::vector<CVSelectiveSyncItem> CVSelectiveSyncSite::addSyncItems(
    const std::vector<CVFileForCompare>* serverFiles) {
  if (!serverFiles) {
    CVEventLogger::WriteMainLogMessage(
        "-(NSMutableArray*)addSyncItems:(NSMutableArray*)serverFiles (|ADD NULL FILES|)");
    return {};
  }
  return addSyncItems(*serverFiles);
}

std::vector<CVSelectiveSyncItem> CVSelectiveSyncSite::addSyncItems(
    const std::vector<CVFileForCompare>& serverFiles) {
  std::vector<CVSelectiveSyncItem> added;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    // A listing holds every file of the storage: a set keeps this linear.
    std::unordered_set<std::string> known;
    known.reserve(items_.size() + serverFiles.size());
    for (const auto& item : items_) known.insert(item.Path);
    for (const auto& file : serverFiles) {
      if (!known.insert(file.localPath).second) continue;
      items_.push_back(CVSelectiveSyncItem{file.localPath, file.isFolder, false});
      added.push_back(items_.back());
    }
  }
  for (const auto& item : added) Log("addSyncItems", "AddItem: " + item.Path);
  return added;
}

std::optional<CVSelectiveSyncRule> CVSelectiveSyncSite::addSyncRule(std::int32_t rule,
                                                                    const std::string& forPath) {
  std::string itemUrl = CVSelectiveSync::RelativePathForLocalPath(forPath);
  if (itemUrl.empty()) {
    Log("addSyncRule", "No rule for a path outside the root: " + forPath);
    return std::nullopt;
  }
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    for (auto& existing : rules_) {
      if (existing.ItemUrl == itemUrl) {
        existing.Rule = rule;
        return existing;
      }
    }
    rules_.push_back(CVSelectiveSyncRule{rule, itemUrl});
  }
  Log("addSyncRule", "AddRule: " + itemUrl);
  return CVSelectiveSyncRule{rule, itemUrl};
}

bool CVSelectiveSyncSite::ItemFoundForPath(const std::string& path) const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  for (const auto& item : items_) {
    if (item.Path == path) return true;
  }
  return false;
}

std::optional<CVSelectiveSyncRule> CVSelectiveSyncSite::RuleForLocalPath(const std::string& path) const {
  std::string relative = CVSelectiveSync::RelativePathForLocalPath(path);
  if (relative.empty()) return std::nullopt;
  return CVSelectiveSync::FindSyncRule(CVSelectiveSync::GetSyncRulesDictionary(*this), relative);
}

bool CVSelectiveSyncSite::IsCanDeleteFile(const std::string& path) const {
  auto rule = RuleForLocalPath(path);
  bool canDelete = !(rule && rule->Rule == CVSelectiveSyncRule::syncNone);
  Log("IsCanDeleteFile", std::string("Return ") + (canDelete ? "1" : "0"));
  return canDelete;
}

bool CVSelectiveSyncSite::IsCheckedRuleForLocalPath(const std::string& path) const {
  auto rule = RuleForLocalPath(path);
  if (!rule) {
    Log("IsCheckedRuleForLocalPath", "Sync == nil " + path);
    return false;
  }
  return rule->Rule == CVSelectiveSyncRule::syncAll;
}

bool CVSelectiveSyncSite::ChangeSyncRuleForPath(const std::string& path,
                                                std::int32_t WintSync_All_None) const {
  return IsCheckedRuleForLocalPath(path);
}

std::vector<std::string> CVSelectiveSyncSite::GetArrayFilesFoldersForFolder(const std::string& path) const {
  std::string folder = StripFinalSlashes(path);
  std::vector<std::string> paths;
  bool empty = false;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    empty = items_.empty();
    for (const auto& item : items_) {
      if (item.Path != folder && IsInFolder(item.Path, folder)) paths.push_back(item.Path);
    }
  }
  if (empty) Log("GetArrayFilesFoldersForFolder", "Warning delete locally then selectivesync.count == 0!!!");
  return paths;
}

void CVSelectiveSyncSite::removeSyncItemAndRule(const std::string& path) {
  try {
    std::string relative = CVSelectiveSync::RelativePathForLocalPath(path);
    {
      std::lock_guard<std::recursive_mutex> lock(*lock_);
      auto item = std::find_if(items_.begin(), items_.end(),
                               [&](const CVSelectiveSyncItem& candidate) { return candidate.Path == path; });
      if (item == items_.end()) return;
      items_.erase(item);
      if (!relative.empty()) {
        auto rule = std::find_if(rules_.begin(), rules_.end(), [&](const CVSelectiveSyncRule& candidate) {
          return candidate.ItemUrl == relative;
        });
        if (rule != rules_.end()) rules_.erase(rule);
      }
    }
    Log("removeSyncItemAndRule", "RemoveSyncItemAndRule for path: File " + path + " deleted access");
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "removeSyncItemAndRule", exception.what());
  }
}

void CVSelectiveSyncSite::removeSyncItemsAndRulesForFolder(const std::string& path) {
  try {
    std::string folder = StripFinalSlashes(path);
    std::string relative = CVSelectiveSync::RelativePathForLocalPath(folder);
    std::vector<std::string> removedItems;
    std::vector<std::string> removedRules;
    {
      std::lock_guard<std::recursive_mutex> lock(*lock_);
      std::erase_if(items_, [&](const CVSelectiveSyncItem& item) {
        if (!IsInFolder(item.Path, folder)) return false;
        removedItems.push_back(item.Path);
        return true;
      });
      if (!relative.empty()) {
        std::erase_if(rules_, [&](const CVSelectiveSyncRule& rule) {
          if (!IsInFolder(rule.ItemUrl, relative)) return false;
          removedRules.push_back(rule.ItemUrl);
          return true;
        });
      }
    }
    for (const auto& removed : removedItems)
      Log("removeSyncItemsAndRulesForFolder", "Remove Item: " + removed);
    for (const auto& removed : removedRules)
      Log("removeSyncItemsAndRulesForFolder", "Remove Rule: " + removed);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "removeSyncItemsAndRulesForFolder", exception.what());
  }
}

void CVSelectiveSyncSite::renameSyncItemAndRule(const std::string& oldPath, const std::string& withNewName,
                                                bool withIsFolder) {
  Log("renameSyncItemAndRule", "Rename sync item and rule, old path:" + oldPath + " new path:" + withNewName +
                                   " isfolder: " + (withIsFolder ? "1" : "0"));
  try {
    std::string from = StripFinalSlashes(oldPath);
    std::string to = StripFinalSlashes(withNewName);
    std::string fromRelative = CVSelectiveSync::RelativePathForLocalPath(from);
    std::string toRelative = CVSelectiveSync::RelativePathForLocalPath(to);
    // A rule cannot follow a path that leaves the root.
    bool moveRules = !fromRelative.empty() && !toRelative.empty();
    if (from.empty() || to.empty()) return;

    if (!withIsFolder) {
      CVEventLogger::WriteMainLogMessage("renameSyncItemAndRule no folder");
      std::lock_guard<std::recursive_mutex> lock(*lock_);
      for (auto& item : items_) {
        if (item.Path == from || item.Path == to) {
          item.Path = to;
          break;
        }
      }
      if (!moveRules) return;
      for (auto& rule : rules_) {
        if (rule.ItemUrl == fromRelative || rule.ItemUrl == toRelative) {
          rule.ItemUrl = toRelative;
          break;
        }
      }
      return;
    }

    // What already stands under the new path is left as it is, so a repeated
    // rename is harmless.
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    for (auto& item : items_) MoveUnder(item.Path, from, to);
    if (!moveRules) return;
    for (auto& rule : rules_) MoveUnder(rule.ItemUrl, fromRelative, toRelative);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "renameSyncItemAndRule", exception.what());
  }
}

void CVSelectiveSyncSite::renameSite(const std::string& oldName, const std::string& forNewName) {
  Log("renameSite", "Rename site old name: " + oldName + "  new name: " + forNewName);
  if (oldName.empty() || forNewName.empty()) return;
  try {
    std::string oldBase = CVStaticHelpers::GeneratePathToSite(oldName);
    std::string newBase = CVStaticHelpers::GeneratePathToSite(forNewName);
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    for (auto& item : items_) MoveUnder(item.Path, oldBase, newBase);
    for (auto& rule : rules_) MoveUnder(rule.ItemUrl, oldName, forNewName);
    name_ = forNewName;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "renameSite", exception.what());
  }
}
