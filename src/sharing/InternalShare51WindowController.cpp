#include "InternalShare51WindowController.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <exception>
#include <regex>
#include <sstream>

#include "CVEventLogger.h"

namespace {

constexpr std::int64_t kDay = 86'400;

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The extension of a path's last component, lowered; "" when it has none.
std::string ExtensionOf(const std::string& path) {
  std::string name = path.substr(path.rfind('/') + 1);
  auto dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? "" : Lower(name.substr(dot + 1));
}

bool IsFolder(const std::string& path, bool& exists) {
  struct stat info {};
  exists = ::stat(path.c_str(), &info) == 0;
  return exists && S_ISDIR(info.st_mode);
}

}  // namespace

InternalShare51WindowController::InternalShare51WindowController(SharingService& service, Post toMain,
                                                                 CVConnection policy,
                                                                 std::function<Clock::time_point()> now)
    : service_(service), policy_(std::move(policy)), now_(std::move(now)), worker_(std::move(toMain)) {}

InternalShare51WindowController::~InternalShare51WindowController() = default;

void InternalShare51WindowController::setArrayFiles(std::vector<std::string> files) { arrayFiles = std::move(files); }

bool InternalShare51WindowController::setWindowType(WindowType type) {
  windowType = type;
  if (type == kInternalShare && !policy_.InternalSharing) {
    Tell(kInternalOff);
    return false;
  }
  if (type == kExternalShare && !policy_.ExternalSharing) {
    Tell(kExternalOff);
    return false;
  }
  static const char* const kTitles[] = {"Share to internal", "Share to external", "Request for file upload"};
  title = kTitles[type];
  shareButtonTitle = type == kUploadRequest ? "Request" : "Share";
  if (type == kUploadRequest) {
    DefaultSettingsUploadRequest();
  } else {
    DefaultSettingsShare();
  }
  Changed();
  return true;
}

void InternalShare51WindowController::setTarget(std::function<void()> closeWindowEvent) {
  closeWindowEvent_ = std::move(closeWindowEvent);
}

std::string InternalShare51WindowController::FileLabel(const std::vector<std::string>& files) {
  if (files.empty()) return "File not found!";
  const std::string& first = files.front();
  return first.substr(first.rfind('/') + 1);
}

std::vector<std::string> InternalShare51WindowController::ViewOnlyTypes() const {
  std::vector<std::string> types;
  std::stringstream pieces(Lower(policy_.ViewOnlyTypes));
  for (std::string piece; std::getline(pieces, piece, ';');) {
    if (!piece.empty()) types.push_back(piece);
  }
  return types;
}

void InternalShare51WindowController::DefaultSettingsShare() {
  const bool otp = policy_.OTPRequiredShare;
  otpRequired = CheckBox{otp, !otp, false};
  mobileFieldEnabled = otp;
  if (policy_.EnableSMS) {
    otpRequired = CheckBox{false, false, true};
    mobileFieldEnabled = false;
  }
  expiresCheckBox = CheckBox{true, !policy_.ExpireRequired, false};
  datePickerEnabled = true;
  // View-only needs an item it can apply to: a folder, or a file of a listed type.
  bool qualifies = false;
  if (policy_.ViewOnlySupported) {
    const auto types = ViewOnlyTypes();
    for (const auto& path : arrayFiles) {
      bool exists = false;
      bool folder = IsFolder(path, exists);
      if (exists && (folder || std::find(types.begin(), types.end(), ExtensionOf(path)) != types.end())) {
        qualifies = true;
      }
    }
  }
  viewOnly = CheckBox{false, qualifies, false};
  SetExpiryRange(policy_.DefaultShareDuration, policy_.MaxDuration);
}

void InternalShare51WindowController::DefaultSettingsUploadRequest() {
  const CVRequestForFileUpload& request = policy_.RequestFileUpload;
  viewOnly = CheckBox{false, false, true};
  otpRequired = CheckBox{request.OtpRequired, !request.OtpRequired, false};
  mobileFieldEnabled = request.OtpRequired;
  if (policy_.EnableSMS) {
    otpRequired = CheckBox{false, false, true};
    mobileFieldEnabled = false;
  }
  expiresCheckBox = CheckBox{true, !request.ExpireRequired, false};
  datePickerEnabled = true;
  cbNumAttemp = CheckBox{request.NumberOfUploadRequired, !request.NumberOfUploadRequired, false};
  numAttempEnabled = request.NumberOfUploadRequired;
  cbFileSize = CheckBox{request.FileSizeRequired, !request.FileSizeRequired, false};
  fileLimitEnabled = request.FileSizeRequired;
  cbFileRestriction = CheckBox{request.FileExtensionRequired, !request.FileExtensionRequired, false};
  fileRestrictionEnabled = request.FileExtensionRequired;
  typeSize = request.FileSizeMeasure == "GB" ? 1 : 0;
  if (!request.FileExtensions.empty()) fileRestrictionText = request.FileExtensions;
  numAttempText = std::to_string(request.NumberOfUpload);
  fileLimitText = std::to_string(request.FileSize);
  SetExpiryRange(request.DefaultURDuration, 0);
}

InternalShare51WindowController::ExpiryRange InternalShare51WindowController::ExpiryDates(
    Clock::time_point now, std::optional<Clock::time_point> base, std::int64_t defaultDays, std::int64_t maxDays) {
  // Today at 23:59 on the user's clock is the earliest expiry.
  std::time_t seconds = Clock::to_time_t(now);
  std::tm day{};
  localtime_r(&seconds, &day);
  day.tm_hour = 23;
  day.tm_min = 59;
  day.tm_sec = 0;
  day.tm_isdst = -1;
  ExpiryRange range;
  range.min = range.start = Clock::from_time_t(std::mktime(&day));
  const Clock::time_point from = base.value_or(range.min);
  if (defaultDays >= 1) range.start = std::max(range.min, from + std::chrono::seconds(defaultDays * kDay));
  if (maxDays >= 1) range.max = std::max(range.min, from + std::chrono::seconds(maxDays * kDay));
  return range;
}

void InternalShare51WindowController::SetExpiryRange(std::int64_t defaultDays, std::int64_t maxDays) {
  const ExpiryRange range = ExpiryDates(now_(), std::nullopt, defaultDays, maxDays);
  minDate = range.min;
  dateForExpires = range.start;
  maxDate = range.max;
}

void InternalShare51WindowController::setDateForExpires(Clock::time_point date) {
  dateForExpires = std::max(date, minDate);
  if (maxDate) dateForExpires = std::min(dateForExpires, *maxDate);
  Changed();
}

long InternalShare51WindowController::getIntervalTimeForPickerInMinutes(bool flag) const {
  if (!expiresCheckBox.state) return kNoExpiry;
  long seconds = static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(dateForExpires - now_()).count());
  return flag ? seconds / 60 - 1 : std::max(seconds / 3600, 1L);
}

bool InternalShare51WindowController::isEmailAddressValid(const std::string& address) {
  static const std::regex pattern("[A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,6}");
  return !address.empty() && std::regex_match(address, pattern);
}

bool InternalShare51WindowController::isMobileValid(const std::string& mobile) {
  static const std::regex pattern("^\\d{8,16}$", std::regex::icase);
  return std::regex_match(mobile, pattern);
}

bool InternalShare51WindowController::isValidNumber(const std::string& text, long digits) {
  return std::regex_match(text, std::regex("^\\d{1," + std::to_string(digits) + "}$"));
}

std::string InternalShare51WindowController::DigitsOnly(const std::string& text, std::size_t n) {
  std::string digits;
  for (std::size_t i = 0; i < text.size() && i < n; ++i) {
    if (text[i] >= '0' && text[i] <= '9') digits += text[i];
  }
  return digits;
}

std::string InternalShare51WindowController::humanReadableListFromArray(const std::vector<std::string>& items) {
  std::string text;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) text += items.size() == 2 ? " and " : (i + 1 == items.size() ? ", and " : ", ");
    text += items[i];
  }
  return text;
}

void InternalShare51WindowController::controlTextDidChange(NumericField field, const std::string& text) {
  // The sizes take as many digits as the share's check accepts: 5 in MB, 4 in GB.
  if (field == NumericField::FileLimit) {
    fileLimitText = DigitsOnly(text, typeSize == 1 ? 4 : 5);
  } else {
    numAttempText = DigitsOnly(text, 4);
  }
  Changed();
}

void InternalShare51WindowController::PopUpButtonClick(int sizeType) {
  typeSize = sizeType == 1 ? 1 : 0;
  if (typeSize == 1 && fileLimitText.size() > 4) fileLimitText = fileLimitText.substr(0, 4);
  Changed();
}

void InternalShare51WindowController::expirationCheckBoxAction(bool on) {
  expiresCheckBox.state = on;
  datePickerEnabled = on;
  Changed();
}

void InternalShare51WindowController::otpCheckBoxClick(bool on) {
  otpRequired.state = on;
  mobileFieldEnabled = on;
  Changed();
}

void InternalShare51WindowController::cbNumAttempClick(bool on) {
  cbNumAttemp.state = numAttempEnabled = on;
  Changed();
}

void InternalShare51WindowController::cbSizeLimitClick(bool on) {
  cbFileSize.state = fileLimitEnabled = on;
  Changed();
}

void InternalShare51WindowController::cbFileRestrictionClick(bool on) {
  cbFileRestriction.state = fileRestrictionEnabled = on;
  Changed();
}

void InternalShare51WindowController::viewOnlyCheckBoxClick(bool on) {
  viewOnly.state = on;
  Changed();
  if (!on) return;
  const auto types = ViewOnlyTypes();
  bool warn = false;
  for (const auto& path : arrayFiles) {
    bool exists = false;
    if (IsFolder(path, exists)) warn = true;
    if (exists && arrayFiles.size() > 1 && std::find(types.begin(), types.end(), ExtensionOf(path)) == types.end()) {
      warn = true;
    }
  }
  if (warn) Tell("View-only permission will be applied to " + humanReadableListFromArray(types) + " files.");
}

void InternalShare51WindowController::searchUsers(const std::string& text) {
  searchTextField = text;
  pageNumber = 0;
  if (text.empty()) {
    ++searchGeneration_;  // an answer still on its way counts no more
    arraySearch.clear();
    moreButtonHidden = true;
    Changed();
    return;
  }
  RunSearch();
}

void InternalShare51WindowController::moreButtonClick() {
  ++pageNumber;
  RunSearch();
}

void InternalShare51WindowController::RunSearch() {
  const unsigned generation = ++searchGeneration_;
  const std::string text = searchTextField;
  const int page = pageNumber;
  worker_.Run([this, generation, text, page]() -> std::function<void()> {
    std::string token = service_.CheckConnectionAndGetWSToken();
    if (token.empty()) return {};
    auto rows = service_.GetUsersToShare(text, token).GetRecipientItemCollection();
    return [this, generation, page, rows = std::move(rows)] {
      if (generation != searchGeneration_) return;  // a newer search is on its way
      if (page == 0) arraySearch.clear();
      arraySearch.insert(arraySearch.end(), rows.begin(), rows.end());
      if (rows.size() >= static_cast<std::size_t>(page == 0 ? 5 : page)) {
        moreButtonHidden = false;
      } else {
        moreButtonHidden = true;
        pageNumber = 0;
      }
      Changed();
    };
  });
}

void InternalShare51WindowController::addRecipients(std::size_t searchRow) {
  if (windowType != kInternalShare) {
    AddExternalRecipient();
    return;
  }
  if (searchRow >= arraySearch.size()) return;
  const RecipientItem& chosen = arraySearch[searchRow];
  for (const auto& entry : arrayRecipients) {
    if (entry.fullname == chosen.fullname) return;  // there already: nothing to say
  }
  arrayRecipients.push_back(chosen);
  Changed();
}

const char* InternalShare51WindowController::ExternalRecipientProblem(const std::string& name,
                                                                     const std::string& email,
                                                                     const std::string& mobile, bool checkMobile,
                                                                     const std::vector<std::string>& names) {
  if (email.empty()) return "e-mail address is required";
  if (!isEmailAddressValid(email)) return "Enter a valid email.";
  if (checkMobile && !isMobileValid(mobile)) return "Enter a valid mobile number.";
  if (name.empty()) return "Please enter all recipient details.";
  if (std::find(names.begin(), names.end(), name) != names.end()) {
    return "You have added one recipient with the same name, please change the name of the current recipient.";
  }
  return nullptr;
}

void InternalShare51WindowController::AddExternalRecipient() {
  std::vector<std::string> names;
  for (const auto& entry : arrayRecipients) names.push_back(entry.fullname);
  if (const char* refusal = ExternalRecipientProblem(nameField, emailField, mobileField, otpRequired.state, names)) {
    Tell(refusal);
    return;
  }
  RecipientName recipient;
  recipient.recName = nameField;
  recipient.recEmail = emailField;
  recipient.recMobile = mobileField;
  recipient.IsExternal = true;
  arrayRecipients.push_back(RecipientName::GetItemForRecipient(std::move(recipient)));
  nameField.clear();
  emailField.clear();
  mobileField.clear();
  Changed();
}

void InternalShare51WindowController::deleteRecipient(std::size_t row) {
  if (row >= arrayRecipients.size()) return;
  arrayRecipients.erase(arrayRecipients.begin() + static_cast<std::ptrdiff_t>(row));
  Changed();
}

void InternalShare51WindowController::Share() {
  if (arrayRecipients.empty()) {
    Tell(kNoRecipient);
    return;
  }
  if (windowType != kUploadRequest) {
    ShareToRecipients();
    return;
  }
  const long sizeDigits = typeSize == 1 ? 4 : 5;
  if (titleText.empty()) {
    Tell("Enter title.");
  } else if (cbFileRestriction.state && fileRestrictionText.empty()) {
    Tell("Please enter a valid file extension.");
  } else if (cbFileSize.state &&
             (fileLimitText.empty() || fileLimitText == "0" || !isValidNumber(fileLimitText, sizeDigits))) {
    Tell("The file that you have selected have exceed the file size limits");
  } else if (cbNumAttemp.state &&
             (numAttempText.empty() || numAttempText == "0" || !isValidNumber(numAttempText, 4))) {
    Tell("Please enter correct upload number.");
  } else {
    FileUpload();
  }
}

void InternalShare51WindowController::ShareToRecipients() {
  const bool external = windowType == kExternalShare;
  if (!BeginCall(external)) return;
  std::vector<RecipientName> recipients;
  for (const auto& entry : arrayRecipients) recipients.push_back(*entry.selfRec);
  const long validity = getIntervalTimeForPickerInMinutes(true);
  worker_.Run([this, external, recipients, validity, files = arrayFiles, subject = subjectField,
               message = messageField, notify = allNotificationCheckBox.state, view = viewOnly.state,
               otp = otpRequired.state]() -> std::function<void()> {
    const char* name = external ? "ShareToExternal" : "ShareToInternal";
    try {
      std::string token = service_.CheckConnectionAndGetWSToken();
      if (token.empty()) return Ended(kShareProblem, true, false);
      std::string result =
          external ? service_.ShareFilesExternalViewOnly(files, recipients, validity, subject, message, token, otp,
                                                         notify, view)
                   : service_.ShareFilesInternalViewOnly(files, recipients, validity, subject, message, token,
                                                         notify, view);
      CVEventLogger::WriteMainLogMessage(std::string(external ? "Share to external" : "Share to internal") +
                                         " finished with result: " + result);
      const char* text = result != "0" ? kShareProblem : recipients.size() == 1 ? kSharedOne : kSharedMany;
      return Ended(text, false, true);
    } catch (const std::exception& failure) {
      CVEventLogger::WriteMainLogMessage(std::string(name) + ": " + failure.what());
      return Ended(kShareProblem, true, false);
    }
  });
}

void InternalShare51WindowController::FileUpload() {
  if (!BeginCall(true)) return;
  SharingService::UploadRequest request;
  request.recipients = arrayRecipients;
  request.session = titleText;
  request.validity = getIntervalTimeForPickerInMinutes(true);
  std::int64_t size = fileLimitText.empty() ? 1024 : std::stoll(fileLimitText) * 1024;
  size *= typeSize == 1 ? 1'048'576 : 1024;
  request.sizeLimit = cbFileSize.state ? size : 0;
  request.extensions = fileRestrictionText;
  request.numberOfUploads = cbNumAttemp.state && !numAttempText.empty() ? std::stol(numAttempText) : -1;
  request.subject = subjectField;
  request.otp = otpRequired.state ? "true" : "false";
  request.message = messageField;
  request.notifyAll = allNotificationCheckBox.state ? "true" : "false";
  worker_.Run([this, request]() mutable -> std::function<void()> {
    std::string text;
    try {
      request.token = service_.CheckConnectionAndGetWSToken();
      if (request.token.empty()) {
        text = kShareProblem;
      } else {
        std::string result = service_.CreateUploadRequestWithRecipient(request);
        auto semicolon = result.find(';');
        if (result.empty()) {
          text = request.recipients.size() == 1 ? "Upload request created successfully."
                                                : "The upload request successfully.";
        } else if (result == "-1;" || semicolon == std::string::npos || semicolon + 1 >= result.size()) {
          text = kRequestProblem;
        } else {
          text = result.substr(semicolon + 1, result.find(';', semicolon + 1) - semicolon - 1);
        }
      }
    } catch (const std::exception& failure) {
      CVEventLogger::WriteMainLogMessage(std::string("FileUpload: ") + failure.what());
      text = kRequestProblem;
    }
    return Ended(text, true, true);
  });
}

bool InternalShare51WindowController::BeginCall(bool checkMobiles) {
  // A one-time password by text message needs every recipient's number.
  if (checkMobiles && otpRequired.state && policy_.EnableSMS &&
      std::any_of(arrayRecipients.begin(), arrayRecipients.end(),
                  [](const RecipientItem& entry) { return entry.mobile.empty(); })) {
    Tell(kEmptyMobiles);
    return false;
  }
  SwitchUI(false);
  inProgress = true;
  Changed();
  return true;
}

std::function<void()> InternalShare51WindowController::Ended(std::string text, bool controlsOn, bool close) {
  return [this, text = std::move(text), controlsOn, close] {
    Tell(text);
    inProgress = false;
    if (controlsOn) SwitchUI(true);
    if (close) Close();
  };
}

void InternalShare51WindowController::SwitchUI(bool on) { controlsEnabled = on; }

void InternalShare51WindowController::Tell(const std::string& text) {
  if (onMessage) onMessage(text);
}

void InternalShare51WindowController::Changed() {
  if (onChange) onChange();
}

void InternalShare51WindowController::Close() {
  if (closeWindowEvent_) closeWindowEvent_();
}
