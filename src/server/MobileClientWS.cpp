#include "MobileClientWS.h"

#include "CVHandler.h"
#include "CVTextEscaping.h"
#include "MyParser.h"
#include "WSCommonMethods.h"

std::string MobileClientWS::Login(const std::string& user, const std::string& password,
                                  const std::string& storageUrl, const std::string& storageType,
                                  const std::string& cvToken) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  auto escape = CVTextEscaping::AddSpecialSymbols;
  return WSCommonMethods::ProcessWebServiceRequest(
      {escape(user), escape(password), escape(storageUrl), escape(storageType), cvToken},
      {"Username", "Password", "StorageUrl", "StorageType", "CVToken"}, "Login", handler.mobileUrl());
}

std::optional<std::string> MobileClientWS::LoginEx(const std::string& externalGuid,
                                                   const std::string& cvToken) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return WSCommonMethods::ProcessDataWebServiceRequest({externalGuid, cvToken},
                                                       {"ExternalGuid", "CVToken"}, "LoginEx",
                                                       handler.mobileUrl());
}

std::optional<std::string> MobileClientWS::GetSystemConfig(const std::string& token) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return WSCommonMethods::ProcessDataWebServiceRequest({token}, {"Token"}, "GetSystemConfig",
                                                       handler.mobileUrl());
}

std::optional<std::string> MobileClientWS::GetFileInfo(const std::string& token, const std::string& path) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  auto data = WSCommonMethods::ProcessDataWebServiceRequest(
      {token, CVTextEscaping::AddSpecialSymbols(path)}, {"Token", "Path"}, "GetFileInfo",
      handler.mobileUrl());
  if (!data || data->empty()) return std::nullopt;
  return MyParser::GetParsedStringForNode("GetFileInfoResult", *data);
}
