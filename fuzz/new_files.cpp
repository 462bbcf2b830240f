// NewFiles.xml, the queue of local changes that survives a restart.

#include "FuzzSupport.h"
#include "NewFilesParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ClearSettings();
  fuzz::WriteSettingsFile("NewFiles.xml", fuzz::Text(data, size));
  NewFilesParser parser;
  (void)parser.readNewFiles();
  return 0;
}
