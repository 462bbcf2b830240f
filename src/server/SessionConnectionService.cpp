#include "SessionConnectionService.h"

#include "CVHandler.h"
#include "CorvalinkWS.h"
#include "ServerTrust.h"

std::string SessionConnectionService::CheckCVToken(const std::string& guid) {
  return CVHandler::Instance().CheckCVToken(guid);
}

void SessionConnectionService::RemoveCVToken(const std::string& guid) {
  CVHandler::Instance().RemoveCVToken(guid);
}

std::string SessionConnectionService::GetDeviceStatus(const std::string& token) {
  return CVHandler::Instance().GetDeviceStatusWithToken(token, std::nullopt);
}

void SessionConnectionService::setDevStatus(const std::string& status) {
  CVHandler::Instance().setDevStatus(status);
}

std::string SessionConnectionService::GetVersion() { return CorvalinkWS().GetVersion(); }

std::optional<std::string> SessionConnectionService::CertificateProblem() {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  auto failure = ServerTrust::FailureFor(handler.url());
  if (!failure) return std::nullopt;
  return ServerTrust::Describe(*failure);
}
