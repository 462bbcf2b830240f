// GetSharedStorages: the storages shared with the user, on the share service.

#include "CVHandler.h"
#include "CVTextEscaping.h"
#include "CorvalinkWS.h"
#include "WSCommonMethods.h"

std::optional<std::string> CorvalinkWS::GetSharedStoragesWithToken(const std::string& token) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  // Options is a fragment and goes in raw; its one free value is escaped here, once.
  std::string options =
      "<Token>" + CVTextEscaping::AddSpecialSymbols(token) + "</Token>" + "<ByRecipient>true</ByRecipient>" +
      "<Detailed>true</Detailed>" + "<CalculateFolderSize>false</CalculateFolderSize>" +
      "<RefreshCache>true</RefreshCache>" + "<Path></Path>" + "<NewErrorCodes>true</NewErrorCodes>";
  return WSCommonMethods::ProcessDataWebServiceRequest({options}, {"Options"}, "GetSharedStorages",
                                                       handler.shareUrl());
}
