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

CVSelectiveSync::CVSelectiveSync() : lock_(std::make_shared<std::recursive_mutex>()) {}

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
}

void CVSelectiveSync::ResetForTests() {
  CVSelectiveSync& store = Raw();
  std::lock_guard<std::mutex> reading(store.readLock_);
  std::lock_guard<std::recursive_mutex> lock(*store.lock_);
  store.sites_.clear();
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
      sites.push_back(std::make_shared<CVSelectiveSyncSite>(std::move(parts.name), std::move(parts.rules),
                                                            std::move(parts.items), lock_));
    }
    {
      std::lock_guard<std::recursive_mutex> lock(*lock_);
      sites_ = std::move(sites);
    }
    read_ = true;
    if (read.rewrite) SaveConfigXML();
  } catch (const std::exception& exception) {
    // Never a crash at start: the failure is logged and the store goes on as it is.
    CVEventLogger::LogException(kClassName, "ReadConfigFromFile", exception.what());
    read_ = true;
  }
}

std::string CVSelectiveSync::GetInXML() {
  CVStateXMLFile::Writer writer;
  {
    std::lock_guard<std::recursive_mutex> lock(*lock_);
    writer.StartElement("SelectiveSync");
    writer.StartElement("Sites");
    for (const auto& site : sites_) site->getInXML(writer);
    writer.EndElement();
    writer.EndElement();
  }
  return writer.Finish().value_or("");
}

bool CVSelectiveSync::SaveConfigXML() {
  try {
    // Serialised, so that the last snapshot taken is the last one written.
    std::lock_guard<std::mutex> saving(saveLock_);
    std::string document = GetInXML();
    if (document.empty()) {
      Log("SaveConfigXML", "The document could not be built; SelectiveSync.xml stays as it was");
      return false;
    }
    return CVStateXMLFile::Save(SelectiveSyncXMLPath(), document);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "SaveConfigXML", exception.what());
    return false;
  }
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
    site = std::make_shared<CVSelectiveSyncSite>(
        name, std::vector<CVSelectiveSyncRule>{CVSelectiveSyncRule{CVSelectiveSyncRule::syncNone, name}},
        std::vector<CVSelectiveSyncItem>{}, lock_);
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
  std::string level = forPath;
  while (true) {
    if (auto found = dictionary.find(level); found != dictionary.end()) return found->second;
    // A name may come composed from the server and decomposed from the disk.
    if (!IsAscii(level)) {
      for (const std::string& other : {CVStaticHelpers::PrecomposedForm(level), CVStaticHelpers::DecomposedForm(level)}) {
        if (other == level) continue;
        if (auto found = dictionary.find(other); found != dictionary.end()) return found->second;
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
