#pragma once
// LoginController: signing in. It tests a server address, a user and a password
// in a session of its own, with the device's status and the server's policy, and
// only when all three passed does it change anything: the same account keeps its
// files and records; another account is confirmed by the user, then the old
// account's data goes (storage folders to the Trash) before the new one is saved.
// Three refused passwords for one address lock the sign-in for that address.
// A server whose certificate no authority of the system vouches for is shown to
// the user (its fingerprint) and trusted only on their answer, from then on by
// its key (AccountProbe); a plain http:// address is signed in with a notice.
// The login window and `corvalink-sync login` drive it; its operations block and
// run on a worker.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "AccountProbe.h"
#include "AccountSwitch.h"
#include "SettingsContext.h"

class LoginController {
 public:
  struct Form {
    std::string url;
    std::string user;
    std::string password;
    // A fingerprint the user gives beforehand (scripts): a certificate with it
    // passes without the question.
    std::string acceptedFingerprint;
  };

  enum class Outcome {
    SignedIn,
    EmptyField,
    WrongCredentials,  // the server refused user or password
    Locked,            // three refusals for this address
    Unreachable,       // no usable answer: says nothing about the password
    AccessRefused,     // the token was refused ("-3;Incorrect format Token")
    DeviceRefused,     // the device may not sync (status other than "1;A")
    Declined,          // the user kept the old account
    Untrusted,         // the server's certificate was refused or not accepted
    Failed,
  };

  using AccountChange = AccountSwitch::AccountChange;

  // One row of the storage step: a storage and how much of it is synced.
  struct StorageRow {
    std::string name;
    std::string type;
    std::string statusType;  // "(Sync all)", "(No sync)", "(Custom sync)"
    std::string iconStorage;  // "storage_sync_green", "storage_sync_grey", "storage_sync_yellow"
  };

  struct Result {
    Outcome outcome = Outcome::Failed;
    std::string message;  // for the error label or the terminal; "" on success
    std::vector<StorageRow> storages;
    std::vector<std::string> notices;  // shown whatever the outcome ("not encrypted")
  };

  using Confirm = std::function<bool(const AccountChange& change)>;
  // Asked, from this thread, about a certificate no authority vouches for.
  using TrustQuestion = std::function<bool(const CertificateQuestion& question)>;

  static constexpr const char* kConnecting = "Connecting to server...";
  static constexpr const char* kWarningTitle = "Warning";
  static constexpr const char* kWarningText =
      "All your existing user's cache documents and added storage site will be removed. Do you wish to proceed?";
  static constexpr const char* kEmptyField = "You have empty field. Please check.";
  static constexpr const char* kFirstFailure = "Unable to login. Invalid username or password.";
  static constexpr const char* kSecondFailure =
      "You have entered an invalid username or password. \nAny further attempt might cause your account to be locked.";
  static constexpr const char* kLockedText =
      "Unable to login. Sign-in is locked after three failed attempts; use another server address or restart "
      "Corvalink Sync to try again.";
  static constexpr const char* kAccessRefused = "Unable to access. \nInvalid Corvalink URL or credentials.";
  static constexpr const char* kUnreachable =
      "Unable to reach the server. Please check the server address and the network connection.";

  explicit LoginController(SettingsContext& context) : context_(context) {}

  // The sign-in of the login window's button. confirm is asked, from this
  // thread, when the account would change, and trust about the server's
  // certificate; both may block for the user's answer.
  Result LoginMethodRun(const Form& form, const Confirm& confirm, const TrustQuestion& trust = {});

  // Attempts left for the present address before the lock.
  int ColSteps() const;
  bool isLocked() const;

  // The rows of the storage step, one per storage in the list.
  static std::vector<StorageRow> StorageRows();
  // How much of one storage is synced, by its rules.
  static StorageRow RowForStorage(const std::string& name, const std::string& type);

 private:
  Result MessageNotCorrectCredentals();
  // The outcome of a probe, before anything changes.
  Result Judge(const AccountProbe& probe);

  SettingsContext& context_;
  mutable std::mutex stateLock_;
  std::string oldURL_;
  int ColSteps_ = 3;
  bool isLocked_ = false;
};
