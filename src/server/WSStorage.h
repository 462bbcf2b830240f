#pragma once
// WSStorage: one storage as the server describes it, in the policy or in the
// list of shared storages. A plain value; every string starts empty.

#include <cstdint>
#include <string>

struct WSStorage {
  std::string Type;
  std::string Name;
  std::string Path;  // the storage's location on the server
  std::string Username;
  std::string Password;
  std::string SharedStorageId;
  std::string StorageSpaceId;
  bool AlterAuth = false;
  std::int64_t SyncIntervalDesktop = 0;
  std::int64_t SyncIntervalMobile = 0;
};
