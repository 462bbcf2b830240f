#pragma once
// CVSharepoint: one storage of the account, with its local folder named after it.

#include <chrono>
#include <cstdint>
#include <string>

struct CVSharepoint {
  bool UseAlterAuth = false;
  std::string Url;
  std::string UserName;
  std::string Password;
  std::string Name;
  std::int64_t SyncDelay = 5;
  std::string StorageType = "CIFS";
  bool isInFavorites = true;
  bool isManually = false;

  // Not stored. The start of the storage's last sync on the steady clock; the
  // earliest time point means "never", so the storage is due at once.
  std::chrono::steady_clock::time_point prevFireDate = std::chrono::steady_clock::time_point::min();
  std::string SharedStorageId;
};
