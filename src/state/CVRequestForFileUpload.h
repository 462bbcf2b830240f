#pragma once
// CVRequestForFileUpload: the account's policy of upload requests, kept in the
// "UR..." elements of Configuration.xml.

#include <cstdint>
#include <string>

struct CVRequestForFileUpload {
  bool ExpireRequired = false;
  bool OtpRequired = false;
  bool NumberOfUploadRequired = false;
  std::int64_t NumberOfUpload = 1;
  bool FileSizeRequired = false;
  std::int64_t FileSize = 1;
  std::string FileSizeMeasure;
  bool FileExtensionRequired = false;
  std::string FileExtensions;
  std::string UploadPath;
  std::string UploadPathType;
  std::int64_t DefaultURDuration = 0;  // read when present, never written here
};
