#include "ServerXMLParser.h"

#include <exception>
#include <mutex>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "DownloadedXMLStaticMethods.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "ServerXMLParser";

StateFileSupport::RecordFile DownloadedFile() {
  StateFileSupport::RecordFile file;
  file.path = CVStaticHelpers::GenerateDownloadedXMLPath();
  file.lock = &DownloadedXMLStaticMethods::downloadedFilesLock();
  file.className = kClassName;
  file.method = "readDownloadedFiles";
  file.recordElement = "DownloadedFile";
  file.logParseError = [](const std::string& error) {
    CVEventLogger::LogException(kClassName, "readDownloadedFiles", "(Server XML parser) " + error);
  };
  return file;
}

// wasProcessed is the comparison's own mark and never comes from the file;
// other elements are not ours.
bool ReadField(const StateFileSupport::RecordFile& file, CVFileForCompare& record, std::string_view name,
               std::string_view text) {
  if (name == "localPath") {
    record.localPath = StateFileSupport::TrimPath(text);
    record.site = ServerXMLParser::SiteForLocalPath(record.localPath);
  } else if (name == "modifiedTime") {
    return StateFileSupport::ReadNumber(file, name, text, record.modifiedTime);
  } else if (name == "statusChangeTime") {
    return StateFileSupport::ReadNumber(file, name, text, record.statusChangeTime);
  } else if (name == "size") {
    return StateFileSupport::ReadNumber(file, name, text, record.size);
  } else if (name == "fileStatus") {
    return StateFileSupport::ReadNumber(file, name, text, record.fileStatus);
  } else if (name == "fileNameUnicodeForm") {
    return StateFileSupport::ReadNumber(file, name, text, record.fileNameUnicodeForm);
  } else if (name == "brokenDownload") {
    record.brokeDownload = StateFileSupport::IsYes(text);
  } else if (name == "isFolder") {
    record.isFolder = StateFileSupport::IsYes(text);
  } else if (name == "deleted") {
    record.deleted = StateFileSupport::IsYes(text);
  } else if (name == "renamed") {
    record.renamed = StateFileSupport::IsYes(text);
  } else if (name == "site") {
    record.site = StateFileSupport::TrimPath(text);
  } else if (name == "storagePath") {
    record.storagePath = StateFileSupport::TrimPath(text);
  }
  return true;
}

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
  return DownloadedFilesStore::Instance().Records(lastRead_);
}

std::optional<std::vector<CVFileForCompare>> ServerXMLParser::ReadFile(StateFileRead& state) {
  const StateFileSupport::RecordFile file = DownloadedFile();
  auto records = StateFileSupport::ReadRecords<CVFileForCompare>(
      file,
      [&](CVFileForCompare& record, std::string_view name, std::string_view text) {
        return ReadField(file, record, name, text);
      },
      state);
  if (state == StateFileRead::Broken) DownloadedXMLStaticMethods::NoteBrokenRead();
  return records;
}

void ServerXMLParser::WriteDownloadedXML(CVStateXMLFile::Writer& writer, const RecordSource& next) {
  writer.StartElement("DownloadedFiles", CVStateXMLFile::Writer::kSchemaNamespaces);
  while (const CVFileForCompare* record = next()) {
    if (record->deleted) continue;
    if (!CVStateXMLFile::IsXMLText(record->localPath)) {
      // An XML file cannot hold such a name; writing it would break every later read.
      CVEventLogger::LogException(kClassName, "saveDownloadedXML",
                                  "a path that XML cannot hold is not recorded: " +
                                      CVStateXMLFile::PrintableText(record->localPath));
      continue;
    }
    writer.StartElement("DownloadedFile");
    writer.WriteElement("localPath", record->localPath);
    writer.WriteElement("modifiedTime", std::to_string(record->modifiedTime));
    writer.WriteElement("statusChangeTime", std::to_string(record->statusChangeTime));
    writer.WriteElement("size", std::to_string(record->size));
    writer.WriteElement("brokenDownload", StateFileSupport::YesNo(record->brokeDownload));
    writer.WriteElement("isFolder", StateFileSupport::YesNo(record->isFolder));
    writer.WriteElement("fileStatus", std::to_string(record->fileStatus));
    writer.EndElement();
  }
}

bool ServerXMLParser::WriteFile(const RecordSource& next) {
  try {
    std::lock_guard<std::recursive_mutex> lock(DownloadedXMLStaticMethods::downloadedFilesLock());
    // Replaced in one step, never removed first: a crash leaves the old file or the new one.
    if (CVStateXMLFile::SaveStreamed(CVStaticHelpers::GenerateDownloadedXMLPath(),
                                     [&](CVStateXMLFile::Writer& writer) { WriteDownloadedXML(writer, next); })) {
      return true;
    }
    CVEventLogger::LogException(kClassName, "saveDownloadedXML",
                                "DownloadedFiles.xml could not be written; the old file stays");
    return false;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "saveDownloadedXML", exception.what());
    return false;
  }
}

bool ServerXMLParser::saveDownloadedXML(const std::vector<CVFileForCompare>& array) {
  return DownloadedFilesStore::Instance().ReplaceAll(array);
}
