#include "ConnectionService.h"

#include "CVEventLogger.h"

std::string OfflineConnectionService::CheckCVToken(const std::string&) {
  CVEventLogger::WriteMainLogMessage(
      "CheckCVToken: this build has no server session; the client stays offline");
  return "";
}
