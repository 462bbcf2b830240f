// DownloadedFiles.xml, the record of the last sync, as the client reads it.

#include "FuzzSupport.h"
#include "ServerXMLParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ClearSettings();
  fuzz::WriteSettingsFile("DownloadedFiles.xml", fuzz::Text(data, size));
  ServerXMLParser parser;
  if (auto records = parser.readDownloadedFiles()) {
    for (const auto& record : *records) (void)ServerXMLParser::SiteForLocalPath(record.localPath);
  }
  return 0;
}
