#pragma once
// CVSelectiveSyncItem: one path the sync knows in a storage, so that the known is
// told from the new and what stands under a folder can be listed. Path is absolute.

#include <string>

struct CVSelectiveSyncItem {
  std::string Path;
  bool IsFolder = false;
  bool WasDeleted = false;  // read and written back; every writer of the sync sets false
};
