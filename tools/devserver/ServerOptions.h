#pragma once
// ServerOptions: everything corvalink-devserver is started with, from the
// command line (CommandLine.h) or built by a test in-process.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Faults.h"

namespace devserver {

struct UserAccount {
  std::string name;
  std::string password;
};

struct StorageConfig {
  std::string name;
  std::filesystem::path folder;    // what is in it is what the server holds
  std::string type = "CIFS";       // "CIFS", or any other type ("SP", "S3"...) for a URL location
  std::vector<std::string> users;  // empty: every user has this storage
  std::optional<UserAccount> credentials;  // the storage's own login, else the account's
};

struct FaultSetting {
  std::string name;  // "GetFiles", "share.asmx/Login", "DownloadStorageFile.ashx"
  Fault fault;
  int count = 1;  // < 0: every call
};

struct RestrictedPath {
  std::string storage;
  std::string path;  // relative to the storage's folder, "/" separated
};

struct UploadRequestConfig {
  std::string guid;
  std::string user;
};

// What GetDefaultSettings2 answers one user: the document in file, read at
// each call so that a test can change it while the server runs.
struct PolicySetting {
  std::string user;
  std::filesystem::path file;
};

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 8080;           // 0: any free port
  bool allowRemote = false;  // listening on anything but loopback must be asked for
  // Both set: the server speaks TLS with this certificate chain and key (PEM).
  std::filesystem::path tlsCertificate;
  std::filesystem::path tlsKey;

  std::vector<UserAccount> users;
  std::vector<StorageConfig> storages;
  std::vector<UploadRequestConfig> uploadRequests;

  std::string versionReply = "6.1.0.0";
  std::string compressedTypes = "txt,doc,docx,xls,xlsx,ppt,pptx,pdf,xml,html,csv";
  std::int64_t partSizeKb = 1024;

  // Versions, pending upload parts and temporary files; each storage gets a
  // folder NAME in it. Empty: a sibling "<folder>.devserver-state" of each
  // storage's folder.
  std::filesystem::path stateDir;
  // The host part of the storage locations (\\HOST\NAME\, https://HOST/NAME/).
  std::string locationHost = "devserver";

  // Users without a policy file get one made from their storages.
  std::vector<PolicySetting> policies;
  // GetDeviceStatus per user ("1;A" for everyone else): "1;B" blocked, "1;W" to be wiped...
  std::map<std::string, std::string> deviceStatus;
  // After this many failed logins in a row a user's logins are refused, the
  // right password too, until the server restarts; 0: never.
  int lockAfterFailures = 0;

  // Every storage keeps names as a Linux folder does (case-sensitive, any
  // name), whatever its type; otherwise "CIFS", "SP" and "O365" storages keep
  // them as a Windows share does.
  bool linuxNames = false;

  std::vector<RestrictedPath> restricted;
  std::vector<FaultSetting> faults;

  // One line per request; none when empty.
  std::function<void(const std::string&)> log;
};

}  // namespace devserver
