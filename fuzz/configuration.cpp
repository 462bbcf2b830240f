// Configuration.xml as the client finds it at start: in clear (then enciphered
// and read back) or enciphered; a file of any bytes must leave a usable account.

#include "CVConfiguration.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ClearSettings();
  fuzz::WriteSettingsFile("Configuration.xml", fuzz::Text(data, size));
  CVConfiguration::ResetForTests();
  CVConfiguration& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  (void)config.IsSignedIn();
  (void)config.SaveConfigXML();
  return 0;
}
