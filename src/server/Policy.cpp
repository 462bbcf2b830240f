#include "Policy.h"

#include <utf8proc.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <mutex>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVSelectiveSync.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"
#include "CVStorageNames.h"

namespace {

std::int64_t ToInt(const std::string& text) {
  try {
    return std::stoll(text);
  } catch (...) {
    return 0;
  }
}

// The reply's text as the parser is handed it: UTF-16 (little endian) behind a
// byte-order mark. Text that is not UTF-8 goes as it came.
std::string Utf16WithMark(const std::string& text) {
  std::string out = "\xFF\xFE";
  out.reserve(2 + text.size() * 2);
  auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(text.size());
  auto unit = [&out](std::uint32_t value) {
    out.push_back(static_cast<char>(value & 0xFF));
    out.push_back(static_cast<char>((value >> 8) & 0xFF));
  };
  while (left > 0) {
    utf8proc_int32_t code = 0;
    utf8proc_ssize_t used = utf8proc_iterate(bytes, left, &code);
    if (used <= 0 || code < 0) return text;
    if (code >= 0x10000) {
      std::uint32_t v = static_cast<std::uint32_t>(code) - 0x10000;
      unit(0xD800 | (v >> 10));
      unit(0xDC00 | (v & 0x3FF));
    } else {
      unit(static_cast<std::uint32_t>(code));
    }
    bytes += used;
    left -= used;
  }
  return out;
}

// The sections of the document; the parser is outside any while kNone.
enum Section { kNone = -1, kSettings = 0, kCorvalink = 1, kStorages = 2, kUploadRequests = 3, kExtra = 4 };

struct PolicyReader {
  Policy& policy;
  int xmlPart = kNone;
  std::optional<WSStorage> currentElement;
  int skipDepth = 0;  // inside a RequestForFileUpload of a Storage

  void Start(const std::string& name, const std::vector<std::pair<std::string, std::string>>& attributes) {
    if (skipDepth > 0) {
      ++skipDepth;
      return;
    }
    if (name == "Settings") {
      xmlPart = kSettings;
    } else if (name == "Corvalink") {
      xmlPart = kCorvalink;
    } else if (name == "ExtraSettings") {
      xmlPart = kExtra;
    } else if (name == "Storages") {
      if (xmlPart != kSettings) xmlPart = kStorages;
    } else if (name == "RequestForFileUpload") {
      if (xmlPart == kStorages && currentElement) {
        skipDepth = 1;  // a storage's own upload request section is not the account's
      } else if (xmlPart != kStorages) {
        xmlPart = kUploadRequests;
      }
    } else if (name == "Storage") {
      if (xmlPart == kStorages) currentElement = WSStorage{};
    } else if (name == "URL" && xmlPart == kCorvalink) {
      for (const auto& [key, value] : attributes) {
        if (key == "edit") policy.EditableURL = value == "true";
      }
    }
  }

  void End(const std::string& name, const std::string& data) {
    if (skipDepth > 0) {
      --skipDepth;
      return;
    }
    const bool yes = data == "true";
    if (name == "Storage") {
      if (currentElement) policy.Storages.push_back(std::move(*currentElement));
      currentElement.reset();
      return;
    }
    if (name == "Settings" || name == "Corvalink") {
      xmlPart = kNone;
      return;
    }
    if (name == "Storages") {
      if (xmlPart != kSettings) xmlPart = kNone;
      return;
    }
    if (name == "RequestForFileUpload") {
      if (xmlPart == kUploadRequests) xmlPart = kNone;
      return;
    }
    switch (xmlPart) {
      case kSettings: Setting(name, data, yes); break;
      case kCorvalink: Account(name, data); break;
      case kStorages: if (currentElement) StorageField(*currentElement, name, data, yes); break;
      case kUploadRequests: UploadRequest(name, data, yes); break;
      case kExtra: Extra(name, data, yes); break;
      default: break;
    }
  }

  void Setting(const std::string& name, const std::string& data, bool yes) {
    Policy& p = policy;
    if (name == "Editable") p.EditableStorages = yes;
    else if (name == "Enabled") p.PasscodeEnabled = yes;
    else if (name == "Length") p.PasscodeLength = ToInt(data);
    else if (name == "Value") p.PasscodeValue = data;
    else if (name == "ExternalSharing") p.ExternalSharing = yes;
    else if (name == "InternalSharing") p.InternalSharing = yes;
    else if (name == "UploadRequests") p.UploadRequests = yes;
    else if (name == "EmailDocument") p.EmailDocument = yes;
    else if (name == "iOSOpenIn") p.iOSOpenIn = yes;
    else if (name == "ExpireRequired") p.ExpireRequired = yes;
    else if (name == "Desktop") p.SyncIntervalDesktop = ToInt(data);
    else if (name == "Mobile") p.SyncIntervalMobile = ToInt(data);
    else if (name == "OTPRequired") p.OTPRequired = yes;
    else if (name == "EnableSMS") p.EnableSMS = yes;
  }

  void Account(const std::string& name, const std::string& data) {
    if (name == "URL") policy.Corvalink.Url = data;
    else if (name == "Username") policy.Corvalink.UserName = data;
    else if (name == "Password") policy.Corvalink.Password = data;
  }

  static void StorageField(WSStorage& s, const std::string& name, const std::string& data, bool yes) {
    if (name == "Type") s.Type = data;
    else if (name == "Name") s.Name = data;
    else if (name == "Path") s.Path = data;
    else if (name == "AlterAuth") s.AlterAuth = yes;
    else if (name == "Desktop") s.SyncIntervalDesktop = ToInt(data);
    else if (name == "Mobile") s.SyncIntervalMobile = ToInt(data);
    else if (name == "Username") s.Username = data;
    else if (name == "Password") s.Password = data;
  }

  void UploadRequest(const std::string& name, const std::string& data, bool yes) {
    CVRequestForFileUpload& ur = policy.Corvalink.RequestFileUpload;
    if (name == "ExpireRequired") ur.ExpireRequired = yes;
    else if (name == "OtpRequired") ur.OtpRequired = yes;
    else if (name == "NumberOfUploadRequired") ur.NumberOfUploadRequired = yes;
    else if (name == "FileSizeRequired") ur.FileSizeRequired = yes;
    else if (name == "FileExtensionRequired") ur.FileExtensionRequired = yes;
    else if (name == "NumberOfUpload") ur.NumberOfUpload = ToInt(data);
    else if (name == "FileSize") ur.FileSize = ToInt(data);
    else if (name == "DefaultURDuration") ur.DefaultURDuration = ToInt(data);
    else if (name == "FileSizeMeasure") ur.FileSizeMeasure = data;
    else if (name == "FileExtensions") ur.FileExtensions = data;
    else if (name == "UploadPath") ur.UploadPath = data;
    else if (name == "UploadPathType") ur.UploadPathType = data;
  }

  void Extra(const std::string& name, const std::string& data, bool yes) {
    if (name == "ViewOnlySupported") {
      policy.ViewOnlySupported = yes;
    } else if (name == "ViewOnlyTypes") {
      policy.ViewOnlyTypes = data;
    } else if (name == "DefaultShareDuration") {
      policy.DefaultShareDuration = ToInt(data);
      std::cerr << "DefaultShareDuration is " << policy.DefaultShareDuration << '\n';
    } else if (name == "MaxDuration") {
      policy.MaxDuration = ToInt(data);
      std::cerr << "MaxDuration is " << policy.MaxDuration << '\n';
    }
  }
};

void LogPolicyProblem(const std::string& text) { CVEventLogger::WriteSettingsLogMessage("Policy -> " + text); }

}  // namespace

bool Policy::IsNoPolicy(const std::string& text) { return text.empty() || text.rfind("-1;", 0) == 0; }

Policy Policy::DoParsing(const std::string& text) { return DoDataParsing(Utf16WithMark(text)); }

Policy Policy::DoDataParsing(const std::string& bytes) {
  Policy policy;
  PolicyReader reader{policy, kNone, std::nullopt, 0};
  CVStateXMLFile::Events events;
  events.startElementAttributes = [&](const std::string& name,
                                      const std::vector<std::pair<std::string, std::string>>& attributes) {
    reader.Start(name, attributes);
  };
  // The text of an element is what stood since the last tag, so white space
  // between elements never sticks to a value.
  events.endElement = [&](const std::string& name, const std::string& text) { reader.End(name, text); };
  if (auto error = CVStateXMLFile::Parse(bytes, events)) {
    std::string message = "(Policy XML parser) Error " + std::to_string(error->code) +
                          ", Description: " + error->description + ", Line: " + std::to_string(error->line) +
                          ", Column: " + std::to_string(error->column);
    std::cerr << "Error: " << message << '\n';
    policy.parseError = message;
  }
  return policy;
}

void Policy::CopyInto(CVConnection& account, Target target) const {
  if (target != Target::Retrieve) account.EditableWS = EditableURL;
  account.EditableStorages = EditableStorages;
  account.ExternalSharing = ExternalSharing;
  account.EmailDocument = EmailDocument;
  account.iOSOpenIn = iOSOpenIn;
  account.OTPRequiredShare = OTPRequired;
  account.RequestFileUpload = Corvalink.RequestFileUpload;
  account.EnableSMS = EnableSMS;
  account.ExpireRequired = ExpireRequired;
  if (target != Target::New) {
    account.InternalSharing = InternalSharing;
    account.UploadRequests = UploadRequests;
    account.ViewOnlySupported = ViewOnlySupported;
    account.ViewOnlyTypes = ViewOnlyTypes;
    account.DefaultShareDuration = DefaultShareDuration;
    account.MaxDuration = MaxDuration;
  }
}

CVSharepoint Policy::SharepointFromWSStorage(const WSStorage& storage, std::int64_t syncCV) {
  CVSharepoint site;
  site.UseAlterAuth = storage.AlterAuth;
  site.StorageType = storage.Type;
  site.Name = storage.Name;
  site.UserName = storage.Username;
  site.Password = storage.Password;
  site.Url = CVStaticHelpers::SpSiteURLCheck(storage.Path, storage.Type == "CIFS");
  const std::string scheme = CVStaticHelpers::AsciiLower(storage.Type) + ":";
  if (CVStaticHelpers::AsciiLower(site.Url).rfind(scheme, 0) != 0 && site.Url.rfind("//", 0) == 0) site.Url = storage.Type + ":" + site.Url;
  site.SyncDelay = syncCV;
  site.isInFavorites = false;
  site.isManually = false;
  site.SharedStorageId = storage.SharedStorageId;
  return site;
}

void Policy::ParseCorvalinkConfigNewBase(const std::string& text) {
  Policy policy = DoParsing(text);
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  policy.CopyInto(config.Corvalink, Target::Base);
}

void Policy::ParseCorvalinkConfigNew(const std::string& text) {
  try {
    Policy policy = DoParsing(text);
    CVConfiguration& config = CVConfiguration::Instance();
    std::vector<std::string> added;
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      policy.CopyInto(config.Corvalink, Target::New);
      for (const auto& storage : policy.Storages) {
        if (auto problem = CVStorageNames::Problem(storage.Name)) {
          LogPolicyProblem("the storage \"" + storage.Name + "\" is left out: " + *problem);
          continue;
        }
        // A list that was not empty may hold the name already: one folder, one storage.
        if (config.isNameExists(storage.Name)) {
          LogPolicyProblem("the storage \"" + storage.Name + "\" is in the list already");
          continue;
        }
        config.fSpSites.push_back(
            std::make_shared<CVSharepoint>(SharepointFromWSStorage(storage, config.Corvalink.SyncCV)));
        added.push_back(storage.Name);
      }
    }
    // The rule records are made outside the storage list's lock: their store
    // saves its file.
    for (const auto& name : added) CVSelectiveSync::Instance().GetSiteRulesByName(name, true);
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("Policy -> ParseCorvalinkConfig(1): ") + failure.what());
  }
}

std::optional<std::vector<CVSharepoint>> Policy::ParseCorvalinkConfigNewForRetrieveStoragesWithXML(
    const std::string& text) {
  Policy policy = DoParsing(text);
  CVConfiguration& config = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  policy.CopyInto(config.Corvalink, Target::Retrieve);
  if (policy.Storages.empty()) return std::nullopt;
  std::vector<CVSharepoint> storages;
  for (const auto& storage : policy.Storages) {
    storages.push_back(SharepointFromWSStorage(storage, config.Corvalink.SyncCV));
  }
  return storages;
}
