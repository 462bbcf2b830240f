#pragma once
// SyncManagerSettings: the account and storage commands of the sync manager's
// settings and storages tabs: saving the account (address, user, password and
// the interval), and taking the storages of the server's policy into the list
// (retrieve), where a storage the server renamed keeps its files under its new
// name and a new storage never takes the name of one that exists.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "AccountSwitch.h"
#include "CVSharepoint.h"
#include "SettingsContext.h"

class SyncManagerSettings {
 public:
  struct Form {
    std::string url;
    std::string user;
    std::string password;
    std::int64_t interval = 5;  // minutes
  };

  struct Result {
    bool ok = false;
    std::string message;  // shown to the user; on success too where the window says so
  };

  // What a retrieval does to the storage list.
  struct MergePlan {
    std::vector<std::pair<std::string, std::string>> renames;  // (name now, name of the server)
    std::vector<CVSharepoint> added;                            // with their final names
  };

  using Confirm = std::function<bool(const AccountSwitch::AccountChange& change)>;

  static constexpr const char* kEmptyField = "You have empty field. Please check.";
  static constexpr const char* kEmptyAccount = "You have empty field. Please check settings.";
  static constexpr const char* kAccessFailed = "Unable to access. \nInvalid Corvalink URL or credentials.";
  static constexpr const char* kOffline =
      "Application is offline. Please check internet connection, storage url or user credentials";
  static constexpr const char* kRetrieved = "Settings were successfully retrieved from server";
  static constexpr const char* kWarningText =
      "All your existing user's cache documents and added storage will be removed. Do you wish to proceed?";
  static constexpr const char* kRetrieveTitle = "Retrieve storage settings";
  static constexpr const char* kRetrieveText = "Current Storage settings will be overwriten.\nDo you want to continue?";

  explicit SyncManagerSettings(SettingsContext& context) : context_(context) {}

  // Saves the account after the new values passed the server; another account is
  // confirmed first. A failure changes nothing.
  Result SaveSettingsNew(const Form& form, const Confirm& confirm);
  // Takes the policy's storages into the list: renames and additions.
  Result RetrieveSettings();

  // The merge of the server's storages into the list, decided without side effects.
  static MergePlan PlanStorageMerge(const std::vector<CVSharepoint>& local, const std::vector<CVSharepoint>& fromServer);

 private:
  SettingsContext& context_;
};
