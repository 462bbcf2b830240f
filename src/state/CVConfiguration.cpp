#include "CVConfiguration.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <optional>
#include <tuple>

#include "CVEventLogger.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"
#include "CVStorageDataProtection.h"
#include "XdgDesktop.h"

namespace fs = std::filesystem;

namespace {
constexpr const char* kClass = "CVConfiguration";

std::unique_ptr<CVConfiguration>& Slot() {
  static std::unique_ptr<CVConfiguration> instance;
  return instance;
}

const char* Bool(bool value) { return value ? "true" : "false"; }

std::int64_t ToInt(const std::string& text) {
  try {
    std::size_t used = 0;
    long long value = std::stoll(text, &used, 10);
    return value;
  } catch (...) {
    return 0;  // like reading a number from text that holds none
  }
}

void Log(const std::string& text) { CVEventLogger::WriteSettingsLogMessage(std::string(kClass) + " -> " + text); }

// The keyring's item of an account: its server without the final "/", and the user.
std::pair<std::string, std::string> KeyringItem(const CVConnection& account) {
  std::string server = account.Url;
  while (!server.empty() && server.back() == '/') server.pop_back();
  return {server, account.UserName};
}

std::string KeyringLabel(const std::pair<std::string, std::string>& item) {
  return "Corvalink Sync: " + item.second + " on " + item.first;
}

std::string SettingsFile() { return CVStaticHelpers::GenerateSettingsPath() + "/Configuration.xml"; }
std::string HashFolder() { return CVStaticHelpers::GenerateSettingsPath() + "/.Hash"; }
std::string SideFolder() { return HashFolder() + "/.AddStoragesInfo"; }

// The configuration's document: its root declares the schema namespaces, values
// are written as the file has always held them.
class DocumentWriter {
 public:
  DocumentWriter() { writer_.StartElement("Configuration", CVStateXMLFile::Writer::kSchemaNamespaces); }
  void Start(const char* name) { writer_.StartElement(name); }
  void End() { writer_.EndElement(); }
  void Element(const char* name, const std::string& value) { writer_.WriteElement(name, value); }
  void Element(const char* name, bool value) { Element(name, std::string(Bool(value))); }
  void Element(const char* name, std::int64_t value) { Element(name, std::to_string(value)); }
  // The document's text; "" (logged) when it could not be built.
  std::string Finish() {
    auto text = writer_.Finish();
    if (!text) CVEventLogger::LogException(kClass, "DocumentWriter", writer_.failure());
    return text.value_or("");
  }

 private:
  CVStateXMLFile::Writer writer_;
};

void WriteUploadRequestPolicy(DocumentWriter& doc, const CVRequestForFileUpload& ur) {
  doc.Element("URExpireRequired", ur.ExpireRequired);
  doc.Element("UROtpRequired", ur.OtpRequired);
  doc.Element("URNumberOfUploadRequired", ur.NumberOfUploadRequired);
  doc.Element("URNumberOfUpload", ur.NumberOfUpload);
  doc.Element("URFileSizeRequired", ur.FileSizeRequired);
  doc.Element("URFileSize", ur.FileSize);
  doc.Element("URFileSizeMeasure", ur.FileSizeMeasure);
  doc.Element("URFileExtensionRequired", ur.FileExtensionRequired);
  doc.Element("URFileExtensions", ur.FileExtensions);
  doc.Element("URUploadPath", ur.UploadPath);
  doc.Element("URUploadPathType", ur.UploadPathType);
}

// The account's elements; a new file keeps EmailDocument behind ExpireRequired.
void WriteAccount(DocumentWriter& doc, const CVConnection& c, bool newFile) {
  doc.Start("Corvalink");
  doc.Element("Url", c.Url);
  doc.Element("UserName", c.UserName);
  doc.Element("Password", c.Password);
  if (c.PasswordInKeyring) doc.Element("PasswordInKeyring", true);
  doc.Element("IsFirstRun", c.IsFirstRun);
  doc.Element("SyncCV", c.SyncCV);
  doc.Element("StorageType", c.StorageType);
  doc.Element("StoragesFolderPath", std::string());
  doc.Element("EditableWS", c.EditableWS);
  doc.Element("EditableStorages", c.EditableStorages);
  doc.Element("ExternalSharing", c.ExternalSharing);
  doc.Element("InternalSharing", c.InternalSharing);
  if (!newFile) doc.Element("EmailDocument", c.EmailDocument);
  doc.Element("iOSOpenIn", c.iOSOpenIn);
  doc.Element("OTPRequired", c.OTPRequiredShare);
  doc.Element("EnableSMS", c.EnableSMS);
  doc.Element("NotificationTray", c.NotificationTray);
  doc.Element("LastSync", newFile ? std::string() : std::to_string(c.LastSync));
  doc.Element("PartSize", c.PartSize);
  doc.Element("ExpireRequired", c.ExpireRequired);
  if (newFile) doc.Element("EmailDocument", c.EmailDocument);
  doc.Element("isUsingAD", c.IsUsingAD);
  WriteUploadRequestPolicy(doc, c.RequestFileUpload);
  // Only a server trusted by its key has one; other files stay as they always were.
  if (!c.ServerKeyPin.empty()) doc.Element("ServerKeyPin", c.ServerKeyPin);
  doc.End();
}

void WriteSite(DocumentWriter& doc, const CVSharepoint& site) {
  doc.Start("CVSharepoint");
  doc.Element("UseAlterAuth", site.UseAlterAuth);
  doc.Element("Url", site.Url);
  doc.Element("UserName", site.UserName);
  doc.Element("Password", site.Password);
  doc.Element("Name", site.Name);
  doc.Element("SyncDelay", site.SyncDelay);
  doc.Element("StorageType", site.StorageType);
  doc.Element("isInFavorites", site.isInFavorites);
  doc.Element("isManually", site.isManually);
  doc.End();
}

// The document of a newly made file: the values a first start writes.
std::string NewDocument() {
  CVConnection fresh;
  fresh.IsFirstRun = true;
  fresh.SyncCV = 5;
  fresh.StorageType = -1;
  fresh.EditableWS = true;
  fresh.EditableStorages = true;
  fresh.ExternalSharing = true;
  fresh.InternalSharing = true;
  fresh.EmailDocument = false;
  fresh.NotificationTray = true;
  fresh.PartSize = 0;
  DocumentWriter doc;
  WriteAccount(doc, fresh, true);
  doc.Start("SpSites");
  doc.End();
  return doc.Finish();
}

// Event-driven reader of Configuration.xml into the object.
struct ConfigParser {
  CVConfiguration& config;
  CVConnection* account = nullptr;
  std::shared_ptr<CVSharepoint> site;
  std::string buffer;

  void Start(const std::string& name) {
    if (name == "Corvalink") {
      account = &config.Corvalink;
      site.reset();
    } else if (name == "CVSharepoint") {
      site = std::make_shared<CVSharepoint>();
      account = nullptr;
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      config.fSpSites.push_back(site);
    }
  }

  void End(const std::string& name) {
    std::string raw;
    raw.swap(buffer);  // emptied at every end tag, whatever happens
    std::string value = CVStateXMLFile::Trim(raw);
    if (site) {
      EndOfSite(name, raw, value);
    } else if (account) {
      EndOfAccount(name, value);
    }
  }

  void EndOfAccount(const std::string& name, const std::string& value) {
    CVConnection& c = *account;
    CVRequestForFileUpload& ur = c.RequestFileUpload;
    bool yes = value == "true";
    if (name == "Url") c.Url = value;
    else if (name == "UserName") c.UserName = value;
    else if (name == "Password") c.Password = value;
    else if (name == "PasswordInKeyring") c.PasswordInKeyring = yes;
    else if (name == "IsFirstRun") c.IsFirstRun = yes;
    else if (name == "SyncCV") c.SyncCV = ToInt(value);
    else if (name == "StorageType") c.StorageType = ToInt(value);
    else if (name == "EditableWS") c.EditableWS = yes;
    else if (name == "EditableStorages") c.EditableStorages = yes;
    else if (name == "ExternalSharing") c.ExternalSharing = yes;
    else if (name == "InternalSharing") c.InternalSharing = yes;
    else if (name == "EmailDocument") c.EmailDocument = yes;
    else if (name == "iOSOpenIn") c.iOSOpenIn = yes;
    else if (name == "OTPRequired") c.OTPRequiredShare = yes;
    else if (name == "EnableSMS") c.EnableSMS = yes;
    else if (name == "NotificationTray") c.NotificationTray = yes;
    else if (name == "LastSync") c.LastSync = ToInt(value);
    else if (name == "PartSize") c.PartSize = ToInt(value);
    else if (name == "ExpireRequired") c.ExpireRequired = yes;
    else if (name == "isUsingAD") c.IsUsingAD = yes;
    else if (name == "URExpireRequired") ur.ExpireRequired = yes;
    else if (name == "UROtpRequired") ur.OtpRequired = yes;
    else if (name == "URNumberOfUploadRequired") ur.NumberOfUploadRequired = yes;
    else if (name == "URNumberOfUpload") ur.NumberOfUpload = ToInt(value);
    else if (name == "URFileSizeRequired") ur.FileSizeRequired = yes;
    else if (name == "URFileSize") ur.FileSize = ToInt(value);
    else if (name == "URFileSizeMeasure") ur.FileSizeMeasure = value;
    else if (name == "URFileExtensionRequired") ur.FileExtensionRequired = yes;
    else if (name == "URFileExtensions") ur.FileExtensions = value;
    else if (name == "URUploadPath") ur.UploadPath = value;
    else if (name == "URUploadPathType") ur.UploadPathType = value;
    else if (name == "DefaultURDuration") ur.DefaultURDuration = ToInt(value);
    else if (name == "ServerKeyPin") c.ServerKeyPin = value;
  }

  void EndOfSite(const std::string& name, const std::string& raw, const std::string& value) {
    CVSharepoint& s = *site;
    bool yes = value == "true";
    if (name == "UseAlterAuth") s.UseAlterAuth = yes;
    else if (name == "isInFavorites") s.isInFavorites = yes;
    else if (name == "isManually") s.isManually = yes;
    else if (name == "Url") s.Url = WithFinalSeparator(raw, value);
    else if (name == "UserName") s.UserName = value;
    else if (name == "Password") s.Password = value;
    else if (name == "Name") s.Name = value;
    else if (name == "SyncDelay") s.SyncDelay = ToInt(value);
    else if (name == "StorageType") s.StorageType = value;
  }

  // The separator is judged on the untrimmed text: a backslash wins over "/".
  static std::string WithFinalSeparator(const std::string& raw, const std::string& value) {
    char separator = 0;
    if (raw.find('\\') != std::string::npos) {
      separator = '\\';
    } else if (raw.find('/') != std::string::npos) {
      separator = '/';
    }
    if (separator && (value.empty() || value.back() != separator)) return value + separator;
    return value;
  }
};

}  // namespace

CVConfiguration& CVConfiguration::Instance() {
  auto& slot = Slot();
  if (!slot) slot.reset(new CVConfiguration());
  return *slot;
}

void CVConfiguration::ResetForTests() { Slot().reset(new CVConfiguration()); }

void CVConfiguration::SetPartSizeSource(std::function<std::int64_t()> source) {
  partSizeSource_ = std::move(source);
}

std::vector<CVConfiguration::SitePtr> CVConfiguration::SitesCopy() {
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  return fSpSites;
}

CVConfiguration::SitePtr CVConfiguration::GetSiteByName(const std::string& name) {
  std::string wanted = CVStaticHelpers::AsciiLower(name);
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  for (const auto& site : fSpSites) {
    if (CVStaticHelpers::AsciiLower(site->Name) == wanted) return site;
  }
  // A debug line only: lookups of names that are not storages are common.
  CVEventLogger::WriteMainLogMessageDebug("Site is nil, but site search in upload requests");
  for (const auto& site : fSpSitestUploadRequest) {
    if (CVStaticHelpers::AsciiLower(site->Name) == wanted) return site;
  }
  return nullptr;
}

bool CVConfiguration::IsSignedIn() {
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  return !Corvalink.Url.empty() && !Corvalink.UserName.empty() && (!Corvalink.Password.empty() || passwordPending_);
}

void CVConfiguration::SetKeyring(std::unique_ptr<Keyring> keyring) {
  std::lock_guard<std::mutex> keyLock(keyringLock_);
  keyring_ = std::move(keyring);
}

std::string CVConfiguration::AccountPassword() {
  if (passwordPending_) {
    // The keyring did not answer at the read (locked, not on the bus yet): ask again.
    std::lock_guard<std::mutex> keyLock(keyringLock_);
    if (passwordPending_ && keyring_ && keyringItem_) {
      std::string error;
      auto kept = keyring_->Lookup(keyringItem_->first, keyringItem_->second, error);
      if (!kept) return "";
      keyringPassword_ = *kept;
      passwordPending_ = false;
      std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
      Corvalink.Password = *kept;
      Log("the keyring answers now");
    }
  }
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  return Corvalink.Password;
}

void CVConfiguration::ForgetPassword() {
  std::lock_guard<std::mutex> keyLock(keyringLock_);
  passwordPending_ = false;
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  Corvalink.Password.clear();
}

bool CVConfiguration::ResolvePassword() {
  std::lock_guard<std::mutex> keyLock(keyringLock_);
  CVConnection account;
  {
    std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
    account = Corvalink;
  }
  const auto item = KeyringItem(account);
  passwordPending_ = false;
  keyringItem_.reset();
  keyringPassword_.clear();
  std::string error;
  if (account.PasswordInKeyring) {
    keyringItem_ = item;
    std::optional<std::string> kept;
    if (keyring_) {
      kept = keyring_->Lookup(item.first, item.second, error);
    } else {
      error = "no keyring answers in this session";
    }
    if (!kept) {
      // Signed in all the same: the keyring is asked again when the password is needed.
      passwordPending_ = true;
      Log("the password is in the keyring, which does not answer: " + error);
      return false;
    }
    keyringPassword_ = *kept;
    if (!kept->empty() || account.Password.empty()) {
      std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
      Corvalink.Password = *kept;
      Corvalink.PasswordInKeyring = !kept->empty();
      if (kept->empty()) Log("the keyring holds no password for " + item.second + ": signed out");
      return kept->empty();
    }
  }
  if (account.Password.empty() || !keyring_) return false;
  // A password still in the file moves to the keyring, and the file is written without it.
  if (!keyring_->Store(item.first, item.second, KeyringLabel(item), account.Password, error)) {
    Log("the password stays in Configuration.xml; the keyring did not keep it: " + error);
    return false;
  }
  keyringItem_ = item;
  keyringPassword_ = account.Password;
  Log("the password moved from Configuration.xml to the keyring");
  return true;
}

std::pair<std::string, bool> CVConfiguration::PlacePassword(const CVConnection& account) {
  std::lock_guard<std::mutex> keyLock(keyringLock_);
  const auto item = KeyringItem(account);
  // Still in the keyring, only not read yet.
  if (account.Password.empty() && passwordPending_) return {"", true};
  std::string error;
  if (keyringItem_ && (*keyringItem_ != item || account.Password.empty())) {
    // Another account, or signed out: what the keyring kept for the old one goes.
    if (keyring_ && !keyring_->Clear(keyringItem_->first, keyringItem_->second, error)) {
      Log("the keyring did not remove the password of " + keyringItem_->second + ": " + error);
    }
    keyringItem_.reset();
    keyringPassword_.clear();
  }
  if (account.Password.empty()) return {"", false};
  passwordPending_ = false;
  if (!keyring_) return {account.Password, false};
  if (keyringItem_ == item && keyringPassword_ == account.Password) return {"", true};
  if (!keyring_->Store(item.first, item.second, KeyringLabel(item), account.Password, error)) {
    Log("the password is kept in Configuration.xml; the keyring did not keep it: " + error);
    return {account.Password, false};
  }
  keyringItem_ = item;
  keyringPassword_ = account.Password;
  return {"", true};
}

bool CVConfiguration::isNameExists(const std::string& name) {
  std::string wanted = CVStaticHelpers::AsciiLower(name);
  for (const auto& site : SitesCopy()) {
    if (CVStaticHelpers::AsciiLower(site->Name) == wanted) return true;
  }
  return false;
}

void CVConfiguration::ReadConfigFromFile() {
  std::error_code error;
  std::string root = CVStaticHelpers::GenerateRootPath();
  fs::create_directories(root, error);

  // An older layout kept the settings in a visible folder.
  std::string oldSettings = root + "/Settings";
  std::string settings = CVStaticHelpers::GenerateSettingsPath();
  if (fs::is_directory(oldSettings, error) && !fs::exists(settings, error)) {
    fs::rename(oldSettings, settings, error);
    if (error) {
      CVEventLogger::LogException(kClass, "ReadConfigFromFile",
                                  "the old settings folder could not be taken over: " + error.message());
    }
  }
  CVStaticHelpers::CreateSettingsFolder();
  chmod(settings.c_str(), 0700);

  std::string file = SettingsFile();
  if (!fs::exists(file, error)) {
    std::string document = NewDocument();
    if (document.empty() || !CVStateXMLFile::Save(file, document)) {
      CVEventLogger::LogException(kClass, "ReadConfigFromFile", "could not write " + file);
    }
    if (fs::is_directory(HashFolder(), error)) {
      for (const auto& entry : fs::directory_iterator(HashFolder(), error)) {
        fs::remove_all(entry.path(), error);
      }
    } else {
      fs::create_directories(HashFolder(), error);
    }
    fs::create_directories(SideFolder(), error);
    return;
  }

  std::optional<std::string> text = CVStateXMLFile::ReadWholeFile(file);
  if (text && text->find("Configuration xmlns") != std::string::npos) {
    // A file in clear (the first start's) is enciphered from now on.
    if (!CVStorageDataProtection::EncryptFile(file, *text)) {
      CVEventLogger::LogException(kClass, "ReadConfigFromFile", "could not encipher " + file);
    }
  }

  std::optional<std::string> plain = CVStorageDataProtection::DecryptFile(file);
  unreadableCopy_.reset();
  if (!plain || plain->empty() || !ParseDocument(*plain)) {
    // Its bytes are kept for the user; the account comes from a new sign-in.
    unreadableCopy_ = text ? CVStateXMLFile::KeepBrokenCopy(file, *text) : "";
    CVEventLogger::WriteMainLogMessage("CVConfiguration: " + file + " could not be read; " +
                                       (unreadableCopy_->empty() ? "no copy could be kept"
                                                                 : "a copy is kept in " + *unreadableCopy_));
  }
  // Before anything logs in with it.
  const bool passwordMoved = ResolvePassword();

  try {
    Corvalink.PartSize = partSizeSource_ ? partSizeSource_() : 0;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "ReadConfigFromFile", failure.what());
    Corvalink.PartSize = 0;
  }
  fIsInAutomaticStartup = XdgDesktop::IsAutostartRegistered();
  try {
    std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
    for (auto& site : fSpSites) {
      site->isInFavorites = XdgDesktop::HasFavourite("Corvalink_" + site->Name);
      site->prevFireDate = std::chrono::steady_clock::time_point::min();
    }
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(
        std::string("An exception happened during checking favourites list: ") + failure.what());
  }
  CheckHashFolderForActualInformation();
  CreateAddStoragesInfo();
  if (passwordMoved) SaveConfigXML();
}

bool CVConfiguration::ParseDocument(const std::string& text) {
  ConfigParser parser{*this, nullptr, nullptr, {}};
  CVStateXMLFile::Events events;
  events.startElement = [&](const std::string& name) { parser.Start(name); };
  events.endElement = [&](const std::string& name, const std::string&) { parser.End(name); };
  // The parser's buffer spans start tags: it is emptied at end tags only.
  events.characters = [&](std::string_view piece) { parser.buffer.append(piece); };
  events.diagnostic = [](const CVStateXMLFile::ParseError& error) {
    std::cerr << "Error: (CVConfiguration XML parser) Error " << error.code << ", Description: " << error.description
              << ", Line: " << error.line << ", Column: " << error.column << '\n';
  };
  // What was read before an error stays; the reader goes on where it can.
  return !CVStateXMLFile::Parse(text, events);
}

std::int64_t CVConfiguration::LastSync() {
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  return Corvalink.LastSync;
}

void CVConfiguration::SetLastSync(std::int64_t seconds) {
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  Corvalink.LastSync = seconds;
}

std::string CVConfiguration::SaveConfigXML() {
  std::lock_guard<std::mutex> saving(saveLock_);
  std::vector<CVSharepoint> sites;
  CVConnection account;
  {
    std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
    for (const auto& site : fSpSites) sites.push_back(*site);
    account = Corvalink;
  }
  std::tie(account.Password, account.PasswordInKeyring) = PlacePassword(account);
  DocumentWriter doc;
  WriteAccount(doc, account, false);
  doc.Start("SpSites");
  for (const auto& site : sites) WriteSite(doc, site);
  doc.End();
  std::string text = doc.Finish();

  CVStaticHelpers::CreateSettingsFolder();
  // A document that could not be built never replaces the file.
  if (text.empty() || !CVStorageDataProtection::EncryptFile(SettingsFile(), text)) {
    CVEventLogger::LogException(kClass, "SaveConfigXML", "could not write " + SettingsFile());
  }
  CreateAddStoragesInfo();
  CheckHashFolderForActualInformation();
  return text;
}

void CVConfiguration::CreateAddStoragesInfo() {
  std::error_code error;
  fs::create_directories(SideFolder(), error);
  std::string restricted, versions;
  for (const auto& site : SitesCopy()) {
    if (site->UseAlterAuth) restricted += (restricted.empty() ? "" : "\n") + site->Name;
    if (site->StorageType == "CIFS") versions += (versions.empty() ? "" : "\n") + site->Name;
  }
  // The side files only inform the file manager extension; a failed write is not fatal.
  (void)CVStaticHelpers::WriteFileAtomically(SideFolder() + "/sharing_restricted_storages", restricted, 0600);
  (void)CVStaticHelpers::WriteFileAtomically(SideFolder() + "/versions_enabled_storages", versions, 0600);
  std::string marker = SideFolder() + "/ext_sh";
  if (Corvalink.ExternalSharing) {
    if (!fs::exists(marker, error)) (void)CVStaticHelpers::WriteFileAtomically(marker, "", 0600);
  } else {
    fs::remove(marker, error);
  }
}

void CVConfiguration::CheckHashFolderForActualInformation() {
  try {
    std::error_code error;
    if (!fs::is_directory(HashFolder(), error)) {
      fs::create_directories(HashFolder(), error);
      return;
    }
    for (const auto& entry : fs::directory_iterator(HashFolder(), error)) {
      std::string name = entry.path().filename().string();
      if (!name.empty() && name[0] != '.' && !isNameExists(name)) fs::remove_all(entry.path(), error);
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "CheckHashFolderForActualInformation", failure.what());
  }
}
