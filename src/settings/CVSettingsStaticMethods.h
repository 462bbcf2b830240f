#pragma once
// CVSettingsStaticMethods: what removing a storage, or every trace of an account,
// does to the disk and the state files. A storage lives in four places that move
// together: the storage list, its folder, its rules in SelectiveSync.xml and its
// paths in DownloadedFiles.xml and NewFiles.xml. The user's files go to the Trash,
// never away. Callers hold the sync still (SyncControl::Apply) and change the
// storage list themselves.

#include <string>

class CVSettingsStaticMethods {
 public:
  // The storage's folder to the Trash, its records, queued changes and rules
  // dropped. A folder that cannot be trashed still loses its records, so that
  // what stays is a plain folder.
  static void DeleteSiteData(const std::string& name);
  // DeleteSiteData for each storage of the list, then an empty rule store.
  static void DeleteAllSitesData();
  // Everything the signed-in account left: each storage as above, the record of
  // the last sync, the queue, the rules, the restricted folders, the caches of
  // shared files and the sidebar entries. The storage list itself is the caller's.
  static void WipeAccountData();
  // The sidebar entry of a storage ("Corvalink_<name>").
  static void RemoveFavourite(const std::string& name);
};
