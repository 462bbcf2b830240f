#include "VersionService.h"

#include "CVHandler.h"
#include "MobileClientWS.h"
#include "MyParser.h"

namespace {

// Runs call with the storage's token, and once more with a new one when the
// server refused the first; isRefusal tells a refusal from the call's result.
template <typename Result, typename Call, typename IsRefusal>
Result WithStorageToken(const std::string& siteName, Result none, Call call, IsRefusal isRefusal) {
  CVHandler& handler = CVHandler::Instance();
  for (int pass = 0; pass < 2; ++pass) {
    const std::string token = handler.UsableCVToken(siteName);
    if (token.empty()) continue;
    Result result = call(token);
    if (!isRefusal(result)) return result;
    handler.RemoveCVToken(siteName);
  }
  return none;
}

}  // namespace

std::optional<std::string> ServerVersionService::GetVersions(const FileOnServer& file) {
  return WithStorageToken<std::optional<std::string>>(
      file.siteName, std::nullopt, [&](const std::string& token) { return MobileClientWS().GetVersions(token, file.serverPath); },
      [](const std::optional<std::string>& reply) {
        return reply && CVHandler::IsBadTokenReply(MyParser::GetParsedStringForNode("GetVersionsResult", *reply));
      });
}

std::string ServerVersionService::SwitchToVersion(const FileOnServer& file, const std::string& version) {
  return WithStorageToken<std::string>(
      file.siteName, "", [&](const std::string& token) { return MobileClientWS().SwitchToVersion(token, file.serverPath, version); },
      [](const std::string& reply) { return CVHandler::IsBadTokenReply(reply); });
}

bool ServerVersionService::DownloadFileVersionToPath(const std::string& target, const std::string& version,
                                                     const FileOnServer& file, std::int64_t size,
                                                     const std::function<void(std::int64_t)>& progress) {
  bool refused = false;
  return WithStorageToken<bool>(
      file.siteName, false,
      [&](const std::string& token) {
        AsyncSharedDownloader downloader;
        downloader.onProgress = progress;
        const bool ok = downloader.DownloadFileVersionToPath(target, version, file.serverPath, token, size);
        refused = downloader.downloadCancelReason() == AsyncSharedDownloader::kReasonNotAuthorized;
        return ok;
      },
      [&](bool) { return refused; });
}
