#include "CVHandler.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <sstream>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "CorvalinkWS.h"
#include "MobileClientWS.h"
#include "MyParser.h"
#include "ServerTrust.h"

namespace {
constexpr const char* kClass = "CVHandler";

std::unique_ptr<CVHandler>& Slot() {
  static std::unique_ptr<CVHandler> instance;
  return instance;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> fields;
  std::string field;
  std::stringstream stream(text);
  while (std::getline(stream, field, separator)) fields.push_back(field);
  if (!text.empty() && text.back() == separator) fields.emplace_back();
  return fields;
}

void Log(const std::string& method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}
}  // namespace

CVHandler& CVHandler::Instance() {
  auto& slot = Slot();
  if (!slot) slot.reset(new CVHandler());
  return *slot;
}

void CVHandler::ResetForTests() { Slot().reset(new CVHandler()); }

void CVHandler::RegenWsURL() {
  CVConfiguration& config = CVConfiguration::Instance();
  std::string stored;
  std::string pin;
  {
    // Every thread comes through here; the one fix of the stored URL happens once.
    std::lock_guard<std::recursive_mutex> sites(config.fSpSitesLock);
    CVConnection& account = config.Corvalink;
    if (account.Url.empty()) return;
    if (account.Url.back() != '/') account.Url += "/";
    stored = account.Url;
    pin = account.ServerKeyPin;
  }
  std::string base = CVTextEscaping::URLDecodedString(stored);
  // The key accepted with the account is what the engine trusts for its server.
  ServerTrust::SetPin(base, pin);
  std::lock_guard<std::mutex> lock(lock_);
  url_ = base;
  wsUrl_ = base + "CorvalinkWS.asmx";
  mobileUrl_ = base + "CorvalinkMobile.asmx";
  adUrl_ = base + "CorvalinkAD.asmx";
  shareUrl_ = base + "share.asmx";
  downloadFileUrl_ = base + "DownloadStorageFile.ashx";
  getFileUrl_ = base + "GetFile.ashx";
  getMyFileUrl_ = base + "GetMyFile.ashx";
  uploadFile_ = base + "UploadStorageFile.ashx";
}

#define CV_URL_GETTER(name)                    \
  std::string CVHandler::name() const {        \
    std::lock_guard<std::mutex> lock(lock_);   \
    return name##_;                            \
  }
CV_URL_GETTER(url)
CV_URL_GETTER(wsUrl)
CV_URL_GETTER(mobileUrl)
CV_URL_GETTER(adUrl)
CV_URL_GETTER(shareUrl)
CV_URL_GETTER(downloadFileUrl)
CV_URL_GETTER(getFileUrl)
CV_URL_GETTER(getMyFileUrl)
CV_URL_GETTER(uploadFile)
#undef CV_URL_GETTER

std::vector<CVTokenCollection> CVHandler::GetTokenCol() const {
  std::lock_guard<std::mutex> lock(lock_);
  return tokens_;
}

std::optional<std::string> CVHandler::FindToken(const std::string& key) const {
  std::lock_guard<std::mutex> lock(lock_);
  for (const auto& entry : tokens_) {
    if (entry.TokenDesc == key) return entry.Token;
  }
  return std::nullopt;
}

void CVHandler::AddToken(const std::string& key, const std::string& token) {
  std::lock_guard<std::mutex> lock(lock_);
  tokens_.push_back({key, token});
}

void CVHandler::RemoveCVToken(const std::string& key) {
  std::lock_guard<std::mutex> lock(lock_);
  auto it = std::find_if(tokens_.begin(), tokens_.end(),
                         [&](const CVTokenCollection& entry) { return entry.TokenDesc == key; });
  if (it != tokens_.end()) tokens_.erase(it);
}

void CVHandler::RemoveCVTokenForTokenValue(const std::string& token) {
  std::lock_guard<std::mutex> lock(lock_);
  auto it = std::find_if(tokens_.begin(), tokens_.end(),
                         [&](const CVTokenCollection& entry) { return entry.Token == token; });
  if (it != tokens_.end()) tokens_.erase(it);
}

void CVHandler::RemoveAllTokens() {
  std::lock_guard<std::mutex> lock(lock_);
  tokens_.clear();
}

void CVHandler::SetAppVersion(const std::string& version) {
  std::lock_guard<std::mutex> lock(lock_);
  appVersion_ = version;
}

std::string CVHandler::appVersion() const {
  std::lock_guard<std::mutex> lock(lock_);
  return appVersion_;
}

void CVHandler::SetPolicyHandler(std::function<void(const std::string&)> handler) {
  std::lock_guard<std::mutex> lock(lock_);
  policyHandler_ = std::move(handler);
}

std::string CVHandler::devStatus() const {
  std::lock_guard<std::mutex> lock(lock_);
  return devStatus_;
}

void CVHandler::setDevStatus(const std::string& status) {
  std::lock_guard<std::mutex> lock(lock_);
  devStatus_ = status;
}

bool CVHandler::Login() {
  CVEventLogger::WriteSettingsLogMessage("CVHandler - Login -> main login");
  {
    std::lock_guard<std::mutex> lock(lock_);
    tokens_.erase(std::remove_if(tokens_.begin(), tokens_.end(),
                                 [](const CVTokenCollection& e) { return e.TokenDesc == kMainTokenKey; }),
                  tokens_.end());
  }
  CVConfiguration& config = CVConfiguration::Instance();
  std::string user;
  {
    std::lock_guard<std::recursive_mutex> sites(config.fSpSitesLock);
    user = config.Corvalink.UserName;
  }
  std::string reply = CorvalinkWS().Login(user, config.AccountPassword(), CVStaticHelpers::GetUniqueDeviceID());
  if (StartsWith(reply, "err")) return false;
  std::string token = MyParser::GetParsedStringForNode("Result", reply);
  if (token.empty()) token = MyParser::GetParsedStringForNode("LoginResult", reply);
  if (token.empty()) return false;
  // A refusal ("-1;...") stands like a token; the probe that follows finds it out.
  AddToken(kMainTokenKey, token);
  return true;
}

std::string CVHandler::UsableCVToken(const std::string& key) {
  std::string token = CheckCVToken(key);
  if (token.empty() || StartsWith(token, "err")) {
    RemoveCVToken(key);
    return "";
  }
  return token;
}

bool CVHandler::IsBadTokenReply(const std::string& reply) {
  return StartsWith(reply, "-1;") || StartsWith(reply, "-3;");
}

bool CVHandler::IsNotFoundReply(const std::string& reply) {
  return StartsWith(reply, "-100;") || StartsWith(reply, "-6;");
}

std::string CVHandler::CheckCVToken(const std::string& key) {
  if (auto existing = FindToken(key)) return *existing;
  if (key == kMainTokenKey) {
    if (!Login()) return "";
    setDevStatus(GetDeviceStatus());
    auto mainToken = FindToken(kMainTokenKey);
    if (devStatus() == "1;A" && mainToken) {
      CVEventLogger::WriteMainLogMessage("Parsing policy after login");
      auto reply = GetDefaultConfigForNewSettings(*mainToken, wsUrl());
      std::string policy = reply ? MyParser::GetParsedStringForNode("GetDefaultSettings2Result", *reply) : "";
      if (policy.empty()) {
        CVEventLogger::WriteSettingsLogMessage("Policy is empty");
      } else if (!StartsWith(policy, "-1;")) {
        std::function<void(const std::string&)> handler;
        {
          std::lock_guard<std::mutex> lock(lock_);
          handler = policyHandler_;
        }
        if (handler) {
          handler(policy);
        } else {
          CVEventLogger::WriteSettingsLogMessage(
              "Policy received; this build does not apply policies, the settings stay as they are");
        }
      }
    }
  } else {
    CVConfiguration& config = CVConfiguration::Instance();
    std::optional<std::size_t> index;
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      for (std::size_t i = 0; i < config.fSpSites.size(); ++i) {
        if (config.fSpSites[i]->Name == key) {
          index = i;
          break;
        }
      }
    }
    if (!index) {
      // Neither the main key nor a storage: the GUID of an upload request.
      std::string mainToken = CheckCVToken(kMainTokenKey);
      if (StartsWith(mainToken, "err") || mainToken.empty()) return mainToken;
      auto reply = MobileClientWS().LoginEx(key, mainToken);
      std::string result = reply ? MyParser::GetParsedStringForNode("LoginExResult", *reply) : "";
      if (StartsWith(result, "0;")) {
        std::string token = result.substr(2);
        AddToken(key, token);
        return token;
      }
      return "";
    }
    if (!LoginMobile(*index)) return "";
  }
  return FindToken(key).value_or("");
}

bool CVHandler::LoginMobile(std::size_t index) {
  try {
    CVConfiguration& config = CVConfiguration::Instance();
    CVSharepoint site;
    std::string accountUser;
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      if (index >= config.fSpSites.size()) return false;
      site = *config.fSpSites[index];
      accountUser = config.Corvalink.UserName;
    }
    {
      std::lock_guard<std::mutex> lock(lock_);
      tokens_.erase(std::remove_if(tokens_.begin(), tokens_.end(),
                                   [&](const CVTokenCollection& e) { return e.TokenDesc == site.Name; }),
                    tokens_.end());
    }
    std::string storageUrl = CVTextEscaping::URLDecodedString(site.Url);
    std::string user = site.UseAlterAuth ? site.UserName : accountUser;
    std::string password = site.UseAlterAuth ? site.Password : config.AccountPassword();
    for (int round = 0; round < 2; ++round) {
      std::string mainToken = CheckCVToken(kMainTokenKey);
      if (StartsWith(mainToken, "err") || mainToken.empty()) return false;
      std::string reply = MobileClientWS().Login(user, password, storageUrl, site.StorageType, mainToken);
      if (StartsWith(reply, "err")) return false;
      std::string result = MyParser::GetParsedStringForNode("LoginResult", reply);
      if (result.empty()) return false;
      if (StartsWith(result, "0;")) {
        auto fields = Split(result, ';');
        if (fields.size() >= 2) AddToken(site.Name, fields[1]);
        return true;
      }
      if (StartsWith(result, "-1;") || StartsWith(result, "-3;")) {
        RemoveCVToken(kMainTokenKey);  // the main token is bad: log in again
        continue;
      }
      return false;
    }
    return false;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "LoginMobile", failure.what());
    return false;
  }
}

bool CVHandler::LoginMobile(const std::string& url, const std::string& username,
                            const std::string& password, const std::string& type) {
  try {
    std::string storageUrl = url;
    auto lower = [](std::string text) {
      std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
      return text;
    };
    if (!StartsWith(lower(storageUrl), lower(type) + ":") && StartsWith(storageUrl, "//")) {
      storageUrl = type + ":" + storageUrl;
    }
    for (int round = 0; round < 2; ++round) {
      std::string mainToken = CheckCVToken(kMainTokenKey);
      if (StartsWith(mainToken, "err") || mainToken.empty()) return false;
      std::string reply = MobileClientWS().Login(username, password, storageUrl, type, mainToken);
      if (StartsWith(reply, "err")) return false;
      std::string result = MyParser::GetParsedStringForNode("LoginResult", reply);
      if (StartsWith(result, "0;")) return true;
      if (StartsWith(result, "-1;")) {
        RemoveCVToken(kMainTokenKey);
        continue;
      }
      return false;
    }
    return false;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "LoginMobile", failure.what());
    return false;
  }
}

std::string CVHandler::TestLoginWithUrl(const std::string& url, const std::string& userName,
                                        const std::string& password) {
  LoginTest test = TestLogin(url, userName, password);
  return test.kind == LoginTest::Kind::Token ? test.text : "-1;";
}

CVHandler::LoginTest CVHandler::TestLogin(const std::string& url, const std::string& userName,
                                          const std::string& password) {
  using Kind = LoginTest::Kind;
  try {
    std::string wsUrl = CVStaticHelpers::GenerateWSUrls(url)["wsUrlRes"];
    std::string reply = CorvalinkWS().LoginWithUrl(userName, password,
                                                   CVStaticHelpers::GetUniqueDeviceID(), wsUrl);
    if (StartsWith(reply, "err")) return {Kind::Unreachable, reply};
    std::string token = MyParser::GetParsedStringForNode("Result", reply);
    if (token.empty()) token = MyParser::GetParsedStringForNode("LoginResult", reply);
    if (token.empty()) return {Kind::Unreachable, "the server gave no token"};
    if (StartsWith(token, "-1;")) return {Kind::Refused, token};
    return {Kind::Token, token};
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("#001:CVHandler -> TestLoginWithUrl: ") + failure.what());
    return {Kind::Unreachable, failure.what()};
  }
}

std::optional<std::string> CVHandler::GetDefaultConfig() {
  std::string token = CheckCVToken(kMainTokenKey);
  RegenWsURL();
  return GetDefaultConfigForNewSettings(token, wsUrl());
}

std::optional<std::string> CVHandler::GetDefaultConfigForNewSettings(const std::string& token,
                                                                     const std::string& wsUrl) {
  return CorvalinkWS().GetDefaultSettings2(token, wsUrl);
}

std::string CVHandler::GetDeviceStatus() { return GetDeviceStatusWithToken(std::nullopt, std::nullopt); }

std::string CVHandler::GetDeviceStatusWithToken(const std::optional<std::string>& token,
                                                const std::optional<std::string>& url) {
  std::string useToken = token ? *token : CheckCVToken(kMainTokenKey);
  if (StartsWith(useToken, "err") || useToken.empty()) return "";
  RegenWsURL();
  std::string reply = CorvalinkWS().GetDeviceStatus(useToken, url ? *url : wsUrl());
  if (StartsWith(reply, "errNon200")) {
    Log("GetDeviceStatus", reply);
    return "";
  }
  if (StartsWith(reply, "err")) return "";
  return MyParser::GetParsedStringForNode("GetDeviceStatusResult", reply);
}

std::string CVHandler::GetDeviceStatusAutoReloginIfIncorrectToken() {
  std::string reply;
  for (int round = 0; round < 2; ++round) {
    reply = GetDeviceStatus();
    if (reply.empty()) return "";
    if (!StartsWith(reply, "-1;")) return reply;
    RemoveCVToken(kMainTokenKey);
  }
  return reply;
}

void CVHandler::RunVersionWS() {
  {
    std::lock_guard<std::mutex> lock(lock_);
    versionWSBackup_.reset();
  }
  GetWSVersion();
}

std::string CVHandler::VersionText() {
  {
    std::lock_guard<std::mutex> lock(lock_);
    if (versionWSBackup_) return *versionWSBackup_;
  }
  std::string version = CorvalinkWS().GetVersion();
  // No answer (offline, or the call ended by a quit) is asked again next time.
  if (version.empty()) return version;
  std::lock_guard<std::mutex> lock(lock_);
  versionWSBackup_ = version;
  return version;
}

int CVHandler::VersionLevel(const std::string& version) {
  if (version.size() < 3) throw std::invalid_argument("version text too short");
  // Major and minor as whole numbers: "5.10" is above "5.2", and "5.1" is 5.1.
  auto dot = version.find('.');
  long major = std::stol(version.substr(0, dot));
  long minor = 0;
  if (dot != std::string::npos && dot + 1 < version.size() && std::isdigit(static_cast<unsigned char>(version[dot + 1]))) {
    minor = std::stol(version.substr(dot + 1));
  }
  auto atLeast = [&](long m, long n) { return major > m || (major == m && minor >= n); };
  if (atLeast(6, 0)) return 4;
  if (atLeast(5, 2)) return 3;
  if (atLeast(5, 1)) return 2;
  if (atLeast(5, 0)) return 1;
  return 0;
}

int CVHandler::GetWSVersion() {
  std::string version = VersionText();
  CVEventLogger::WriteSettingsLogMessage("Version WS: " + version);
  // No answer is no malformed one: the level stays unknown until one comes.
  if (version.empty()) return 0;
  try {
    return VersionLevel(version);
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string(kClass) + " - GetWSVersion -|*Exception: " +
                                      failure.what() + " result string: " + version);
    return 0;
  }
}

std::string CVHandler::GetFileInfoReturnForPath(const std::string& serverPath,
                                                const std::string& WithSiteName) {
  std::string last;
  for (int round = 0; round < 2; ++round) {
    std::string token = UsableCVToken(WithSiteName);
    if (token.empty()) continue;
    auto result = MobileClientWS().GetFileInfo(token, serverPath);
    Log("GetFileInfoReturnForPath", "Get File Info string Result: " + result.value_or(""));
    if (!result) {
      Log("GetFileInfoReturnForPath", "");
      last = "";
      continue;
    }
    last = *result;
    if (StartsWith(last, "err")) {
      Log("GetFileInfoReturnForPath", "Another error get file info string: " + last);
    } else if (StartsWith(last, "0;")) {
      Log("GetFileInfoReturnForPath", "Get file info string successfully " + last);
      return last;
    } else if (IsNotFoundReply(last)) {
      Log("GetFileInfoReturnForPath", "Get file info string file not found: " + last);
      return last;
    } else if (IsBadTokenReply(last)) {
      Log("GetFileInfoReturnForPath", "Get file info string bad token : " + last);
      RemoveCVToken(WithSiteName);
    } else {
      Log("GetFileInfoReturnForPath", "Error get file info string: " + last);
    }
  }
  return last;
}

std::optional<std::vector<std::string>> CVHandler::ParseGetFileInfo(const std::string& result) {
  if (result.empty()) return std::nullopt;
  return Split(result, ';');
}

std::optional<std::vector<std::string>> CVHandler::GetFileInfo(const std::string& serverPath,
                                                               const std::string& siteName) {
  std::string result = GetFileInfoReturnForPath(serverPath, siteName);
  if (!StartsWith(result, "0;")) return std::nullopt;
  return ParseGetFileInfo(result);
}

template <typename Work>
auto CVHandler::TwoRounds(const std::string& tokenKey, Work work) -> decltype(work(std::string())) {
  for (int round = 0; round < 2; ++round) {
    std::string token = CheckCVToken(tokenKey);
    if (GetDeviceStatus() == "1;A" && !token.empty() && !StartsWith(token, "err")) return work(token);
    RemoveCVToken(tokenKey);
  }
  return decltype(work(std::string())){};
}

std::optional<std::string> CVHandler::SystemConfigField(const std::string& tokenKey, std::size_t field,
                                                        std::size_t minimumFields) {
  return TwoRounds(tokenKey, [&](const std::string& token) -> std::optional<std::string> {
    auto reply = MobileClientWS().GetSystemConfig(token);
    std::string result = reply ? MyParser::GetParsedStringForNode("GetSystemConfigResult", *reply) : "";
    if (!StartsWith(result, "0;")) return std::nullopt;
    auto fields = Split(result, ';');
    if (fields.size() < minimumFields) return std::nullopt;
    return fields[field];
  });
}

std::int64_t CVHandler::GetPartSizeNSNumber() {
  try {
    RegenWsURL();
    auto field = SystemConfigField(kMainTokenKey, 3, 4);
    if (!field || field->empty()) return 0;
    return std::stoll(*field);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetPartSizeNSNumber", failure.what());
    return 0;
  }
}

std::string CVHandler::GetCompressedTypesString() {
  RegenWsURL();
  return SystemConfigField(kMainTokenKey, 2, 3).value_or("");
}

std::string CVHandler::GetCompressedTypesStringForSite(const std::string& siteName) {
  RegenWsURL();
  return SystemConfigField(siteName, 2, 3).value_or("");
}

std::optional<std::vector<WSUsageHistory>> CVHandler::GetUsageHistory(long pageNum) {
  RegenWsURL();
  return TwoRounds(kMainTokenKey, [&](const std::string& token) -> std::optional<std::vector<WSUsageHistory>> {
    return CorvalinkWS().GetUsageHistory(token, std::to_string(pageNum)).GetUsageHistoryCollection();
  });
}

bool CVHandler::isFileNeedToBeCompressed(const std::string& extension) {
  bool fetched;
  std::string types;
  {
    std::lock_guard<std::mutex> lock(lock_);
    fetched = compressedTypesFetched_;
    types = compressedTypes_;
  }
  if (!fetched) {
    RegenWsURL();
    auto field = SystemConfigField(kMainTokenKey, 2, 3);
    // A list that came back empty is still an answer; only a failed call asks again.
    if (field) {
      std::lock_guard<std::mutex> lock(lock_);
      compressedTypes_ = *field;
      compressedTypesFetched_ = true;
      types = *field;
    }
  }
  return !extension.empty() && types.find(extension) != std::string::npos;
}
