#pragma once
// CVConfiguration: the process-wide account and list of storages, read from and
// written to ".Settings/Configuration.xml". Every walk over fSpSites takes
// fSpSitesLock or works on a copy made under it.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CVConnection.h"
#include "CVSharepoint.h"

class CVConfiguration {
 public:
  using SitePtr = std::shared_ptr<CVSharepoint>;

  static CVConfiguration& Instance();
  // Tests start from a fresh object.
  static void ResetForTests();

  // Prepares the folders and fills the object from the file.
  void ReadConfigFromFile();
  // After a read of a file that could not be deciphered or parsed: where its
  // bytes are kept ("" when they could not be); nothing when it read well.
  std::optional<std::string> UnreadableFileCopy() const { return unreadableCopy_; }
  // Writes the file and the side files; returns the document's text.
  std::string SaveConfigXML();

  // True when the account has a server, a user and a password: the sync may run.
  // A signed-out account keeps its server and user, so that the next sign-in
  // knows whether it is the same account.
  bool IsSignedIn();

  SitePtr GetSiteByName(const std::string& name);
  bool isNameExists(const std::string& name);
  void CreateAddStoragesInfo();
  void CheckHashFolderForActualInformation();
  // A copy of the storage list, made under the lock.
  std::vector<SitePtr> SitesCopy();

  // The server's part size, installed by the application so that this layer
  // never calls the server itself. Without one the part size is 0.
  void SetPartSizeSource(std::function<std::int64_t()> source);

  // The account; fields that threads share (LastSync, SyncCV) are read and
  // written under fSpSitesLock.
  CVConnection Corvalink;
  // Corvalink.LastSync under fSpSitesLock.
  std::int64_t LastSync();
  void SetLastSync(std::int64_t seconds);
  std::vector<SitePtr> fSpSites;
  std::vector<SitePtr> fSpSitestUploadRequest;
  bool fIsInAutomaticStartup = false;
  std::string StoragesFolderPath;
  std::recursive_mutex fSpSitesLock;

 private:
  CVConfiguration() = default;
  // False when the text is no whole document; what was read before stays.
  bool ParseDocument(const std::string& text);
  std::optional<std::string> unreadableCopy_;
  std::function<std::int64_t()> partSizeSource_;
  std::mutex saveLock_;
};
