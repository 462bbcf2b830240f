#include "NewFilesParser.h"

#include <exception>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "NewFilesStore.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "NewFilesParser";

StateFileSupport::RecordFile NewFile() {
  StateFileSupport::RecordFile file;
  file.path = NewFilesParser::NewFilesXMLPath();
  file.lock = &NewFilesParser::newFilesLock();
  file.className = kClassName;
  file.method = "readNewFiles";
  file.recordElement = "NewFile";
  file.logParseError = [](const std::string& error) {
    CVEventLogger::WriteExceptionsLog("Error: (NewFilesParser XML parser) " + error);
  };
  return file;
}

// A NewFile written from a work item carries more children; only the record's own are read.
bool ReadField(const StateFileSupport::RecordFile& file, NFQ_File& record, std::string_view name,
               std::string_view text) {
  if (name == "fileAction") {
    return StateFileSupport::ReadNumber(file, name, text, record.fileAction);
  } else if (name == "isFolder") {
    record.isFolder = StateFileSupport::IsYes(text);
  } else if (name == "oldFilePath") {
    record.oldFilePath = StateFileSupport::TrimPath(text);
  } else if (name == "nFilePath") {
    record.nFilePath = StateFileSupport::TrimPath(text);
  } else if (name == "attemptCount") {
    return StateFileSupport::ReadNumber(file, name, text, record.attemptCount);
  }
  return true;
}

}  // namespace

std::string NewFilesParser::NewFilesXMLPath() { return CVStaticHelpers::GenerateSettingsPath() + "/NewFiles.xml"; }

std::recursive_mutex& NewFilesParser::newFilesLock() {
  static std::recursive_mutex lock;
  return lock;
}

void NewFilesParser::WriteNewFilesXML(CVStateXMLFile::Writer& writer, const RecordSource& next) {
  writer.StartElement("NewFiles", CVStateXMLFile::Writer::kSchemaNamespaces);
  while (const NFQ_File* found = next()) {
    const NFQ_File& record = *found;
    if (!CVStateXMLFile::IsXMLText(record.nFilePath) || !CVStateXMLFile::IsXMLText(record.oldFilePath)) {
      // An XML file cannot hold such a name; writing it would break every later read.
      CVEventLogger::LogException(kClassName, "saveNewFilesXML",
                                  "a path that XML cannot hold is not queued: " +
                                      CVStateXMLFile::PrintableText(record.nFilePath));
      continue;
    }
    writer.StartElement("NewFile");
    writer.WriteElement("fileAction", std::to_string(record.fileAction));
    writer.WriteElement("isFolder", StateFileSupport::YesNo(record.isFolder));
    writer.WriteElement("oldFilePath", record.oldFilePath);
    writer.WriteElement("nFilePath", record.nFilePath);
    writer.WriteElement("attemptCount", std::to_string(record.attemptCount));
    writer.EndElement();
  }
}

bool NewFilesParser::saveNewFilesXML(const std::vector<NFQ_File>& array) {
  return NewFilesStore::Instance().ReplaceAll(array);
}

bool NewFilesParser::WriteFile(const RecordSource& next) {
  try {
    std::lock_guard<std::recursive_mutex> lock(newFilesLock());
    // Replaced in one step, never removed first: a crash leaves the old file or the new one.
    if (CVStateXMLFile::SaveStreamed(NewFilesXMLPath(),
                                     [&](CVStateXMLFile::Writer& writer) { WriteNewFilesXML(writer, next); })) {
      return true;
    }
    CVEventLogger::LogException(kClassName, "saveNewFilesXML", "NewFiles.xml could not be written; the old file stays");
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "saveNewFilesXML", exception.what());
    return false;
  }
}

std::optional<std::vector<NFQ_File>> NewFilesParser::readNewFiles() {
  return NewFilesStore::Instance().Records(lastRead_);
}

std::optional<std::vector<NFQ_File>> NewFilesParser::ReadFile(StateFileRead& state) {
  const StateFileSupport::RecordFile file = NewFile();
  return StateFileSupport::ReadRecords<NFQ_File>(
      file, [&](NFQ_File& record, std::string_view name, std::string_view text) {
        return ReadField(file, record, name, text);
      },
      state);
}
