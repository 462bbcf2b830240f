#include "RecordFiles.h"

#include "ServerXMLParser.h"

std::optional<CVFileForCompare> RecordOf(const std::string& localPath) {
  ServerXMLParser parser;
  auto records = parser.readDownloadedFiles();
  if (!records) return std::nullopt;
  for (const auto& record : *records) {
    if (record.localPath == localPath) return record;
  }
  return std::nullopt;
}
