#pragma once
// InternalShare51WindowController: the workflow of the share window, without any
// widget: a share inside the organisation (type 0), outside it (type 1), or a
// request for files (type 2). It keeps what the window shows (fields, check
// boxes, the recipient and search lists), applies the policy's defaults and
// locks, checks the input, and makes the calls on workers. Lives on the main
// thread: every operation is called there, and workers hand their results back
// through the main-thread hop it is given. The window redraws on onChange and
// shows onMessage's texts.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CVConnection.h"
#include "RecipientName.h"
#include "SharingService.h"
#include "WindowWorker.h"

class InternalShare51WindowController {
 public:
  using Clock = std::chrono::system_clock;
  using Post = std::function<void(std::function<void()>)>;

  enum WindowType { kInternalShare = 0, kExternalShare = 1, kUploadRequest = 2 };

  struct CheckBox {
    bool state = false;
    bool enabled = true;
    bool hidden = false;
  };

  // The numeric fields by the identifier the window gives them.
  enum class NumericField { NumAttemp, FileLimit };

  static constexpr const char* kNoRecipient = "Please add at least one recipient.";
  static constexpr const char* kShareProblem = "Application encountered a problem during sharing, please try again later.";
  static constexpr const char* kSharedOne = "Item was shared successfully.";
  static constexpr const char* kSharedMany = "The documents were shared successfully.";
  static constexpr const char* kEmptyMobiles = "Some mobile numbers are empty. Please check.";
  static constexpr const char* kRequestProblem =
      "Application encountered a problem during upload request, please try again later.";
  static constexpr const char* kInternalOff = "Sharing inside the organisation is turned off by the administrator.";
  static constexpr const char* kExternalOff = "Sharing outside the organisation is turned off by the administrator.";
  static constexpr long kNoExpiry = CorvalinkWS::kNoExpiry;

  // service: the calls; toMain: runs a callback on the main thread; policy: the
  // account's switches as the last sign-in left them; now: the wall clock.
  InternalShare51WindowController(SharingService& service, Post toMain, CVConnection policy,
                                  std::function<Clock::time_point()> now = Clock::now);
  ~InternalShare51WindowController();

  // The opener's set-up, in this order. setWindowType gives false, with the
  // reason told, when the policy closes this kind of share.
  void setArrayFiles(std::vector<std::string> files);
  bool setWindowType(WindowType type);
  void setTarget(std::function<void()> closeWindowEvent);

  std::function<void()> onChange;
  std::function<void(const std::string& text)> onMessage;

  // The actions of the window.
  void searchUsers(const std::string& text);  // as the user types: the latest answer wins
  void moreButtonClick();
  void addRecipients(std::size_t searchRow);  // type 0: a search row; types 1 and 2: the fields
  void deleteRecipient(std::size_t row);
  void viewOnlyCheckBoxClick(bool on);
  void otpCheckBoxClick(bool on);
  void expirationCheckBoxAction(bool on);
  void cbNumAttempClick(bool on);
  void cbSizeLimitClick(bool on);
  void cbFileRestrictionClick(bool on);
  void PopUpButtonClick(int sizeType);  // 0 "MB", 1 "GB"
  void controlTextDidChange(NumericField field, const std::string& text);
  // Clamped to the picker's range.
  void setDateForExpires(Clock::time_point date);
  void Share();

  // The expiry picker's range: at the earliest today at 23:59; it starts
  // defaultDays after base (or that earliest date) and ends maxDays after it,
  // neither before the earliest. Days under 1 set nothing.
  struct ExpiryRange {
    Clock::time_point min, start;
    std::optional<Clock::time_point> max;
  };
  static ExpiryRange ExpiryDates(Clock::time_point now, std::optional<Clock::time_point> base,
                                 std::int64_t defaultDays, std::int64_t maxDays);

  // Whole minutes (flag) or hours (at least 1) to dateForExpires; kNoExpiry when
  // the expiry box is off.
  long getIntervalTimeForPickerInMinutes(bool flag) const;

  // The rules of the fields.
  static bool isEmailAddressValid(const std::string& address);
  static bool isMobileValid(const std::string& mobile);
  static bool isValidNumber(const std::string& text, long digits);
  // Why an outside recipient cannot be added, in the order the window checks,
  // or nullptr; names: those of the recipients already there.
  static const char* ExternalRecipientProblem(const std::string& name, const std::string& email,
                                              const std::string& mobile, bool checkMobile,
                                              const std::vector<std::string>& names);
  // The digits among the first n characters.
  static std::string DigitsOnly(const std::string& text, std::size_t n);
  // "a", "a and b", "a, b, and c".
  static std::string humanReadableListFromArray(const std::vector<std::string>& items);
  static std::string FileLabel(const std::vector<std::string>& files);

  // What the window shows. Read them on the main thread.
  WindowType windowType = kInternalShare;
  std::string title, shareButtonTitle;
  std::vector<std::string> arrayFiles;
  std::vector<RecipientItem> arrayRecipients, arraySearch;
  int pageNumber = 0;
  Clock::time_point dateForExpires, minDate;
  std::optional<Clock::time_point> maxDate;
  std::string subjectField, messageField, nameField, emailField, mobileField, searchTextField;
  std::string titleText, numAttempText, fileLimitText, fileRestrictionText;
  int typeSize = 0;
  CheckBox otpRequired, viewOnly, allNotificationCheckBox, expiresCheckBox, cbNumAttemp, cbFileSize,
      cbFileRestriction;
  bool mobileFieldEnabled = false, datePickerEnabled = true, numAttempEnabled = false, fileLimitEnabled = false,
       fileRestrictionEnabled = false;
  bool moreButtonHidden = true;
  bool controlsEnabled = true;  // off while a share runs (SwitchUI)
  bool inProgress = false;      // the progress indicator

 private:
  void DefaultSettingsShare();
  void DefaultSettingsUploadRequest();
  void SetExpiryRange(std::int64_t defaultDays, std::int64_t maxDays);
  void RunSearch();
  void AddExternalRecipient();
  void ShareToRecipients();
  // The check of the mobile numbers, then the controls off; false when refused.
  bool BeginCall(bool checkMobiles);
  // What the main thread does when a call has ended: the message, the controls, the window.
  std::function<void()> Ended(std::string text, bool controlsOn, bool close);
  void FileUpload();
  void SwitchUI(bool on);
  void Tell(const std::string& text);
  void Changed();
  void Close();
  std::vector<std::string> ViewOnlyTypes() const;

  SharingService& service_;
  CVConnection policy_;
  std::function<Clock::time_point()> now_;
  std::function<void()> closeWindowEvent_;
  unsigned searchGeneration_ = 0;  // the search whose answer counts
  WindowWorker worker_;  // last: joined before the rest goes away
};
