// AdditionalStoragesInfo.xml, the enciphered GUID the key of Configuration.xml is
// made from: as any bytes on disk, and as any text enciphered the way the client
// writes it. Only a GUID may give a key; a file that holds none is kept as it is.

#include <cstdlib>
#include <filesystem>

#include "CVStaticHelpers.h"
#include "CVStorageDataProtection.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  fuzz::ClearSettings();
  const std::string path = CVStorageDataProtection::GuidFilePath();
  const std::string bytes = fuzz::Text(data + 1, size - 1);
  if (data[0] & 1) {
    // The identity as the client cuts it for this file.
    CVStorageDataProtection::EncryptStorageDataFile(bytes, path, CVStaticHelpers::GetUniqueDeviceID().substr(0, 16));
  } else {
    fuzz::WriteSettingsFile("AdditionalStoragesInfo.xml", bytes);
  }
  const std::string key = CVStorageDataProtection::GetDecryptKey();
  // A file without a GUID is never replaced by a new one.
  std::error_code error;
  if (key.empty() && !std::filesystem::exists(path, error)) std::abort();
  (void)CVStorageDataProtection::DecryptStorageDataFile(path, "fuzz");
  return 0;
}
