// RestrictedFolders.xml, the folders an IP restriction closed.

#include "CVIPRestriction.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ClearSettings();
  fuzz::WriteSettingsFile("RestrictedFolders.xml", fuzz::Text(data, size));
  CVIPRestriction::RemoveAll();
  CVIPRestriction& store = CVIPRestriction::Instance();
  (void)store.FileContainsItem(fuzz::Root() + "/Docs/Reports");
  (void)store.arrayRestriction();
  return 0;
}
