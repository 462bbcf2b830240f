#include "CVIPRestriction.h"

#include <algorithm>
#include <exception>
#include <optional>

#include "CVEventLogger.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"

namespace {

const char kClassName[] = "CVIPRestriction";
const char kNoTime[] = "0001-01-01 00:00:00";

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// record is the folder itself or lies below it, with either separator: a
// restriction on "\\srv\Docs\ab" says nothing about "\\srv\Docs\a".
bool Covers(const std::string& folder, const std::string& record) {
  if (folder.empty() || record.size() < folder.size() || record.compare(0, folder.size(), folder) != 0) {
    return false;
  }
  return record.size() == folder.size() || IsSeparator(folder.back()) || IsSeparator(record[folder.size()]);
}

// The reader's state: the record in hand and the records read whole.
struct Reader {
  std::vector<CVIPRestrictionNode> records;
  std::optional<CVIPRestrictionNode> ipRestriction;

  void Start(const std::string& name) {
    if (name == "IPRestricted") ipRestriction.emplace();
  }

  void End(const std::string& name, const std::string& CurrentElementData) {
    if (!ipRestriction) return;
    if (name == "FolderUrl") ipRestriction->FolderUrl = CVStateXMLFile::TrimLayout(CurrentElementData);
    if (name == "LastSyncTime") ipRestriction->LastSyncTime = CVStateXMLFile::Trim(CurrentElementData);
    if (name == "IPRestricted") {
      records.push_back(std::move(*ipRestriction));
      ipRestriction.reset();
    }
  }
};

}  // namespace

CVIPRestriction& CVIPRestriction::Raw() {
  // Lives to the end of the process: threads may still reach it during exit.
  static CVIPRestriction* instance = new CVIPRestriction();
  return *instance;
}

CVIPRestriction& CVIPRestriction::Instance() {
  CVIPRestriction& store = Raw();
  store.EnsureRead();
  return store;
}

void CVIPRestriction::RemoveAll() {
  CVIPRestriction& store = Raw();
  std::lock_guard<std::mutex> reading(store.readLock_);
  std::lock_guard<std::mutex> lock(store.lock_);
  store.records_.clear();
  store.read_ = false;
}

void CVIPRestriction::EnsureRead() {
  if (read_) return;
  std::lock_guard<std::mutex> reading(readLock_);
  if (!read_) ReadConfigFromFile();
}

std::string CVIPRestriction::RestrictedFoldersXMLPath() {
  return CVStaticHelpers::GenerateSettingsPath() + "/RestrictedFolders.xml";
}

void CVIPRestriction::ReadConfigFromFile() {
  try {
    CVStaticHelpers::CreateSettingsFolder();
    const std::string path = RestrictedFoldersXMLPath();
    Reader reader;
    CVStateXMLFile::Events events;
    events.startElement = [&](const std::string& name) { reader.Start(name); };
    events.endElement = [&](const std::string& name, const std::string& data) { reader.End(name, data); };
    const auto read = CVStateXMLFile::ReadStore(path, events);
    switch (read.state) {
      case StateFileRead::Missing:
        CVEventLogger::WriteMainLogMessage("File RestrictionFolders.xml not found!");
        break;
      case StateFileRead::Unreadable:
        CVEventLogger::WriteMainLogMessage("Error: cannot read " + path +
                                           (read.keptCopy.empty() ? "" : ", moved to " + read.keptCopy));
        break;
      case StateFileRead::Broken:
        CVEventLogger::WriteMainLogMessage(
            "Error: (MyParser XML parser) Error " + std::to_string(read.error->code) +
            ", Description: " + read.error->description + ", Line: " + std::to_string(read.error->line) +
            ", Column: " + std::to_string(read.error->column));
        // The records read so far stay; the rest is kept in the copy.
        if (reader.ipRestriction && !reader.ipRestriction->FolderUrl.empty()) {
          reader.records.push_back(std::move(*reader.ipRestriction));
        }
        if (!read.keptCopy.empty()) {
          CVEventLogger::WriteMainLogMessage("RestrictedFolders.xml as it was is kept in " + read.keptCopy);
        }
        break;
      case StateFileRead::Whole:
        break;
    }
    std::vector<CVIPRestrictionNode> records = std::move(reader.records);
    {
      std::lock_guard<std::mutex> lock(lock_);
      records_ = std::move(records);
    }
    read_ = true;
    if (read.rewrite) SaveRestrictionXML();
  } catch (const std::exception& exception) {
    // Never a crash at start: the failure is logged and the store goes on as it is.
    CVEventLogger::LogException(kClassName, "ReadConfigFromFile", exception.what());
    read_ = true;
  }
}

std::string CVIPRestriction::DocumentText() {
  CVStateXMLFile::Writer writer;
  std::vector<std::string> skipped;
  {
    std::lock_guard<std::mutex> lock(lock_);
    writer.StartElement("ALLRestriction");
    for (const auto& record : records_) {
      if (!CVStateXMLFile::IsXMLText(record.FolderUrl) || !CVStateXMLFile::IsXMLText(record.LastSyncTime)) {
        skipped.push_back(record.FolderUrl);
        continue;
      }
      writer.StartElement("IPRestricted");
      writer.WriteElement("FolderUrl", record.FolderUrl);
      writer.WriteElement("LastSyncTime", record.LastSyncTime.empty() ? kNoTime : record.LastSyncTime);
      writer.EndElement();
    }
    writer.EndElement();
  }
  for (const auto& path : skipped) {
    CVEventLogger::WriteMainLogMessage(
        std::string(kClassName) + " - SaveRestrictionXML -> Not stored, the path is not UTF-8 text: " + path);
  }
  return writer.Finish().value_or("");
}

bool CVIPRestriction::SaveRestrictionXML() {
  try {
    std::lock_guard<std::mutex> saving(saveLock_);
    std::string document = DocumentText();
    if (document.empty()) {
      CVEventLogger::WriteMainLogMessage(std::string(kClassName) +
                                         " - SaveRestrictionXML -> The document could not be built");
      return false;
    }
    return CVStateXMLFile::Save(RestrictedFoldersXMLPath(), document);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "SaveRestrictionXML", exception.what());
    return false;
  }
}

void CVIPRestriction::AddNodeIfNoSuchWitServerPathFile(const std::string& path,
                                                       const std::string& WithLastDateSync) {
  {
    std::lock_guard<std::mutex> lock(lock_);
    for (const auto& record : records_) {
      if (record.FolderUrl == path) return;
    }
    records_.push_back(CVIPRestrictionNode{path, WithLastDateSync});
  }
  SaveRestrictionXML();
}

void CVIPRestriction::RemoveNodeWithURL(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(lock_);
    auto found = std::find_if(records_.begin(), records_.end(),
                              [&](const CVIPRestrictionNode& record) { return record.FolderUrl == path; });
    if (found == records_.end()) return;
    records_.erase(found);
  }
  SaveRestrictionXML();
}

bool CVIPRestriction::FileContainsItem(const std::string& localPath) {
  try {
    std::string serverPath = CVStaticHelpers::serverPathFromLocalPath(localPath);
    std::lock_guard<std::mutex> lock(lock_);
    for (const auto& record : records_) {
      if (Covers(serverPath, record.FolderUrl) || Covers(localPath, record.FolderUrl)) return true;
    }
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "FileContainsItem", exception.what());
    return false;
  }
}

std::vector<CVIPRestrictionNode> CVIPRestriction::arrayRestriction() {
  std::lock_guard<std::mutex> lock(lock_);
  return records_;
}
