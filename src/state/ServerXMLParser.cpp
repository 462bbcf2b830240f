#include "ServerXMLParser.h"

#include <exception>
#include <mutex>
#include <utility>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedXMLStaticMethods.h"

namespace {

const char kClassName[] = "ServerXMLParser";

// Turns the elements of the document into records. A record counts once its
// DownloadedFile element has closed: one cut off by a broken file is left out,
// since its missing fields would pass for a state that never was.
class DownloadedFilesReader : public StateFileSupport::Handler {
 public:
  explicit DownloadedFilesReader(std::vector<CVFileForCompare>& files) : files_(files) {}

  bool hadWrongValues() const { return wrongValues_; }

  void StartElement(std::string_view name) override {
    if (name != "DownloadedFile") return;
    if (current_) files_.push_back(std::move(*current_));  // a record left open by a hand edit
    current_.emplace();
  }

  void EndElement(std::string_view name, std::string_view text) override {
    if (name == "DownloadedFile") {
      if (current_) files_.push_back(std::move(*current_));
      current_.reset();
      return;
    }
    if (!current_) return;
    try {
      Apply(*current_, name, text);
    } catch (const std::exception& exception) {
      wrongValues_ = true;
      CVEventLogger::LogException(kClassName, "readDownloadedFiles", exception.what());
    }
  }

 private:
  void Apply(CVFileForCompare& record, std::string_view name, std::string_view text) {
    if (name == "localPath") {
      record.localPath = StateFileSupport::TrimPath(text);
      record.site = ServerXMLParser::SiteForLocalPath(record.localPath);
    } else if (name == "modifiedTime") {
      Number(name, text, record.modifiedTime);
    } else if (name == "statusChangeTime") {
      Number(name, text, record.statusChangeTime);
    } else if (name == "size") {
      Number(name, text, record.size);
    } else if (name == "fileStatus") {
      Number(name, text, record.fileStatus);
    } else if (name == "fileNameUnicodeForm") {
      Number(name, text, record.fileNameUnicodeForm);
    } else if (name == "brokenDownload") {
      record.brokeDownload = StateFileSupport::IsYes(StateFileSupport::TrimValue(text));
    } else if (name == "isFolder") {
      record.isFolder = StateFileSupport::IsYes(StateFileSupport::TrimValue(text));
    } else if (name == "deleted") {
      record.deleted = StateFileSupport::IsYes(StateFileSupport::TrimValue(text));
    } else if (name == "renamed") {
      record.renamed = StateFileSupport::IsYes(StateFileSupport::TrimValue(text));
    } else if (name == "site") {
      record.site = StateFileSupport::TrimPath(text);
    } else if (name == "storagePath") {
      record.storagePath = StateFileSupport::TrimPath(text);
    }
    // wasProcessed is the comparison's own mark and never comes from the file;
    // other elements are not ours.
  }

  template <typename Integer>
  void Number(std::string_view name, std::string_view text, Integer& field) {
    std::string value = StateFileSupport::TrimValue(text);
    if (value.empty()) return;
    bool good;
    if constexpr (sizeof(Integer) == 8) {
      good = StateFileSupport::ToInt64(value, field);
    } else {
      good = StateFileSupport::ToInt32(value, field);
    }
    if (good) return;
    wrongValues_ = true;
    CVEventLogger::LogException(kClassName, "readDownloadedFiles",
                                "element " + std::string(name) + " holds \"" + StateFileSupport::PrintableText(value) +
                                    "\", not a number; the field keeps its default");
  }

  std::vector<CVFileForCompare>& files_;
  std::optional<CVFileForCompare> current_;
  bool wrongValues_ = false;
};

}  // namespace

std::string ServerXMLParser::SiteForLocalPath(const std::string& localPath) {
  const std::string root = CVStaticHelpers::GenerateRootPath();
  if (localPath.size() <= root.size() + 1 || localPath.compare(0, root.size(), root) != 0 ||
      localPath[root.size()] != '/') {
    return "";
  }
  std::size_t start = root.size() + 1;
  return localPath.substr(start, localPath.find('/', start) - start);
}

std::optional<std::vector<CVFileForCompare>> ServerXMLParser::readDownloadedFiles() {
  lastRead_ = StateFileRead::Missing;
  try {
    CVStaticHelpers::CreateSettingsFolder();
    const std::string path = CVStaticHelpers::GenerateDownloadedXMLPath();
    std::string bytes;
    std::string error;
    StateFileRead state;
    {
      std::lock_guard<std::recursive_mutex> lock(DownloadedXMLStaticMethods::downloadedFilesLock());
      state = StateFileSupport::ReadBytes(path, bytes, error);
    }
    if (state == StateFileRead::Missing) return std::nullopt;
    if (state == StateFileRead::Unreadable) {
      lastRead_ = StateFileRead::Unreadable;
      CVEventLogger::LogException(kClassName, "readDownloadedFiles", "cannot read " + path + ": " + error);
      return std::nullopt;
    }

    std::vector<CVFileForCompare> files;
    DownloadedFilesReader reader(files);
    auto parseError = StateFileSupport::Parse(bytes, reader);
    lastRead_ = StateFileRead::Whole;
    if (parseError) {
      CVEventLogger::LogException(
          kClassName, "readDownloadedFiles",
          "(Server XML parser) Error " + std::to_string(parseError->code) + ", Description: " +
              parseError->description + ", Line: " + std::to_string(parseError->line) +
              ", Column: " + std::to_string(parseError->column));
    }
    if (parseError || reader.hadWrongValues()) {
      lastRead_ = StateFileRead::Broken;
      std::string copy = StateFileSupport::KeepBrokenCopy(path, bytes);
      CVEventLogger::LogException(kClassName, "readDownloadedFiles",
                                  std::to_string(files.size()) + " records read; " +
                                      (copy.empty() ? "the file as it was could not be kept"
                                                    : "the file as it was is kept in " + copy));
    }
    return files;
  } catch (const std::exception& exception) {
    // Nothing is known of the file now: no caller may save over it.
    lastRead_ = StateFileRead::Unreadable;
    CVEventLogger::LogException(kClassName, "readDownloadedFiles", exception.what());
    return std::nullopt;
  }
}

std::string ServerXMLParser::DownloadedXMLText(const std::vector<CVFileForCompare>& array) {
  StateFileSupport::DocumentWriter writer("DownloadedFiles");
  for (const auto& record : array) {
    if (record.deleted) continue;
    if (!StateFileSupport::IsStorableText(record.localPath)) {
      // An XML file cannot hold such a name; writing it would break every later read.
      CVEventLogger::LogException(kClassName, "saveDownloadedXML",
                                  "a path that XML cannot hold is not recorded: " +
                                      StateFileSupport::PrintableText(record.localPath));
      continue;
    }
    writer.StartRecord("DownloadedFile");
    writer.Element("localPath", record.localPath);
    writer.Element("modifiedTime", std::to_string(record.modifiedTime));
    writer.Element("statusChangeTime", std::to_string(record.statusChangeTime));
    writer.Element("size", std::to_string(record.size));
    writer.Element("brokenDownload", StateFileSupport::YesNo(record.brokeDownload));
    writer.Element("isFolder", StateFileSupport::YesNo(record.isFolder));
    writer.Element("fileStatus", std::to_string(record.fileStatus));
    writer.EndRecord();
  }
  return writer.Finish();
}

bool ServerXMLParser::saveDownloadedXML(const std::vector<CVFileForCompare>& array) {
  try {
    std::string text = DownloadedXMLText(array);
    std::lock_guard<std::recursive_mutex> lock(DownloadedXMLStaticMethods::downloadedFilesLock());
    // Replaced in one step, never removed first: a crash leaves the old file or the new one.
    if (StateFileSupport::WriteStateFile(CVStaticHelpers::GenerateDownloadedXMLPath(), text)) return true;
    CVEventLogger::LogException(kClassName, "saveDownloadedXML",
                                "DownloadedFiles.xml could not be written; the old file stays");
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "saveDownloadedXML", exception.what());
    return false;
  }
}
