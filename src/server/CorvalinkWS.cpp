#include "CorvalinkWS.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVTextEscaping.h"
#include "MyParser.h"
#include "WSCommonMethods.h"

namespace {
constexpr const char* kClass = "CorvalinkWS";

// The main endpoint beside a given one: the base is what stands before the last "/".
std::string ShareUrlOf(const std::string& wsUrl) {
  auto slash = wsUrl.rfind('/');
  return (slash == std::string::npos ? wsUrl + "/" : wsUrl.substr(0, slash + 1)) + "share.asmx";
}
}  // namespace

bool CorvalinkWS::VersionTakesOptions(const std::string& version) {
  if (version.empty()) return false;
  std::vector<long> pieces;
  std::stringstream stream(version);
  std::string piece;
  while (std::getline(stream, piece, '.') && pieces.size() < 3) {
    try {
      pieces.push_back(std::stol(piece));
    } catch (...) {
      pieces.push_back(0);
    }
  }
  long major = pieces.size() > 0 ? pieces[0] : 0;
  long minor = pieces.size() > 1 ? pieces[1] : 0;
  long build = pieces.size() > 2 ? pieces[2] : 0;
  if (major >= 7) return true;
  if (major == 6 && minor >= 1) return true;
  return major == 6 && minor == 0 && pieces.size() >= 3 && build >= 71;
}

std::string CorvalinkWS::GetVersion(const std::string& wsUrl) {
  auto data = WSCommonMethods::ProcessDataWebServiceRequest({}, {}, "GetVersion", wsUrl);
  std::string version = data ? MyParser::GetParsedStringForNode("GetVersionResult", *data) : "";
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - GetVersion -> Wersion WS: " + version);
  return version;
}

std::string CorvalinkWS::GetVersion() {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return GetVersion(handler.wsUrl());
}

bool CorvalinkWS::shouldSendDeviceNameAndSystemInfo(const std::string& wsUrl) {
  bool yes = VersionTakesOptions(GetVersion(wsUrl));
  CVEventLogger::WriteMainLogMessage(yes ? "Should send device name and system info"
                                         : "Shouldn't send device name and system info");
  return yes;
}

std::string CorvalinkWS::DeviceName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "linux";
  return name;
}

std::string CorvalinkWS::SystemVersion() {
  // The distribution's own version ("12" for the twelfth release), else the kernel's.
  std::ifstream release("/etc/os-release");
  std::string line;
  while (std::getline(release, line)) {
    if (line.rfind("VERSION_ID=", 0) == 0) {
      std::string value = line.substr(11);
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (!value.empty()) return value;
    }
  }
  utsname info{};
  if (uname(&info) == 0) return info.release;
  return "";
}

std::string CorvalinkWS::OptionsFragment(const std::string& devSerial) {
  auto escape = CVTextEscaping::AddSpecialSymbols;
  return "<DeviceID>" + escape(devSerial) + "</DeviceID>" + "<DeviceType>" + escape(kDeviceType) +
         "</DeviceType>" + "<AppVersion>" + escape(CVHandler::Instance().appVersion()) +
         "</AppVersion>" + "<DeviceName>" + escape(DeviceName()) + "</DeviceName>" +
         "<DeviceSystem>OS X " + escape(SystemVersion()) + "</DeviceSystem>";
}

std::string CorvalinkWS::LoginWithUrl(const std::string& user, const std::string& password,
                                      const std::string& devSerial, const std::string& url) {
  CVHandler::Instance().RegenWsURL();
  auto escape = CVTextEscaping::AddSpecialSymbols;
  std::string result;
  // The server under test answers both the version question and the login, so a
  // test of a new address never reaches the saved server.
  if (shouldSendDeviceNameAndSystemInfo(url)) {
    result = WSCommonMethods::ProcessWebServiceRequest(
        {escape(user), escape(password), OptionsFragment(devSerial)},
        {"Username", "Password", "Options"}, "Login", ShareUrlOf(url));
  } else {
    result = WSCommonMethods::ProcessWebServiceRequest(
        {escape(user), escape(password), escape(devSerial), escape(kDeviceType),
         escape(CVHandler::Instance().appVersion())},
        {"Username", "Password", "DeviceID", "DeviceType", "AppVersion"}, "Login", url);
  }
  CVEventLogger::WriteMainLogMessage("\nCorvalinkWS->LoginWithUrl\nurl:" + url + "\nusername:" + user +
                                     "\ndevSerial:" + devSerial + "\nResult Str: " + result);
  return result;
}

std::string CorvalinkWS::Login(const std::string& user, const std::string& withPass,
                               const std::string& withSerial) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return LoginWithUrl(user, withPass, withSerial, handler.wsUrl());
}

std::string CorvalinkWS::GetDeviceStatus(const std::string& token, const std::string& wsUrl) {
  return WSCommonMethods::ProcessWebServiceRequest({token}, {"Token"}, "GetDeviceStatus", wsUrl);
}

std::optional<std::string> CorvalinkWS::GetDefaultSettings2(const std::string& token,
                                                            const std::string& wsUrl) {
  return WSCommonMethods::ProcessDataWebServiceRequest({token}, {"Token"}, "GetDefaultSettings2", wsUrl);
}
