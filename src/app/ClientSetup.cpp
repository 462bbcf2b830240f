#include "ClientSetup.h"

#include <mutex>
#include <ostream>

#include "ASIHTTPRequest.h"
#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "Clock.h"
#include "Keyring.h"
#include "Policy.h"
#include "Version.h"

bool ClientSetup::PrepareCommand(double timeScale, std::ostream& err) {
  CVEventLogger::SetConsoleEcho(false);
  CVStaticHelpers::CreateSettingsFolder();
  PrepareProcess(std::make_shared<Clock>(timeScale));
  InstallKeyring();
  CVConfiguration& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  if (!config.Corvalink.Url.empty() && !config.Corvalink.UserName.empty()) return true;
  err << "No account is signed in." << std::endl;
  return false;
}

void ClientSetup::InstallKeyring() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::string reason;
    auto keyring = SecretServiceKeyring::IfOnSessionBus(reason);
    CVEventLogger::WriteSettingsLogMessage(keyring ? "The password is kept in the desktop's keyring"
                                                   : "The password is kept in Configuration.xml: no keyring (" +
                                                         reason + ")");
    CVConfiguration::Instance().SetKeyring(std::move(keyring));
  });
}

void ClientSetup::PrepareProcess(std::shared_ptr<const Clock> clock) {
  InstallKeyring();
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

