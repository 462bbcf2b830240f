#include "CVSelectiveSyncSite.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "CVEventLogger.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"

namespace {

const char kClassName[] = "CVSelectiveSyncSite";

// The changes a site hands to the store's journal.
enum Change : std::int64_t {
  kAddItem = 1,
  kAddItems = 2,
  kAddRule = 3,
  kRemoveItemAndRule = 4,
  kRemoveFolder = 5,
  kRename = 6,
  kRenameSite = 7,
};
// Items of one listing go to the journal in entries of this many.
constexpr std::size_t kItemsPerEntry = 4096;

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

std::string& KeyOf(CVSelectiveSyncItem& item) { return item.Path; }
std::string& KeyOf(CVSelectiveSyncRule& rule) { return rule.ItemUrl; }

// --- Slots with an index of their keys ---

template <typename S>
void Index(S& s, std::uint32_t at) {
  std::string_view key = KeyOf(s.slots[at].value);
  auto [found, added] = s.first.try_emplace(key, at);
  if (added) return;
  s.sharedKeys = true;
  if (found->second > at) {
    // The key is a view of the earlier slot's string: it goes with that slot's place.
    s.first.erase(found);
    s.first.emplace(key, at);
  }
}

template <typename S>
void Unindex(S& s, std::uint32_t at) {
  const std::string& key = KeyOf(s.slots[at].value);
  auto found = s.first.find(key);
  if (found == s.first.end() || found->second != at) return;
  s.first.erase(found);
  if (!s.sharedKeys) return;
  for (std::uint32_t next = at + 1; next < s.slots.size(); ++next) {
    if (s.slots[next].live && KeyOf(s.slots[next].value) == key) {
      s.first.emplace(std::string_view(KeyOf(s.slots[next].value)), next);
      return;
    }
  }
}

template <typename S, typename Value>
void Append(S& s, Value value) {
  s.slots.push_back({std::move(value), true});
  ++s.live;
  Index(s, static_cast<std::uint32_t>(s.slots.size() - 1));
}

template <typename S>
std::optional<std::uint32_t> Find(const S& s, std::string_view key) {
  auto found = s.first.find(key);
  if (found == s.first.end()) return std::nullopt;
  return found->second;
}

template <typename S>
void Kill(S& s, std::uint32_t at) {
  if (!s.slots[at].live) return;
  Unindex(s, at);
  s.slots[at].live = false;
  --s.live;
  KeyOf(s.slots[at].value).clear();
}

template <typename S>
void SetKey(S& s, std::uint32_t at, std::string key) {
  Unindex(s, at);
  KeyOf(s.slots[at].value) = std::move(key);
  Index(s, at);
}

// Dead slots go once they outnumber the live ones; never inside a walk over the slots.
template <typename S>
void Compact(S& s) {
  if (s.slots.size() - s.live <= s.live + 1024) return;
  auto old = std::move(s.slots);
  s.slots.clear();
  s.first.clear();
  s.live = 0;
  s.sharedKeys = false;
  for (auto& slot : old) {
    if (slot.live) Append(s, std::move(slot.value));
  }
}

template <typename S>
auto Values(const S& s) {
  std::vector<std::decay_t<decltype(s.slots.front().value)>> values;
  values.reserve(s.live);
  for (const auto& slot : s.slots) {
    if (slot.live) values.push_back(slot.value);
  }
  return values;
}

// Moves a path that is the folder or lies below it; false for any other.
bool MoveUnder(std::string& path, const std::string& from, const std::string& to) {
  if (!IsInFolder(path, from)) return false;
  path = to + path.substr(from.size());
  return true;
}

template <typename S>
void MoveAllUnder(S& s, const std::string& from, const std::string& to) {
  for (std::uint32_t at = 0; at < s.slots.size(); ++at) {
    if (!s.slots[at].live) continue;
    std::string moved = KeyOf(s.slots[at].value);
    if (MoveUnder(moved, from, to)) SetKey(s, at, std::move(moved));
  }
}

}  // namespace

CVSelectiveSyncSite::CVSelectiveSyncSite(std::string name)
    : CVSelectiveSyncSite(std::move(name), {}, {}, nullptr) {}

CVSelectiveSyncSite::CVSelectiveSyncSite(std::string name, std::vector<CVSelectiveSyncRule> rules,
                                         std::vector<CVSelectiveSyncItem> items,
                                         std::shared_ptr<std::recursive_mutex> lock,
                                         std::shared_ptr<const ChangeSink> changes)
    : lock_(lock ? std::move(lock) : std::make_shared<std::recursive_mutex>()),
      changes_(std::move(changes)),
      name_(std::move(name)) {
  for (auto& rule : rules) Append(rules_, std::move(rule));
  for (auto& item : items) Append(items_, std::move(item));
}

void CVSelectiveSyncSite::Record(const CVStateJournal::Entry& change) const {
  if (changes_ && *changes_) (*changes_)(*this, change);
}

std::string CVSelectiveSyncSite::Name() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return name_;
}

std::vector<CVSelectiveSyncRule> CVSelectiveSyncSite::SyncRules() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return Values(rules_);
}

std::vector<CVSelectiveSyncItem> CVSelectiveSyncSite::SyncItems() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return Values(items_);
}

std::size_t CVSelectiveSyncSite::SyncItemCount() const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return items_.live;
}

void CVSelectiveSyncSite::getInXML(CVStateXMLFile::Writer& writer) const {
  std::vector<std::string> skipped;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    writer.StartElement("StorageRules");
    writer.WriteElement("Name", CVStateXMLFile::IsXMLText(name_) ? name_ : std::string());
    writer.StartElement("SyncRules");
    for (const auto& slot : rules_.slots) {
      if (!slot.live) continue;
      const CVSelectiveSyncRule& rule = slot.value;
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
    for (const auto& slot : items_.slots) {
      if (!slot.live) continue;
      const CVSelectiveSyncItem& item = slot.value;
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

// --- The changes on the content ---

bool CVSelectiveSyncSite::ApplyAddItem(bool folder, const std::string& path) {
  if (Find(items_, path)) return false;
  Append(items_, CVSelectiveSyncItem{path, folder, false});
  return true;
}

bool CVSelectiveSyncSite::ApplyAddRule(std::int32_t rule, const std::string& itemUrl) {
  if (auto at = Find(rules_, itemUrl)) {
    CVSelectiveSyncRule& existing = rules_.slots[*at].value;
    if (existing.Rule == rule) return false;
    existing.Rule = rule;
    return true;
  }
  Append(rules_, CVSelectiveSyncRule{rule, itemUrl});
  return true;
}

bool CVSelectiveSyncSite::ApplyRemoveItemAndRule(const std::string& path, const std::string& relative) {
  auto item = Find(items_, path);
  if (!item) return false;
  Kill(items_, *item);
  if (!relative.empty()) {
    if (auto rule = Find(rules_, relative)) Kill(rules_, *rule);
  }
  Compact(items_);
  Compact(rules_);
  return true;
}

void CVSelectiveSyncSite::ApplyRemoveFolder(const std::string& folder, const std::string& relative,
                                            std::vector<std::string>* removedItems,
                                            std::vector<std::string>* removedRules) {
  for (std::uint32_t at = 0; at < items_.slots.size(); ++at) {
    if (!items_.slots[at].live || !IsInFolder(items_.slots[at].value.Path, folder)) continue;
    if (removedItems) removedItems->push_back(items_.slots[at].value.Path);
    Kill(items_, at);
  }
  if (!relative.empty()) {
    for (std::uint32_t at = 0; at < rules_.slots.size(); ++at) {
      if (!rules_.slots[at].live || !IsInFolder(rules_.slots[at].value.ItemUrl, relative)) continue;
      if (removedRules) removedRules->push_back(rules_.slots[at].value.ItemUrl);
      Kill(rules_, at);
    }
  }
  Compact(items_);
  Compact(rules_);
}

bool CVSelectiveSyncSite::ApplyRename(const std::string& from, const std::string& to, bool isFolder) {
  const std::string fromRelative = CVSelectiveSync::RelativePathForLocalPath(from);
  const std::string toRelative = CVSelectiveSync::RelativePathForLocalPath(to);
  // A rule cannot follow a path that leaves the root.
  const bool moveRules = !fromRelative.empty() && !toRelative.empty();
  if (!isFolder) {
    // The first of either path: a repeated rename finds the new one.
    auto first = [](auto& s, const std::string& a, const std::string& b) {
      auto x = Find(s, a);
      auto y = Find(s, b);
      if (!x || (y && *y < *x)) return y;
      return x;
    };
    if (auto item = first(items_, from, to)) SetKey(items_, *item, to);
    if (moveRules) {
      if (auto rule = first(rules_, fromRelative, toRelative)) SetKey(rules_, *rule, toRelative);
    }
    return true;
  }
  // What already stands under the new path is left as it is, so a repeated
  // rename is harmless.
  MoveAllUnder(items_, from, to);
  if (moveRules) MoveAllUnder(rules_, fromRelative, toRelative);
  return true;
}

void CVSelectiveSyncSite::ApplyRenameSite(const std::string& oldBase, const std::string& newBase,
                                          const std::string& oldName, const std::string& newName) {
  MoveAllUnder(items_, oldBase, newBase);
  MoveAllUnder(rules_, oldName, newName);
  name_ = newName;
}

bool CVSelectiveSyncSite::ApplyChange(CVStateJournal::Reader& change) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  switch (change.Number()) {
    case kAddItem: {
      const bool folder = change.Number() != 0;
      const std::string path = change.Text();
      return change.ok() && ApplyAddItem(folder, path);
    }
    case kAddItems: {
      const std::int64_t count = change.Number();
      for (std::int64_t i = 0; i < count && change.ok(); ++i) {
        const bool folder = change.Number() != 0;
        const std::string path = change.Text();
        if (change.ok()) ApplyAddItem(folder, path);
      }
      return change.ok();
    }
    case kAddRule: {
      const auto rule = static_cast<std::int32_t>(change.Number());
      const std::string itemUrl = change.Text();
      return change.ok() && ApplyAddRule(rule, itemUrl);
    }
    case kRemoveItemAndRule: {
      const std::string path = change.Text();
      const std::string relative = change.Text();
      return change.ok() && ApplyRemoveItemAndRule(path, relative);
    }
    case kRemoveFolder: {
      const std::string folder = change.Text();
      const std::string relative = change.Text();
      if (!change.ok()) return false;
      ApplyRemoveFolder(folder, relative, nullptr, nullptr);
      return true;
    }
    case kRename: {
      const std::string from = change.Text();
      const std::string to = change.Text();
      const bool isFolder = change.Number() != 0;
      return change.ok() && ApplyRename(from, to, isFolder);
    }
    case kRenameSite: {
      const std::string oldBase = change.Text();
      const std::string newBase = change.Text();
      const std::string oldName = change.Text();
      const std::string newName = change.Text();
      if (!change.ok()) return false;
      ApplyRenameSite(oldBase, newBase, oldName, newName);
      return true;
    }
    default:
      return false;
  }
}

// --- The operations ---

CVSelectiveSyncItem CVSelectiveSyncSite::addSyncItem(bool folder, const std::string& forPath) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  if (auto at = Find(items_, forPath)) return items_.slots[*at].value;
  ApplyAddItem(folder, forPath);
  CVStateJournal::Entry change;
  change.Number(kAddItem).Number(folder ? 1 : 0).Text(forPath);
  Record(change);
  return CVSelectiveSyncItem{forPath, folder, false};
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
    for (const auto& file : serverFiles) {
      if (ApplyAddItem(file.isFolder, file.localPath)) added.push_back(CVSelectiveSyncItem{file.localPath, file.isFolder, false});
    }
    for (std::size_t start = 0; start < added.size(); start += kItemsPerEntry) {
      const std::size_t end = std::min(added.size(), start + kItemsPerEntry);
      CVStateJournal::Entry change;
      change.Number(kAddItems).Number(static_cast<std::int64_t>(end - start));
      for (std::size_t i = start; i < end; ++i) change.Number(added[i].IsFolder ? 1 : 0).Text(added[i].Path);
      Record(change);
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
  bool isNew = false;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    isNew = !Find(rules_, itemUrl);
    if (ApplyAddRule(rule, itemUrl)) {
      CVStateJournal::Entry change;
      change.Number(kAddRule).Number(rule).Text(itemUrl);
      Record(change);
    }
  }
  if (isNew) Log("addSyncRule", "AddRule: " + itemUrl);
  return CVSelectiveSyncRule{rule, itemUrl};
}

bool CVSelectiveSyncSite::ItemFoundForPath(const std::string& path) const {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return Find(items_, path).has_value();
}

std::optional<CVSelectiveSyncRule> CVSelectiveSyncSite::RuleForLocalPath(const std::string& path) const {
  std::string relative = CVSelectiveSync::RelativePathForLocalPath(path);
  if (relative.empty()) return std::nullopt;
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  if (rules_.sharedKeys) {
    // Two rules of one path: the later wins, as in the comparison's dictionary.
    return CVSelectiveSync::FindSyncRule(CVSelectiveSync::GetSyncRulesDictionary(*this), relative);
  }
  return CVSelectiveSync::FindSyncRule(
      [&](const std::string& itemUrl) -> const CVSelectiveSyncRule* {
        auto at = Find(rules_, itemUrl);
        return at ? &rules_.slots[*at].value : nullptr;
      },
      relative);
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
    empty = items_.live == 0;
    for (const auto& slot : items_.slots) {
      if (slot.live && slot.value.Path != folder && IsInFolder(slot.value.Path, folder)) {
        paths.push_back(slot.value.Path);
      }
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
      if (!ApplyRemoveItemAndRule(path, relative)) return;
      CVStateJournal::Entry change;
      change.Number(kRemoveItemAndRule).Text(path).Text(relative);
      Record(change);
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
      ApplyRemoveFolder(folder, relative, &removedItems, &removedRules);
      if (!removedItems.empty() || !removedRules.empty()) {
        CVStateJournal::Entry change;
        change.Number(kRemoveFolder).Text(folder).Text(relative);
        Record(change);
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
    if (from.empty() || to.empty()) return;
    if (!withIsFolder) CVEventLogger::WriteMainLogMessage("renameSyncItemAndRule no folder");
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    ApplyRename(from, to, withIsFolder);
    CVStateJournal::Entry change;
    change.Number(kRename).Text(from).Text(to).Number(withIsFolder ? 1 : 0);
    Record(change);
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
    ApplyRenameSite(oldBase, newBase, oldName, forNewName);
    CVStateJournal::Entry change;
    change.Number(kRenameSite).Text(oldBase).Text(newBase).Text(oldName).Text(forNewName);
    Record(change);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "renameSite", exception.what());
  }
}
