#pragma once
// UniversalSharingWindowController: the first-generation share window, without
// any widget. It shares inside (type 0) or outside (type 1) with the first
// calls, validity chosen from a fixed list of hours, recipients added through
// two sheets: users found by FindUsers inside, name, e-mail and mobile outside.
// Lives on the main thread like InternalShare51WindowController; its calls run
// on workers. No command opens it today; it serves servers that only know the
// first calls.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "CVConnection.h"
#include "RecipientName.h"
#include "SharingService.h"
#include "WindowWorker.h"

class UniversalSharingWindowController {
 public:
  enum WindowType { kInternalShare = 0, kExternalShare = 1 };

  // comboBoxValidity's items and their hours; the last is "No expire".
  struct ValidityItem {
    const char* label;
    long hours;
  };
  static constexpr ValidityItem kValidity[] = {{"3 hours", 3},  {"1 day", 24},     {"3 days", 72},
                                               {"1 week", 168}, {"30 days", 720}, {"No expire", 876000}};
  static constexpr const char* kNoUsers = "No users with specified names were found.";
  static constexpr const char* kUnavailable = "Service is currently unavailable. Please try again later.";

  // What a FindUsers reply holds (SetResultStr): the users, or the message to show.
  struct Found {
    std::vector<RecipientName> users;
    std::string message;
  };
  static Found SetResultStr(const std::string& reply);

  UniversalSharingWindowController(SharingService& service, WindowWorker::Post toMain, CVConnection policy);

  // The opener's set-up; setWindowType gives false, with the reason told, when
  // the policy closes this kind of share.
  void setArrayFiles(std::vector<std::string> files);
  bool setWindowType(WindowType type);
  void setTarget(std::function<void()> closeWindowEvent);

  std::function<void()> onChange;
  std::function<void(const std::string& text)> onMessage;

  // The internal sheet (AddRecipientsInternalController): search, then add a row.
  void FindUsers(const std::string& query);
  void AddFoundUser(std::size_t row);
  // The external sheet (AddRecipientExternalWindowController): false when refused.
  bool AddExternalRecipient(const std::string& name, const std::string& email, const std::string& mobile);
  void deleteRecipient(std::size_t row);
  void Share();

  // The hours of the chosen validity.
  long Validity() const;

  // What the window shows; read on the main thread.
  WindowType windowType = kInternalShare;
  std::string title;
  std::vector<std::string> arrayFiles;
  std::vector<std::string> comboBoxValidity;  // the labels offered
  std::size_t selectedValidity = 1;
  std::vector<RecipientName> recipients;
  std::vector<RecipientName> foundUsers;
  std::string subject, message;
  bool controlsEnabled = true;
  bool inProgress = false;

 private:
  void Tell(const std::string& text);
  void Changed();

  SharingService& service_;
  CVConnection policy_;
  std::function<void()> closeWindowEvent_;
  unsigned searchGeneration_ = 0;
  WindowWorker worker_;  // last: joined before the rest goes away
};
