#include "MobileClientWS.h"

#include <exception>

#include "ASIHTTPRequest.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVTextEscaping.h"
#include "MyParser.h"
#include "WSCommonMethods.h"

namespace {

constexpr const char* kClass = "MobileClientWS";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}

std::string Escaped(const std::string& text) { return CVTextEscaping::AddSpecialSymbols(text); }

}  // namespace

std::string MobileClientWS::Login(const std::string& user, const std::string& password,
                                  const std::string& storageUrl, const std::string& storageType,
                                  const std::string& cvToken) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  return WSCommonMethods::ProcessWebServiceRequest(
      {Escaped(user), Escaped(password), Escaped(storageUrl), Escaped(storageType), cvToken},
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
  try {
    CVHandler& handler = CVHandler::Instance();
    handler.RegenWsURL();
    auto data = WSCommonMethods::ProcessDataWebServiceRequest({token, Escaped(path)}, {"Token", "Path"},
                                                              "GetFileInfo", handler.mobileUrl());
    if (!data || data->empty()) return std::nullopt;
    return MyParser::GetParsedStringForNode("GetFileInfoResult", *data);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetFileInfo", failure.what());
    return std::string();
  }
}

std::string MobileClientWS::ResultOf(const std::string& method, const std::vector<std::string>& values,
                                     const std::vector<std::string>& keys) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  auto data = WSCommonMethods::ProcessDataWebServiceRequest(values, keys, method, handler.mobileUrl());
  if (!data || data->empty()) return "";
  return MyParser::GetParsedStringForNode(method + "Result", *data);
}

// --- Partial upload ---

std::optional<std::vector<std::string>> MobileClientWS::GetHashesWithToken(const std::string&,
                                                                           const std::string& path,
                                                                           std::int64_t PartSize,
                                                                           const std::string& WithSPSiteName) {
  return GetHashesWithServerPath(path, PartSize, WithSPSiteName);
}

std::optional<std::vector<std::string>> MobileClientWS::GetHashesWithServerPath(
    const std::string& path, std::int64_t PartSize, const std::string& WithSPSiteName) {
  CVHandler& handler = CVHandler::Instance();
  std::optional<std::vector<std::string>> hashes;
  try {
    if (PartSize == 0) PartSize = handler.GetPartSizeNSNumber() << 10;
    for (int pass = 0; pass < 2; ++pass) {
      handler.RegenWsURL();
      std::string token = handler.UsableCVToken(WithSPSiteName);
      if (token.empty()) continue;
      auto data = WSCommonMethods::ProcessDataWebServiceRequest(
          {token, Escaped(path), std::to_string(PartSize)}, {"Token", "Path", "PartSize"}, "GetHashes",
          handler.mobileUrl());
      // A reply without the list is no answer at all, not a list of no parts:
      // taken for one, it would make the upload start over.
      if (!data || data->find("GetHashesResult") == std::string::npos) {
        Log("GetHashes", "no list of hashes in the reply for " + path);
        hashes.reset();
        continue;
      }
      MyParser parser;
      std::vector<std::string> list = MyParser::StringsOf(parser.GetParsedArrayForNode("GetHashesResult", *data));
      if (list.size() != 1) return list;
      const std::string code = list.front().substr(0, list.front().find(';'));
      if (code == "-100" || code == "-1" || code == "-3") {
        Log("GetHashes", "token refused (" + list.front() + ") for " + WithSPSiteName);
        handler.RemoveCVToken(WithSPSiteName);
        hashes.reset();
        continue;
      }
      if (code == "-7") {
        hashes = std::vector<std::string>();
        continue;
      }
      return list;  // a file of one part
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetHashes", failure.what());
    return std::nullopt;
  }
  return hashes;
}

std::string MobileClientWS::GetFileHashWithToken(const std::string& token, const std::string& path,
                                                 std::int64_t PartSize, bool WithTempFile) {
  try {
    CVHandler& handler = CVHandler::Instance();
    handler.RegenWsURL();
    if (PartSize == 0) PartSize = handler.GetPartSizeNSNumber();
    auto data = WSCommonMethods::ProcessDataWebServiceRequest(
        {token, Escaped(path), std::to_string(PartSize), WithTempFile ? "true" : "false"},
        {"Token", "Path", "PartSize", "TempFile"}, "GetFileHash", handler.mobileUrl());
    if (!data || data->empty()) return "";
    return MyParser::GetParsedStringForNode("PartialHash", *data);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetFileHashWithToken", failure.what());
    return "";
  }
}

std::string MobileClientWS::MD5Fragment(const std::vector<std::string>& hashes) {
  std::string fragment;
  for (const auto& hash : hashes) fragment += "<string>" + Escaped(hash) + "</string>";
  return fragment;
}

int MobileClientWS::FinishPartialUploadWithForSite(const std::string& siteName, const std::string& path,
                                                   std::int64_t PartSize,
                                                   const std::vector<std::string>& WithMD5Array) {
  CVHandler& handler = CVHandler::Instance();
  try {
    for (int pass = 0; pass < 2; ++pass) {
      std::string token = handler.UsableCVToken(siteName);
      if (token.empty()) continue;
      std::string reply = ResultOf("FinishPartialUpload",
                                   {token, Escaped(path), std::to_string(PartSize), MD5Fragment(WithMD5Array)},
                                   {"Token", "Path", "PartSize", "MD5"});
      Log("FinishPartialUpload", "Finish part upload result: " + reply);
      if (CVHandler::IsBadTokenReply(reply)) {
        handler.RemoveCVToken(siteName);
        continue;
      }
      if (reply.starts_with("0;")) return 0;
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "FinishPartialUpload", failure.what());
  }
  return -1;
}

std::string MobileClientWS::CancelPartialUploadWithToken(const std::string& token, const std::string& path) {
  std::string reply;
  for (int pass = 0; pass < 2; ++pass) {
    reply = ResultOf("CancelPartialUpload", {token, Escaped(path)}, {"Token", "Path"});
    Log("CancelPartialUpload", "Cancel part upload result: " + reply);
    if (reply.starts_with("0;")) {
      Log("CancelPartialUpload", "Cancel part upload successfully");
      break;
    }
    if (CVHandler::IsBadTokenReply(reply)) CVHandler::Instance().RemoveCVTokenForTokenValue(token);
  }
  return reply;
}

// --- Versions ---

std::string MobileClientWS::SwitchToVersion(const std::string& token, const std::string& path,
                                            const std::string& version) {
  return ResultOf("SwitchToVersion", {token, Escaped(path), Escaped(version)}, {"Token", "Path", "Version"});
}

std::optional<std::string> MobileClientWS::GetVersions(const std::string& token, const std::string& path) {
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  auto data = WSCommonMethods::ProcessDataWebServiceRequest({token, Escaped(path)}, {"Token", "Path"},
                                                            "GetVersions", handler.mobileUrl());
  if (!data || data->empty()) return std::nullopt;
  return data;
}

// --- Changes of the server's tree ---

std::string MobileClientWS::MoveFile(const std::string& token, const std::string& CurrentFileName,
                                     const std::string& NewFileName) {
  return ResultOf("MoveFile", {token, Escaped(CurrentFileName), Escaped(NewFileName)},
                  {"Token", "CurrentFileName", "NewFileName"});
}

std::string MobileClientWS::DeleteFile(const std::string& token, const std::string& path) {
  return ResultOf("DeleteFile", {token, Escaped(path)}, {"Token", "Path"});
}

std::string MobileClientWS::CreateFolder(const std::string& token, const std::string& path) {
  return ResultOf("CreateFolder", {token, Escaped(path)}, {"Token", "Path"});
}

std::string MobileClientWS::DeleteFolder(const std::string& token, const std::string& path) {
  return ResultOf("DeleteFolder", {token, Escaped(path)}, {"Token", "Path"});
}

std::string MobileClientWS::deleteFileResultStr() const {
  std::lock_guard<std::mutex> lock(resultLock_);
  return DeleteFileResultStr;
}

std::string MobileClientWS::DeleteFileAsync(const std::string& token, const std::string& path) {
  try {
    CVHandler& handler = CVHandler::Instance();
    handler.RegenWsURL();
    auto request = WSCommonMethods::CreateASIHTTPRequestForMethod(
        "DeleteFile", {{"Token", token}, {"Path", Escaped(path)}}, handler.mobileUrl());
    request->setTimeOutSeconds(WSCommonMethods::DataCallTimeOut("DeleteFile"));
    auto starting = [this] {
      std::lock_guard<std::mutex> lock(resultLock_);
      DeleteFileResultStr.clear();
      DeleteFileAsyncInProgress = true;
    };
    starting();
    request->setDidStartSelector([starting](ASIHTTPRequest&) { starting(); });
    request->setDidFinishSelector([this](ASIHTTPRequest& finished) {
      const int status = finished.responseStatusCode();
      std::lock_guard<std::mutex> lock(resultLock_);
      DeleteFileResultStr =
          status >= 200 && status <= 299 && !finished.error() ? finished.responseString() : "err";
      DeleteFileAsyncInProgress = false;
    });
    request->setDidFailSelector([this](ASIHTTPRequest&) {
      std::lock_guard<std::mutex> lock(resultLock_);
      DeleteFileResultStr = "err";
      DeleteFileAsyncInProgress = false;
    });
    request->startAsynchronous();
    // The last event is delivered before the request counts as finished.
    request->waitUntilFinished();
    request->clearDelegatesAndCancel();
    DeleteFileAsyncInProgress = false;
    return deleteFileResultStr();
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "DeleteFileAsync", failure.what());
    DeleteFileAsyncInProgress = false;
    return "err";
  }
}
