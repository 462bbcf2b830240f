// SelectiveSync.xml, the rules of what is synced, read and asked as the sync asks.

#include "CVSelectiveSync.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ClearSettings();
  fuzz::WriteSettingsFile("SelectiveSync.xml", fuzz::Text(data, size));
  CVSelectiveSync::ResetForTests();
  CVSelectiveSync& store = CVSelectiveSync::Instance();
  if (auto site = store.GetSiteRulesByName("Docs")) {
    auto dictionary = CVSelectiveSync::GetSyncRulesDictionary(*site);
    (void)CVSelectiveSync::FindSyncRule(dictionary, "Docs/Reports/q3.txt");
  }
  return 0;
}
