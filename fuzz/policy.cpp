// The policy document of GetDefaultSettings2: parsed as text and as bytes in any
// encoding, and taken for a retrieval of the storages (which changes no list).

#include "CVConfiguration.h"
#include "FuzzSupport.h"
#include "Policy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string document = fuzz::Text(data, size);
  (void)Policy::IsNoPolicy(document);
  (void)Policy::DoParsing(document);
  (void)Policy::DoDataParsing(document);
  CVConfiguration::ResetForTests();
  (void)Policy::ParseCorvalinkConfigNewForRetrieveStoragesWithXML(document);
  Policy::ParseCorvalinkConfigNewBase(document);
  return 0;
}
