#pragma once
// CVConnection: the one account of the client, with the server's policy switches.

#include <cstdint>
#include <string>

#include "CVRequestForFileUpload.h"

struct CVConnection {
  std::string Url;
  std::string UserName;
  std::string Password;  // in memory; on disk it may live in the keyring (CVConfiguration)
  // The file's Password is empty because the desktop's keyring holds it.
  // Element "PasswordInKeyring", written only when true.
  bool PasswordInKeyring = false;
  bool IsFirstRun = true;
  std::int64_t SyncCV = 5;  // minutes between two syncs of a storage
  std::int64_t StorageType = 0;
  bool EditableWS = true;
  bool EditableStorages = false;
  bool ExternalSharing = true;
  bool InternalSharing = true;
  bool EmailDocument = false;
  bool iOSOpenIn = false;
  bool OTPRequiredShare = false;  // element "OTPRequired"
  bool EnableSMS = false;
  bool NotificationTray = true;
  std::int64_t LastSync = 0;  // seconds since 1970
  std::int64_t PartSize = 1024;
  bool ExpireRequired = false;
  bool IsUsingAD = false;  // element "isUsingAD"
  CVRequestForFileUpload RequestFileUpload;
  // The public key accepted for a server that no authority of the system vouches
  // for ("sha256//..."); "" when the authorities do. Element "ServerKeyPin".
  std::string ServerKeyPin;

  // Set from the policy after each login; never stored.
  bool UploadRequests = false;
  bool ViewOnlySupported = false;
  std::string ViewOnlyTypes;
  std::int64_t DefaultShareDuration = 0;
  std::int64_t MaxDuration = 0;
};
