#include "CVSelectiveSync.h"


#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <utility>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"

namespace fs = std::filesystem;

namespace {

const char kClassName[] = "CVSelectiveSync";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClassName) + " - " + method + " -> " + text);
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
}


// One storage as the reader assembles it.
struct SiteParts {
  std::string name;
  std::vector<CVSelectiveSyncRule> rules;
  std::vector<CVSelectiveSyncItem> items;
};

// The reader's state: the site being read and the rule or item in hand.
struct Reader {
  enum class Current { None, Site, Rule, Item };

  std::vector<SiteParts> complete;
  std::optional<SiteParts> CurrentSite;
  Current CurrentElement = Current::None;
  CVSelectiveSyncRule rule;
  CVSelectiveSyncItem item;

  void Start(const std::string& name) {
    if (name == "StorageRules") {
      CurrentSite.emplace();
      CurrentElement = Current::Site;
    } else if (name == "SyncRule" && CurrentSite) {
      rule = CVSelectiveSyncRule{};
      CurrentElement = Current::Rule;
    } else if (name == "SyncItem" && CurrentSite) {
      item = CVSelectiveSyncItem{};
      CurrentElement = Current::Item;
    }
  }

  void End(const std::string& name, const std::string& CurrentElementData) {
    switch (CurrentElement) {
      case Current::Site:
        if (name == "Name") CurrentSite->name = CVStateXMLFile::TrimLayout(CurrentElementData);
        break;
      case Current::Rule:
        if (name == "ItemUrl") rule.ItemUrl = CVStateXMLFile::TrimLayout(CurrentElementData);
        if (name == "Rule") {
          rule.Rule = CVStateXMLFile::Trim(CurrentElementData) == "syncAll" ? CVSelectiveSyncRule::syncAll
                                                                            : CVSelectiveSyncRule::syncNone;
        }
        if (name == "SyncRule") {
          CurrentSite->rules.push_back(std::move(rule));
          CurrentElement = Current::Site;
        }
        break;
      case Current::Item:
        if (name == "Path") item.Path = CVStateXMLFile::TrimLayout(CurrentElementData);
        if (name == "IsFolder") item.IsFolder = CVStateXMLFile::Trim(CurrentElementData) == "true";
        if (name == "WasDeleted") item.WasDeleted = CVStateXMLFile::Trim(CurrentElementData) == "true";
        if (name == "SyncItem") {
          CurrentSite->items.push_back(std::move(item));
          CurrentElement = Current::Site;
        }
        break;
      case Current::None:
        break;
    }
    if (name == "StorageRules" && CurrentSite) {
      complete.push_back(std::move(*CurrentSite));
      CurrentSite.reset();
      CurrentElement = Current::None;
    }
  }
};

}  // namespace

CVSelectiveSync::CVSelectiveSync() : lock_(std::make_shared<std::recursive_mutex>()) {
  changes_ = std::make_shared<const CVSelectiveSyncSite::ChangeSink>(
      [this](const CVSelectiveSyncSite& site, const CVStateJournal::Entry& change) { RecordChange(site, change); });
}

CVSelectiveSync::SitePtr CVSelectiveSync::NewSite(std::string name, std::vector<CVSelectiveSyncRule> rules,
                                                  std::vector<CVSelectiveSyncItem> items) {
  return std::make_shared<CVSelectiveSyncSite>(std::move(name), std::move(rules), std::move(items), lock_, changes_);
}

void CVSelectiveSync::RecordChange(const CVSelectiveSyncSite& site, const CVStateJournal::Entry& change) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  // Entries name their site by its place in the list, which only a save changes.
  auto at = std::find_if(sites_.begin(), sites_.end(), [&](const SitePtr& candidate) { return candidate.get() == &site; });
  if (at == sites_.end()) return;  // a site no longer in the store
  changed_ = true;
  CVStateJournal::Entry entry;
  entry.Number(at - sites_.begin()).Append(change);
  if (!journal_ || !journal_->Append(entry) ||
      journal_->entryBytes() > std::max<std::int64_t>(1 << 20, version_.size)) {
    SaveLocked();
  }
}

CVSelectiveSync& CVSelectiveSync::Raw() {
  // Lives to the end of the process: threads may still reach it during exit.
  static CVSelectiveSync* instance = new CVSelectiveSync();
  return *instance;
}

CVSelectiveSync& CVSelectiveSync::Instance() {
  CVSelectiveSync& store = Raw();
  store.EnsureRead();
  return store;
}

void CVSelectiveSync::RemoveAll() {
  CVSelectiveSync& store = Raw();
  std::lock_guard<std::mutex> reading(store.readLock_);
  std::lock_guard<std::recursive_mutex> lock(*store.lock_);
  store.sites_.clear();
  store.read_ = true;
  // The journal's entries name sites that are gone: the file goes empty with it.
  if (store.journal_) store.SaveLocked();
}

void CVSelectiveSync::ResetForTests() {
  CVSelectiveSync& store = Raw();
  std::lock_guard<std::mutex> reading(store.readLock_);
  std::lock_guard<std::recursive_mutex> lock(*store.lock_);
  store.sites_.clear();
  store.journal_.reset();
  store.journalFor_.clear();
  store.changed_ = false;
  store.read_ = false;
}

void CVSelectiveSync::EnsureRead() {
  if (read_) return;
  std::lock_guard<std::mutex> reading(readLock_);
  if (!read_) ReadConfigFromFile();
}

std::string CVSelectiveSync::SelectiveSyncXMLPath() {
  return CVStaticHelpers::GenerateSettingsPath() + "/SelectiveSync.xml";
}

void CVSelectiveSync::ReadConfigFromFile() {
  try {
    const std::string root = CVStaticHelpers::GenerateRootPath();
    std::error_code error;
    fs::create_directories(root, error);
    // Early versions kept their settings in a visible folder.
    const std::string visible = root + "/Settings";
    const std::string settings = CVStaticHelpers::GenerateSettingsPath();
    if (fs::is_directory(visible, error) && !fs::exists(settings, error)) {
      fs::rename(visible, settings, error);
      if (error)
        Log("ReadConfigFromFile", "Cannot rename " + visible + " to " + settings + ": " + error.message());
    }
    CVStaticHelpers::CreateSettingsFolder();

    const std::string path = SelectiveSyncXMLPath();
    const auto version = CVStateJournal::FileVersion::Of(path);
    Reader reader;
    CVStateXMLFile::Events events;
    events.startElement = [&](const std::string& name) { reader.Start(name); };
    events.endElement = [&](const std::string& name, const std::string& data) { reader.End(name, data); };
    const auto read = CVStateXMLFile::ReadStore(path, events);
    switch (read.state) {
      case StateFileRead::Missing:
        CVEventLogger::WriteMainLogMessage("File SelectiveSync.xml not found!");
        break;
      case StateFileRead::Unreadable:
        Log("ReadConfigFromFile", "Cannot read " + path +
                                      (read.keptCopy.empty() ? "" : ", moved to " + read.keptCopy) +
                                      "; selective sync starts empty");
        break;
      case StateFileRead::Broken:
        // A storage cut off in the middle may miss the rules that keep its files:
        // only storages read whole are kept, the others are rebuilt from the record.
        Log("ReadConfigFromFile",
            "SelectiveSync.xml is damaged: Error " + std::to_string(read.error->code) +
                ", Description: " + read.error->description + ", Line: " + std::to_string(read.error->line) +
                ", Column: " + std::to_string(read.error->column) + "; kept " +
                std::to_string(reader.complete.size()) + " storages read whole" +
                (read.keptCopy.empty() ? "" : "; the file as it was is kept in " + read.keptCopy));
        break;
      case StateFileRead::Whole:
        break;
    }
    std::vector<SitePtr> sites;
    for (auto& parts : reader.complete) {
      sites.push_back(NewSite(std::move(parts.name), std::move(parts.rules), std::move(parts.items)));
    }
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    sites_ = std::move(sites);
    read_ = true;
    if (!journal_ || journalFor_ != path) journal_ = std::make_unique<CVStateJournal>(path);
    journalFor_ = path;
    version_ = version;
    changed_ = false;
    // Changes of an earlier run that did not reach the file.
    std::size_t applied = 0;
    const auto entries = journal_->Read(version_);
    for (const auto& bytes : entries) {
      CVStateJournal::Reader entry(bytes);
      const std::int64_t index = entry.Number();
      if (entry.ok() && index >= 0 && index < static_cast<std::int64_t>(sites_.size()) &&
          sites_[static_cast<std::size_t>(index)]->ApplyChange(entry)) {
        ++applied;
      }
    }
    if (!entries.empty()) {
      Log("ReadConfigFromFile", std::to_string(applied) + " of " + std::to_string(entries.size()) +
                                    " journal entries applied");
    }
    if (read.rewrite || !entries.empty()) {
      SaveLocked();
    } else {
      journal_->Restart(version_);
    }
  } catch (const std::exception& exception) {
    // Never a crash at start: the failure is logged and the store goes on as it is.
    CVEventLogger::LogException(kClassName, "ReadConfigFromFile", exception.what());
    read_ = true;
  }
}

void CVSelectiveSync::WriteDocument(CVStateXMLFile::Writer& writer) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  writer.StartElement("SelectiveSync");
  writer.StartElement("Sites");
  for (const auto& site : sites_) site->getInXML(writer);
  writer.EndElement();
  writer.EndElement();
}

std::string CVSelectiveSync::GetInXML() {
  CVStateXMLFile::Writer writer;
  WriteDocument(writer);
  return writer.Finish().value_or("");
}

bool CVSelectiveSync::SaveLocked() {
  const std::string path = SelectiveSyncXMLPath();
  // Under the lock from the first site written to the journal's restart: no
  // change falls between the file and the journal.
  bool saved = CVStateXMLFile::SaveStreamed(path, [&](CVStateXMLFile::Writer& writer) { WriteDocument(writer); });
  if (!saved) {
    Log("SaveConfigXML", "SelectiveSync.xml could not be written; it stays as it was");
    return false;
  }
  version_ = CVStateJournal::FileVersion::Of(path);
  changed_ = false;
  if (!journal_ || journalFor_ != path) journal_ = std::make_unique<CVStateJournal>(path);
  journalFor_ = path;
  journal_->Restart(version_);
  return true;
}

bool CVSelectiveSync::SaveConfigXML() {
  try {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    return SaveLocked();
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "SaveConfigXML", exception.what());
    return false;
  }
}

bool CVSelectiveSync::SaveIfChanged() {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return !changed_ || SaveConfigXML();
}

CVSelectiveSync::SitePtr CVSelectiveSync::FindSiteLocked(const std::string& name) {
  std::string wanted = Lower(name);
  for (const auto& site : sites_) {
    if (Lower(site->Name()) == wanted) return site;
  }
  return nullptr;
}

bool CVSelectiveSync::isNameExists(const std::string& name) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return FindSiteLocked(name) != nullptr;
}

CVSelectiveSync::SitePtr CVSelectiveSync::GetSiteRulesByName(const std::string& name) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return FindSiteLocked(name);
}

CVSelectiveSync::SitePtr CVSelectiveSync::GetSiteRulesByName(const std::string& name, bool createIfNotExist) {
  SitePtr site;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    site = FindSiteLocked(name);
    if (site || !createIfNotExist || name.empty()) return site;
    // A new storage keeps nothing until the user chooses what to sync.
    site = NewSite(name, std::vector<CVSelectiveSyncRule>{CVSelectiveSyncRule{CVSelectiveSyncRule::syncNone, name}},
                   std::vector<CVSelectiveSyncItem>{});
    sites_.push_back(site);
  }
  Log("GetSiteRulesByName", "Create site rule: " + name);
  SaveConfigXML();
  return site;
}

std::vector<CVSelectiveSync::SitePtr> CVSelectiveSync::Sites() {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  return sites_;
}

bool CVSelectiveSync::RemoveSite(const std::string& name) {
  std::lock_guard<std::recursive_mutex> lock(*lock_);
  for (auto site = sites_.rbegin(); site != sites_.rend(); ++site) {
    if ((*site)->Name() == name) {
      sites_.erase(std::next(site).base());
      // The journal names sites by their place in the list, which has changed.
      SaveLocked();
      return true;
    }
  }
  return false;
}

std::string CVSelectiveSync::RelativePathForLocalPath(const std::string& localPath) {
  const std::string root = CVStaticHelpers::GenerateRootPath() + "/";
  if (localPath.size() <= root.size() || localPath.compare(0, root.size(), root) != 0) return "";
  std::string relative = localPath.substr(root.size());
  while (!relative.empty() && relative.back() == '/') relative.pop_back();
  return relative;
}

CVSyncRulesDictionary CVSelectiveSync::GetSyncRulesDictionary(const CVSelectiveSyncSite& site) {
  CVSyncRulesDictionary dictionary;
  for (auto& rule : site.SyncRules()) dictionary[rule.ItemUrl] = std::move(rule);
  return dictionary;
}

std::optional<CVSelectiveSyncRule> CVSelectiveSync::FindSyncRule(const CVSyncRulesDictionary& dictionary,
                                                                 const std::string& forPath) {
  return FindSyncRule(
      [&](const std::string& itemUrl) -> const CVSelectiveSyncRule* {
        auto found = dictionary.find(itemUrl);
        return found == dictionary.end() ? nullptr : &found->second;
      },
      forPath);
}

std::optional<CVSelectiveSyncRule> CVSelectiveSync::FindSyncRule(const RuleLookup& lookup, const std::string& forPath) {
  std::string level = forPath;
  while (true) {
    if (const CVSelectiveSyncRule* found = lookup(level)) return *found;
    // A name may come composed from the server and decomposed from the disk.
    if (!IsAscii(level)) {
      for (const std::string& other : {CVStaticHelpers::PrecomposedForm(level), CVStaticHelpers::DecomposedForm(level)}) {
        if (other == level) continue;
        if (const CVSelectiveSyncRule* found = lookup(other)) return *found;
      }
    }
    std::size_t slash = level.rfind('/');
    if (slash == std::string::npos) return std::nullopt;
    level.resize(slash);
  }
}

void CVSelectiveSync::InitSelectiveSync() {
  std::vector<std::string> names;
  {
    auto& configuration = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(configuration.fSpSitesLock);
    for (const auto& storage : configuration.fSpSites) {
      if (storage) names.push_back(storage->Name);
    }
  }
  CVSelectiveSync& store = Instance();
  for (const auto& name : names) store.GetSiteRulesByName(name, true);
  store.SaveConfigXML();
}

CVSelectiveSync::SitePtr CVSelectiveSync::GetSelectiveSyncSiteForLocalPath(const std::string& localPath) {
  try {
    std::string name = CVStaticHelpers::GetSiteNameForLocalPath(localPath);
    if (name.empty()) return nullptr;
    return Instance().GetSiteRulesByName(Lower(name));
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "GetSelectiveSyncSiteForLocalPath", exception.what());
    return nullptr;
  }
}
