#include "SelectiveSyncTree.h"

#include <algorithm>
#include <map>
#include <set>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"
#include "Clock.h"
#include "ManagerDownload.h"
#include "SyncControl.h"
#include "UIFunctions.h"

namespace {
constexpr const char* kClass = "ChooseSyncSheetDelegate";

std::string LastComponent(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Parent(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}
}  // namespace

SelectiveSyncTree::SelectiveSyncTree(std::string storageName)
    : storageName_(std::move(storageName)), storagesRoot_(CVStaticHelpers::GenerateRootPath()) {
  root_ = std::make_unique<Row>();
  root_->itemName = storageName_;
  root_->itemPath = CVStaticHelpers::GeneratePathToSite(storageName_);
  root_->itemIsFolder = true;
}

std::string SelectiveSyncTree::RootRelative(const std::string& localPath) const {
  if (localPath.size() <= storagesRoot_.size() + 1) return "";
  return localPath.substr(storagesRoot_.size() + 1);
}

int SelectiveSyncTree::StateForRule(const std::string& rootRelativePath) const {
  auto rule = CVSelectiveSync::FindSyncRule(rules_, rootRelativePath);
  return rule && rule->Rule == CVSelectiveSyncRule::syncAll ? kChecked : kUnchecked;
}

SelectiveSyncTree::Row& SelectiveSyncTree::AddRow(Row& parent, std::unique_ptr<Row> row) {
  row->parent = &parent;
  parent.children.push_back(std::move(row));
  return *parent.children.back();
}

void SelectiveSyncTree::AddPlaceholder(Row& row) {
  auto placeholder = std::make_unique<Row>();
  placeholder->itemName = kLoading;
  placeholder->placeholder = true;
  AddRow(row, std::move(placeholder));
}

void SelectiveSyncTree::loadChanges() {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - loadChangesSeparatedThread -> " + storageName_);
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName(storageName_, true);
  rules_ = site ? CVSelectiveSync::GetSyncRulesDictionary(*site) : CVSyncRulesDictionary{};
  root_->children.clear();
  root_->itemSynced = StateForRule(site ? site->Name() : storageName_);
  populateTreeView(*root_, site ? site->SyncItems() : std::vector<CVSelectiveSyncItem>{}, false);
}

void SelectiveSyncTree::populateTreeView(Row& row, std::vector<CVSelectiveSyncItem> items, bool withRootState) {
  const std::string base = Parent(row.itemPath);
  auto relative = [&](const std::string& path) { return path.size() > base.size() ? path.substr(base.size() + 1) : ""; };
  std::map<std::string, Row*> folders{{row.itemName, &row}};
  // Rows that stand already stay as they are, and new items go beside them.
  std::set<std::string> known;
  std::vector<Row*> pending{&row};
  while (!pending.empty()) {
    Row* next = pending.back();
    pending.pop_back();
    for (auto& child : next->children) {
      known.insert(child->itemPath);
      if (child->itemIsFolder) {
        folders[relative(child->itemPath)] = child.get();
        pending.push_back(child.get());
      }
    }
  }

  std::stable_sort(items.begin(), items.end(), [](const CVSelectiveSyncItem& a, const CVSelectiveSyncItem& b) {
    if (a.IsFolder != b.IsFolder) return a.IsFolder;
    return a.Path < b.Path;
  });
  for (const auto& item : items) {
    const std::string path = relative(item.Path);
    // Only what lies below the row belongs to it.
    if (item.Path.rfind(row.itemPath + "/", 0) != 0 || path.empty()) continue;
    if (folders.count(path) || !known.insert(item.Path).second) continue;
    // Folders the items lie in that the tree lacks come first, top down.
    std::vector<std::string> missing;
    std::string parentPath = Parent(path);
    while (!parentPath.empty() && !folders.count(parentPath)) {
      missing.push_back(parentPath);
      parentPath = Parent(parentPath);
    }
    Row* parent = folders.count(parentPath) ? folders[parentPath] : &row;
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
      auto folder = std::make_unique<Row>();
      folder->itemName = LastComponent(*it);
      folder->itemPath = base + "/" + *it;
      folder->itemIsFolder = true;
      folder->itemSynced = StateForRule(RootRelative(folder->itemPath));
      parent = &AddRow(*parent, std::move(folder));
      folders[*it] = parent;
    }
    auto entry = std::make_unique<Row>();
    entry->itemName = LastComponent(item.Path);
    entry->itemPath = item.Path;
    entry->itemIsFolder = item.IsFolder;
    entry->itemSynced = withRootState ? (parent->itemSynced != kUnchecked ? kChecked : kUnchecked)
                                      : StateForRule(RootRelative(item.Path));
    Row& added = AddRow(*parent, std::move(entry));
    if (added.itemIsFolder) folders[path] = &added;
  }
  for (auto& [path, folder] : folders) {
    if (folder->children.empty()) AddPlaceholder(*folder);
    if (!checkChildrenIsSynced(*folder, folder->itemSynced)) folder->itemSynced = kMixed;
  }
}

SelectiveSyncTree::Row* SelectiveSyncTree::Find(const std::string& relativePath) {
  Row* row = root_.get();
  std::string rest = relativePath;
  while (!rest.empty() && rest.front() == '/') rest.erase(0, 1);
  while (!rest.empty() && rest.back() == '/') rest.pop_back();
  std::size_t start = 0;
  while (row && start < rest.size()) {
    std::size_t slash = rest.find('/', start);
    std::string name = rest.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    Row* next = nullptr;
    for (auto& child : row->children) {
      if (!child->placeholder && child->itemName == name) next = child.get();
    }
    row = next;
    start = slash == std::string::npos ? rest.size() : slash + 1;
  }
  return row;
}

std::optional<std::vector<CVSelectiveSyncItem>> SelectiveSyncTree::FetchFolder(const std::string& folderPath) const {
  auto site = CVConfiguration::Instance().GetSiteByName(storageName_);
  if (!site) return std::nullopt;
  CVSharepoint storage = *site;
  const std::string storageFolder = CVStaticHelpers::GetLocalPathForSiteName(storage.Name);
  std::string tail = folderPath.size() > storageFolder.size() ? folderPath.substr(storageFolder.size()) : "";
  if (storage.StorageType == "CIFS" || storage.Url.find('\\') != std::string::npos) {
    std::replace(tail.begin(), tail.end(), '/', '\\');
  }
  const std::string location = storage.Url + tail;
  Clock clock;
  auto listing = ManagerDownload(clock).GetFileListFromServerNew(UIFunctions::URLDecodedString(location), storage,
                                                                 false, false, false);
  if (!listing || listing->empty()) return std::nullopt;
  CVSelectiveSync& store = CVSelectiveSync::Instance();
  auto rules = store.GetSiteRulesByName(storageName_, true);
  if (!rules) return std::nullopt;
  rules->addSyncItems(*listing);
  store.SaveConfigXML();
  std::vector<CVSelectiveSyncItem> items;
  for (const auto& entry : *listing) items.push_back(CVSelectiveSyncItem{entry.localPath, entry.isFolder, false});
  return items;
}

void SelectiveSyncTree::stopProgressAndPopulateTreeView(Row& row,
                                                        const std::optional<std::vector<CVSelectiveSyncItem>>& items) {
  if (row.NeedsLoading()) row.children.erase(row.children.begin());
  if (items) populateTreeView(row, *items, true);
  // A folder the server would not list looks empty and stays so while the tree is open.
  if (!items && !row.children.empty() && row.children.front()->placeholder) row.children.clear();
}

bool SelectiveSyncTree::loadFilesForExpandedItem(Row& row) {
  auto items = FetchFolder(row.itemPath);
  stopProgressAndPopulateTreeView(row, items);
  return items.has_value();
}

bool SelectiveSyncTree::checkChildrenIsSynced(const Row& row, int state) {
  for (const auto& child : row.children) {
    if (child->placeholder) continue;
    if (child->itemSynced != state || !checkChildrenIsSynced(*child, state)) return false;
  }
  return true;
}

void SelectiveSyncTree::updateChildrenIsSynced(Row& row, int state) {
  for (auto& child : row.children) {
    if (child->placeholder) continue;
    child->itemSynced = state;
    updateChildrenIsSynced(*child, state);
  }
}

void SelectiveSyncTree::UpdateAncestors(Row& row) {
  for (Row* ancestor = row.parent; ancestor; ancestor = ancestor->parent) {
    ancestor->itemSynced = checkChildrenIsSynced(*ancestor, row.itemSynced) ? row.itemSynced : kMixed;
  }
}

void SelectiveSyncTree::syncedCheckboxPressed(Row& row) {
  // The box has just been clicked: unchecked becomes checked, checked
  // unchecked, and a mixed row checked.
  SetChecked(row, row.itemSynced != kChecked);
}

void SelectiveSyncTree::SetChecked(Row& row, bool checked) {
  row.itemSynced = checked ? kChecked : kUnchecked;
  updateChildrenIsSynced(row, row.itemSynced);
  UpdateAncestors(row);
}

void SelectiveSyncTree::saveSyncRule(const Row& row, CVSelectiveSyncSite& site, CVSyncRulesDictionary& dictionary) {
  if (row.placeholder) return;
  const std::string relative = RootRelative(row.itemPath);
  const std::int32_t value = row.itemSynced != kUnchecked ? CVSelectiveSyncRule::syncAll : CVSelectiveSyncRule::syncNone;
  if (auto own = dictionary.find(relative); own != dictionary.end()) {
    own->second.Rule = value;
    site.addSyncRule(value, row.itemPath);
  } else if (auto inherited = CVSelectiveSync::FindSyncRule(dictionary, relative);
             !inherited || inherited->Rule != value) {
    if (auto rule = site.addSyncRule(value, row.itemPath)) dictionary[relative] = *rule;
  }
  for (const auto& child : row.children) saveSyncRule(*child, site, dictionary);
}

void SelectiveSyncTree::saveChanges(SyncControl& control) {
  control.Apply([this] {
    CVSelectiveSync& store = CVSelectiveSync::Instance();
    auto site = store.GetSiteRulesByName(storageName_, true);
    if (!site) return;
    auto dictionary = CVSelectiveSync::GetSyncRulesDictionary(*site);
    saveSyncRule(*root_, *site, dictionary);
    store.SaveConfigXML();
    rules_ = dictionary;
  });
  CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " - saveChanges -> rules of " + storageName_ + " saved");
}
