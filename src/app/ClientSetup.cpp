#include "ClientSetup.h"

#include "ASIHTTPRequest.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "Clock.h"
#include "Policy.h"
#include "Version.h"

void ClientSetup::PrepareProcess(std::shared_ptr<const Clock> clock) {
  ASIHTTPRequest::SetClock(std::move(clock));
  CVHandler::Instance().SetAppVersion(CORVALINK_VERSION);
  // After each main login the server's switches replace the account's, and the
  // side files the file manager reads follow them.
  CVHandler::Instance().SetPolicyHandler([](const std::string& policy) {
    Policy::ParseCorvalinkConfigNewBase(policy);
    CVConfiguration::Instance().SaveConfigXML();
    CVEventLogger::WriteSettingsLogMessage("Policy applied after login");
  });
}
