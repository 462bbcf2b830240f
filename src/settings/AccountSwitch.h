#pragma once
// AccountSwitch: the one way the saved account changes, for the sign-in and the
// settings tab alike. It is used only after the new address, user and password
// have passed the login, the device status and the policy (AccountProbe): the
// same account keeps its files and records; another account is wiped first
// (storage folders to the Trash, records, queue, rules), with the sync held still.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

class SyncControl;

class AccountSwitch {
 public:
  // What a change of account removes, for the user to confirm.
  struct AccountChange {
    std::string oldUser, oldUrl;
    std::string newUser, newUrl;
    std::vector<std::string> storages;
    std::size_t pendingChanges = 0;
    // The lines under the question: the storages that go to the Trash and the
    // local changes that were never sent.
    std::string Details() const;
  };

  struct Plan {
    std::string url;  // without a final "/"
    std::string user;
    std::string password;
    std::string policy;  // the policy document the probe brought
    std::string serverKeyPin;  // the key the probe trusted; "" when the authorities vouch
    bool firstRun = false;
    bool wipe = false;  // another account than the saved one
    std::optional<std::int64_t> interval;  // minutes; the settings tab sets it
  };

  // Compares the entered account with the saved one.
  static Plan Prepare(const std::string& url, const std::string& user, const std::string& password);
  // The key accepted with the saved account, when url is its server's address.
  static std::string AcceptedPinFor(const std::string& url);
  // The question for a plan that wipes.
  static AccountChange Question(const Plan& plan, SyncControl& control);
  // Saves the account and its policy (wiping first where the plan says so) and
  // starts the sync if it waited for the sign-in.
  static void Apply(SyncControl& control, const Plan& plan);
};
