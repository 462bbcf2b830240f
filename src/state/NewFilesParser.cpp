#include "NewFilesParser.h"

#include <exception>
#include <utility>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace {

const char kClassName[] = "NewFilesParser";

// Turns the elements of the document into records. A record counts once its
// NewFile element has closed: one cut off by a broken file is left out. A NewFile
// written from a work item carries more children; only the record's own are read.
class NewFilesReader : public StateFileSupport::Handler {
 public:
  explicit NewFilesReader(std::vector<NFQ_File>& files) : files_(files) {}

  bool hadWrongValues() const { return wrongValues_; }

  void StartElement(std::string_view name) override {
    if (name != "NewFile") return;
    if (current_) files_.push_back(std::move(*current_));
    current_.emplace();
  }

  void EndElement(std::string_view name, std::string_view text) override {
    if (name == "NewFile") {
      if (current_) files_.push_back(std::move(*current_));
      current_.reset();
      return;
    }
    if (!current_) return;
    if (name == "fileAction") {
      Number(name, text, current_->fileAction);
    } else if (name == "isFolder") {
      current_->isFolder = StateFileSupport::IsYes(StateFileSupport::TrimValue(text));
    } else if (name == "oldFilePath") {
      current_->oldFilePath = StateFileSupport::TrimPath(text);
    } else if (name == "nFilePath") {
      current_->nFilePath = StateFileSupport::TrimPath(text);
    } else if (name == "attemptCount") {
      Number(name, text, current_->attemptCount);
    }
  }

 private:
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
    CVEventLogger::LogException(kClassName, "readNewFiles",
                                "element " + std::string(name) + " holds \"" + StateFileSupport::PrintableText(value) +
                                    "\", not a number; the field keeps its default");
  }

  std::vector<NFQ_File>& files_;
  std::optional<NFQ_File> current_;
  bool wrongValues_ = false;
};

}  // namespace

std::string NewFilesParser::NewFilesXMLPath() { return CVStaticHelpers::GenerateSettingsPath() + "/NewFiles.xml"; }

std::recursive_mutex& NewFilesParser::newFilesLock() {
  static std::recursive_mutex lock;
  return lock;
}

std::string NewFilesParser::NewFilesXMLText(const std::vector<NFQ_File>& array) {
  StateFileSupport::DocumentWriter writer("NewFiles");
  for (const auto& record : array) {
    if (!StateFileSupport::IsStorableText(record.nFilePath) || !StateFileSupport::IsStorableText(record.oldFilePath)) {
      // An XML file cannot hold such a name; writing it would break every later read.
      CVEventLogger::LogException(kClassName, "saveNewFilesXML",
                                  "a path that XML cannot hold is not queued: " +
                                      StateFileSupport::PrintableText(record.nFilePath));
      continue;
    }
    writer.StartRecord("NewFile");
    writer.Element("fileAction", std::to_string(record.fileAction));
    writer.Element("isFolder", StateFileSupport::YesNo(record.isFolder));
    writer.Element("oldFilePath", record.oldFilePath);
    writer.Element("nFilePath", record.nFilePath);
    writer.Element("attemptCount", std::to_string(record.attemptCount));
    writer.EndRecord();
  }
  return writer.Finish();
}

bool NewFilesParser::saveNewFilesXML(const std::vector<NFQ_File>& array) {
  try {
    std::string text = NewFilesXMLText(array);
    std::lock_guard<std::recursive_mutex> lock(newFilesLock());
    // Replaced in one step, never removed first: a crash leaves the old file or the new one.
    if (StateFileSupport::WriteStateFile(NewFilesXMLPath(), text)) return true;
    CVEventLogger::LogException(kClassName, "saveNewFilesXML", "NewFiles.xml could not be written; the old file stays");
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "saveNewFilesXML", exception.what());
    return false;
  }
}

std::optional<std::vector<NFQ_File>> NewFilesParser::readNewFiles() {
  lastRead_ = StateFileRead::Missing;
  try {
    CVStaticHelpers::CreateSettingsFolder();
    const std::string path = NewFilesXMLPath();
    std::string bytes;
    std::string error;
    StateFileRead state;
    {
      std::lock_guard<std::recursive_mutex> lock(newFilesLock());
      state = StateFileSupport::ReadBytes(path, bytes, error);
    }
    if (state == StateFileRead::Missing) return std::nullopt;
    if (state == StateFileRead::Unreadable) {
      lastRead_ = StateFileRead::Unreadable;
      CVEventLogger::LogException(kClassName, "readNewFiles", "cannot read " + path + ": " + error);
      return std::nullopt;
    }

    std::vector<NFQ_File> files;
    NewFilesReader reader(files);
    auto parseError = StateFileSupport::Parse(bytes, reader);
    lastRead_ = StateFileRead::Whole;
    if (parseError) {
      CVEventLogger::WriteExceptionsLog("Error: (NewFilesParser XML parser) Error " + std::to_string(parseError->code) +
                                        ", Description: " + parseError->description +
                                        ", Line: " + std::to_string(parseError->line) +
                                        ", Column: " + std::to_string(parseError->column));
    }
    if (parseError || reader.hadWrongValues()) {
      lastRead_ = StateFileRead::Broken;
      std::string copy = StateFileSupport::KeepBrokenCopy(path, bytes);
      CVEventLogger::LogException(kClassName, "readNewFiles",
                                  std::to_string(files.size()) + " records read; " +
                                      (copy.empty() ? "the file as it was could not be kept"
                                                    : "the file as it was is kept in " + copy));
    }
    return files;
  } catch (const std::exception& exception) {
    lastRead_ = StateFileRead::Unreadable;
    CVEventLogger::LogException(kClassName, "readNewFiles", exception.what());
    return std::nullopt;
  }
}
