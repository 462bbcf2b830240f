// The share window's rules without a server: field checks, the policy's defaults
// and locks, expiry arithmetic, recipients and the checks of an upload request.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "InternalShare51WindowController.h"
#include "MainQueue.h"
#include "UniversalSharingWindowController.h"
#include "TempHome.h"

namespace {

using Controller = InternalShare51WindowController;
using std::chrono::hours;
using std::chrono::seconds;

// Answers every call with a set result; counts the upload requests it gets.
class FakeService : public SharingService {
 public:
  std::string token = "tok", result = "0";
  int requests = 0;
  SharingService::UploadRequest last;
  std::string CheckConnectionAndGetWSToken() override { return token; }
  WSUserDataArray GetUsersToShare(const std::string&, const std::string&) override { return WSUserDataArray(""); }
  std::string ShareFilesInternalViewOnly(const std::vector<std::string>&, const std::vector<RecipientName>&, long,
                                         const std::string&, const std::string&, const std::string&, bool,
                                         bool) override {
    return result;
  }
  std::string ShareFilesExternalViewOnly(const std::vector<std::string>&, const std::vector<RecipientName>&, long,
                                         const std::string&, const std::string&, const std::string&, bool, bool,
                                         bool) override {
    return result;
  }
  std::string ShareFilesInternal(const std::vector<std::string>&, const std::vector<RecipientName>&, long,
                                 const std::string&, const std::string&, const std::string&) override {
    return result;
  }
  std::string ShareFilesExternal(const std::vector<std::string>&, const std::vector<RecipientName>&, long,
                                 const std::string&, const std::string&, const std::string&) override {
    return result;
  }
  std::string FindUsers(const std::string&, const std::string&) override { return result; }
  std::string CreateUploadRequestWithRecipient(const UploadRequest& request) override {
    ++requests;
    last = request;
    return result;
  }
};

struct Fixture {
  TempHome home;
  FakeService service;
  MainQueue main;
  Controller::Clock::time_point now = Controller::Clock::now();
  std::vector<std::string> messages;
  bool closed = false;

  std::unique_ptr<Controller> Open(Controller::WindowType type, CVConnection policy = {},
                                   std::vector<std::string> files = {}) {
    auto c = std::make_unique<Controller>(service, main.Post(), policy, [this] { return now; });
    c->onMessage = [this](const std::string& text) { messages.push_back(text); };
    c->setArrayFiles(std::move(files));
    c->setWindowType(type);
    c->setTarget([this] { closed = true; });
    return c;
  }
  std::string Last() const { return messages.empty() ? "" : messages.back(); }
};

}  // namespace

TEST(ShareRules, FieldChecks) {
  struct Case {
    std::string text;
    bool email, mobile, fourDigits;
    std::string digits;  // DigitsOnly(text, 4)
  } cases[] = {
      {"a.b+c@x-y.org", true, false, false, ""},
      {"a@b.abcdefg", false, false, false, "a"},  // a top level of 7 letters
      {"a@b", false, false, false, ""},
      {"1234567", false, false, false, "1234"},
      {"12345678", false, true, false, "1234"},
      {"1234567890123456", false, true, false, "1234"},
      {"12345678901234567", false, false, false, "1234"},
      {"0", false, false, true, "0"},
      {"00000", false, false, false, "0000"},
      {"1x2y3", false, false, false, "12"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Controller::isEmailAddressValid(c.text), c.email) << c.text;
    EXPECT_EQ(Controller::isMobileValid(c.text), c.mobile) << c.text;
    EXPECT_EQ(Controller::isValidNumber(c.text, 4), c.fourDigits) << c.text;
  }
  EXPECT_EQ(Controller::DigitsOnly("1x2y3", 4), "12");
  EXPECT_EQ(Controller::humanReadableListFromArray({"pdf"}), "pdf");
  EXPECT_EQ(Controller::humanReadableListFromArray({"pdf", "doc"}), "pdf and doc");
  EXPECT_EQ(Controller::humanReadableListFromArray({"pdf", "doc", "txt"}), "pdf, doc, and txt");
  EXPECT_EQ(Controller::FileLabel({}), "File not found!");
  EXPECT_EQ(Controller::FileLabel({"/a/b c.txt", "/d"}), "b c.txt");
}

TEST(ShareRules, PolicyDefaultsAndLocks) {
  Fixture f;
  const std::string folder = f.home.path() + "/folder", pdf = f.home.path() + "/a.PDF",
                    txt = f.home.path() + "/b.txt";
  std::filesystem::create_directories(folder);
  std::ofstream(pdf) << "x";
  std::ofstream(txt) << "x";
  struct Case {
    const char* label;
    std::function<void(CVConnection&)> policy;
    std::vector<std::string> files;
    bool opens, otpState, otpEnabled, otpHidden, mobile, expiryEnabled, viewOnlyEnabled;
  } cases[] = {
      {"defaults", [](CVConnection&) {}, {txt}, true, false, true, false, false, true, false},
      {"OTP required", [](CVConnection& p) { p.OTPRequiredShare = true; }, {txt}, true, true, false, false, true, true,
       false},
      {"SMS", [](CVConnection& p) { p.OTPRequiredShare = p.EnableSMS = true; }, {txt}, true, false, false, true,
       false, true, false},
      {"expiry required", [](CVConnection& p) { p.ExpireRequired = true; }, {txt}, true, false, true, false, false,
       false, false},
      {"view-only type", [](CVConnection& p) { p.ViewOnlySupported = true; p.ViewOnlyTypes = "pdf;DOC"; },
       {txt, pdf}, true, false, true, false, false, true, true},
      {"view-only folder", [](CVConnection& p) { p.ViewOnlySupported = true; }, {folder}, true, false, true, false,
       false, true, true},
      {"view-only, a gone file", [](CVConnection& p) { p.ViewOnlySupported = true; p.ViewOnlyTypes = "pdf"; },
       {f.home.path() + "/gone.pdf"}, true, false, true, false, false, true, false},
      {"external sharing off", [](CVConnection& p) { p.ExternalSharing = false; }, {txt}, false, false, true, false,
       false, true, false},
  };
  for (const auto& c : cases) {
    CVConnection policy;
    c.policy(policy);
    f.messages.clear();
    auto window = f.Open(Controller::kExternalShare, policy, c.files);
    EXPECT_EQ(f.messages.empty(), c.opens) << c.label;
    if (!c.opens) {
      EXPECT_EQ(f.Last(), Controller::kExternalOff);
      continue;
    }
    EXPECT_EQ(window->title, "Share to external");
    EXPECT_EQ(window->otpRequired.state, c.otpState) << c.label;
    EXPECT_EQ(window->otpRequired.enabled, c.otpEnabled) << c.label;
    EXPECT_EQ(window->otpRequired.hidden, c.otpHidden) << c.label;
    EXPECT_EQ(window->mobileFieldEnabled, c.mobile) << c.label;
    EXPECT_TRUE(window->expiresCheckBox.state) << c.label;
    EXPECT_EQ(window->expiresCheckBox.enabled, c.expiryEnabled) << c.label;
    EXPECT_EQ(window->viewOnly.enabled, c.viewOnlyEnabled) << c.label;
  }
  CVConnection noInternal;
  noInternal.InternalSharing = false;
  f.Open(Controller::kInternalShare, noInternal);
  EXPECT_EQ(f.Last(), Controller::kInternalOff);

  // Turning view-only on for a folder says which types it applies to.
  CVConnection viewOnly;
  viewOnly.ViewOnlySupported = true;
  viewOnly.ViewOnlyTypes = "pdf;doc";
  f.Open(Controller::kInternalShare, viewOnly, {folder})->viewOnlyCheckBoxClick(true);
  EXPECT_EQ(f.Last(), "View-only permission will be applied to pdf and doc files.");
}

TEST(ShareRules, ExpiryRangeAndInterval) {
  Fixture f;
  CVConnection policy;
  policy.DefaultShareDuration = 3;
  policy.MaxDuration = 10;
  auto window = f.Open(Controller::kInternalShare, policy);
  std::time_t min = Controller::Clock::to_time_t(window->minDate);
  std::tm local{};
  localtime_r(&min, &local);
  EXPECT_EQ(local.tm_hour * 60 + local.tm_min, 23 * 60 + 59);
  EXPECT_EQ(window->dateForExpires, window->minDate + hours(72));
  window->setDateForExpires(window->minDate + hours(24 * 30));
  EXPECT_EQ(window->dateForExpires, window->minDate + hours(240));  // the maximum

  struct Case {
    seconds ahead;
    long minutes, hoursAhead;
  } cases[] = {{seconds(30), -1, 1}, {seconds(7200), 119, 2}, {seconds(7199), 118, 1}};
  for (const auto& c : cases) {
    window->dateForExpires = f.now + c.ahead;
    EXPECT_EQ(window->getIntervalTimeForPickerInMinutes(true), c.minutes) << c.ahead.count();
    EXPECT_EQ(window->getIntervalTimeForPickerInMinutes(false), c.hoursAhead) << c.ahead.count();
  }
  window->expirationCheckBoxAction(false);
  EXPECT_FALSE(window->datePickerEnabled);
  EXPECT_EQ(window->getIntervalTimeForPickerInMinutes(true), Controller::kNoExpiry);
}

TEST(ShareRules, ExternalRecipientsAreCheckedInOrder) {
  Fixture f;
  auto window = f.Open(Controller::kExternalShare);
  struct Case {
    std::string name, email, mobile;
    bool otp;
    std::string message;  // "" when added
  } cases[] = {
      {"Ann", "", "", false, "e-mail address is required"},
      {"Ann", "ann@x", "", false, "Enter a valid email."},
      {"Ann", "ann@x.org", "1234567", true, "Enter a valid mobile number."},
      {"", "ann@x.org", "", false, "Please enter all recipient details."},
      {"Ann", "ann@x.org", "12345678", true, ""},
      {"Ann", "other@x.org", "", false,
       "You have added one recipient with the same name, please change the name of the current recipient."},
      {"ann", "other@x.org", "", false, ""},  // a change of case is another name
  };
  for (const auto& c : cases) {
    f.messages.clear();
    window->otpCheckBoxClick(c.otp);
    window->nameField = c.name;
    window->emailField = c.email;
    window->mobileField = c.mobile;
    window->addRecipients(0);
    EXPECT_EQ(f.Last(), c.message) << c.name << " " << c.email;
  }
  ASSERT_EQ(window->arrayRecipients.size(), 2u);
  EXPECT_EQ(window->arrayRecipients[0].mobile, "12345678");
  EXPECT_TRUE(window->emailField.empty());
  window->deleteRecipient(0);
  EXPECT_EQ(window->arrayRecipients[0].fullname, "ann");
}

TEST(ShareRules, UploadRequestChecksAndResults) {
  Fixture f;
  CVConnection policy;
  policy.RequestFileUpload.FileSizeRequired = true;
  policy.RequestFileUpload.FileSizeMeasure = "GB";
  policy.RequestFileUpload.NumberOfUpload = 3;
  auto window = f.Open(Controller::kUploadRequest, policy);
  EXPECT_EQ(window->shareButtonTitle, "Request");
  EXPECT_TRUE(window->viewOnly.hidden);
  EXPECT_TRUE(window->cbFileSize.state);
  EXPECT_FALSE(window->cbFileSize.enabled);
  EXPECT_EQ(window->typeSize, 1);
  window->Share();
  EXPECT_EQ(f.Last(), Controller::kNoRecipient);
  window->nameField = "Ann";
  window->emailField = "ann@x.org";
  window->addRecipients(0);

  // The typing rule keeps what the check accepts: 4 digits in GB, 5 in MB.
  window->controlTextDidChange(Controller::NumericField::FileLimit, "12a345678");
  EXPECT_EQ(window->fileLimitText, "123");  // the digits among the first four characters
  window->PopUpButtonClick(0);
  window->controlTextDidChange(Controller::NumericField::FileLimit, "123456");
  EXPECT_EQ(window->fileLimitText, "12345");
  window->PopUpButtonClick(1);
  EXPECT_EQ(window->fileLimitText, "1234");

  struct Case {
    std::string title, limit, uploads;
    bool limitOn, uploadsOn, restrictionOn;
    std::string message;
  } cases[] = {
      {"", "1", "1", true, false, false, "Enter title."},
      {"T", "1", "1", true, false, true, "Please enter a valid file extension."},
      {"T", "0", "1", true, false, false, "The file that you have selected have exceed the file size limits"},
      {"T", "", "1", true, false, false, "The file that you have selected have exceed the file size limits"},
      {"T", "2", "0", true, true, false, "Please enter correct upload number."},
      {"T", "2", "00000", true, true, false, "Please enter correct upload number."},
  };
  for (const auto& c : cases) {
    window->titleText = c.title;
    window->fileLimitText = c.limit;
    window->numAttempText = c.uploads;
    window->cbSizeLimitClick(c.limitOn);
    window->cbNumAttempClick(c.uploadsOn);
    window->cbFileRestrictionClick(c.restrictionOn);
    window->Share();
    EXPECT_EQ(f.Last(), c.message) << c.title << "/" << c.limit << "/" << c.uploads;
  }
  EXPECT_EQ(f.service.requests, 0);

  // What the server's answer shows.
  struct Result {
    std::string reply, message;
  } results[] = {{"", "Upload request created successfully."},
                 {"-1;", Controller::kRequestProblem},
                 {"-3;Quota exceeded;x", "Quota exceeded"},
                 {"-9", Controller::kRequestProblem}};
  window->numAttempText = "12";
  for (const auto& r : results) {
    f.service.result = r.reply;
    f.closed = false;
    window->Share();
    EXPECT_FALSE(window->controlsEnabled);
    ASSERT_TRUE(f.main.RunUntil([&] { return f.closed; }));
    EXPECT_EQ(f.Last(), r.message);
    EXPECT_TRUE(window->controlsEnabled);
  }
  EXPECT_EQ(f.service.last.sizeLimit, 2LL * 1024 * 1024 * 1024);
  EXPECT_EQ(f.service.last.numberOfUploads, 12);
  EXPECT_EQ(f.service.last.session, "T");
}

TEST(ShareRules, FirstGenerationFindUsersRepliesAndValidity) {
  using First = UniversalSharingWindowController;
  struct Case {
    std::string reply;
    std::vector<std::string> emails;
    std::string message;
  } cases[] = {
      {"1;1;bob@x;Bob;carol@x;Carol", {"bob@x", "carol@x"}, ""},
      {"1;2;bob@x;Bob;dangling@x", {"bob@x"}, ""},
      {"1;0", {}, First::kNoUsers},
      {"-1;Invalid token", {}, First::kUnavailable},
      {"", {}, First::kUnavailable},
  };
  for (const auto& c : cases) {
    auto found = First::SetResultStr(c.reply);
    std::vector<std::string> emails;
    for (const auto& user : found.users) emails.push_back(user.recEmail);
    EXPECT_EQ(emails, c.emails) << c.reply;
    EXPECT_EQ(found.message, c.message) << c.reply;
  }
  FakeService service;
  MainQueue main;
  for (bool required : {false, true}) {
    CVConnection policy;
    policy.ExpireRequired = required;
    First window(service, main.Post(), policy);
    ASSERT_TRUE(window.setWindowType(First::kInternalShare));
    EXPECT_EQ(window.comboBoxValidity.size(), required ? 5u : 6u);
    window.selectedValidity = 5;  // "No expire", or the last one left
    EXPECT_EQ(window.Validity(), required ? 720 : 876000);
  }
}
