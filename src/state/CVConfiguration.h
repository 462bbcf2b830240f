#pragma once
// CVConfiguration: the process-wide account and list of storages, read from and
// written to ".Settings/Configuration.xml". Every walk over fSpSites takes
// fSpSitesLock or works on a copy made under it.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CVConnection.h"
#include "CVSharepoint.h"
#include "Keyring.h"

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
  // knows whether it is the same account. A password kept in a keyring that
  // does not answer yet counts: the account is signed in.
  bool IsSignedIn();

  // Where the account's password lives besides memory: in the desktop's keyring
  // when one is installed and keeps it, then Configuration.xml holds an empty
  // Password; else in the enciphered file. The application installs the keyring
  // before the first read; a password still in the file moves to it then.
  void SetKeyring(std::unique_ptr<Keyring> keyring);
  // The account's password, wherever it lives: every reader of the password
  // comes here. A keyring that did not answer before is asked again. "" when
  // signed out or the keyring still does not answer.
  std::string AccountPassword();
  // The password is in a keyring that does not answer (locked, or not on this
  // session's bus).
  bool PasswordUnreachable() const { return passwordPending_; }
  // Signing out: the password goes from memory, the keyring and the file (at the save).
  void ForgetPassword();

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
  // After a read: the password from the keyring, or a password of the file into
  // it; true when the file must be written again without it.
  bool ResolvePassword();
  // At a save: the password and flag the file gets, the keyring kept in step.
  std::pair<std::string, bool> PlacePassword(const CVConnection& account);

  std::function<std::int64_t()> partSizeSource_;
  std::mutex saveLock_;
  // The keyring and what this process keeps in it; keyringLock_ is taken
  // before fSpSitesLock, never after.
  std::mutex keyringLock_;
  std::unique_ptr<Keyring> keyring_;
  std::optional<std::pair<std::string, std::string>> keyringItem_;  // server, user
  std::string keyringPassword_;
  std::atomic<bool> passwordPending_{false};
};
