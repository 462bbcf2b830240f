#include "AccountProbe.h"

#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "MyParser.h"
#include "Policy.h"

AccountProbe AccountProbe::Run(const std::string& url, const std::string& user, const std::string& password) {
  AccountProbe probe;
  CVHandler& handler = CVHandler::Instance();
  const std::string decoded = CVTextEscaping::URLDecodedString(url);
  auto login = handler.TestLogin(decoded, user, password);
  if (login.kind == CVHandler::LoginTest::Kind::Refused) {
    probe.kind = Kind::Refused;
    probe.detail = login.text;
    return probe;
  }
  if (login.kind == CVHandler::LoginTest::Kind::Unreachable) {
    probe.kind = Kind::Unreachable;
    probe.detail = login.text;
    return probe;
  }
  const std::string wsUrl = CVStaticHelpers::GenerateWSUrls(decoded)["wsUrlRes"];
  probe.devStatus = handler.GetDeviceStatusWithToken(login.text, wsUrl);
  CVEventLogger::WriteSettingsLogMessage("AccountProbe -> device status: " + probe.devStatus);
  if (probe.devStatus.empty()) {
    probe.kind = Kind::Unreachable;
    probe.detail = "no device status";
    return probe;
  }
  if (probe.devStatus == "-3;Incorrect format Token" || probe.devStatus.rfind("-1;", 0) == 0) {
    probe.kind = Kind::AccessRefused;
    return probe;
  }
  if (probe.devStatus != "1;A") {
    probe.kind = Kind::DeviceRefused;
    return probe;
  }
  auto reply = handler.GetDefaultConfigForNewSettings(login.text, wsUrl);
  probe.policy = reply ? MyParser::GetParsedStringForNode("GetDefaultSettings2Result", *reply) : "";
  if (Policy::IsNoPolicy(probe.policy)) {
    probe.kind = Kind::NoPolicy;
    probe.detail = probe.policy.empty() ? "the policy is empty" : probe.policy;
    probe.policy.clear();
    return probe;
  }
  probe.kind = Kind::Ok;
  return probe;
}

std::string AccountProbe::DeviceRefusedText(const std::string& status) {
  return "This device may not sync with the server (device status \"" + status +
         "\"). Please ask your administrator.";
}
