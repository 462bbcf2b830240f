#pragma once
// CVHandler: the process-wide session: the server's endpoints, the cache of login
// tokens (main, per storage, per upload request), the connection probe and the
// server's version. Tokens live in memory only: made when asked for and missing,
// dropped when the server refuses them. The token list has its own lock; no
// network call is made under it.

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ShareRecords.h"

struct CVTokenCollection {
  std::string TokenDesc;  // the key
  std::string Token;
};

class CVHandler {
 public:
  static constexpr const char* kMainTokenKey = "4b7e21c0-93d6-4a1f-8c55-2de07f61a9b3";

  static CVHandler& Instance();
  static void ResetForTests();

  // Rebuilds the endpoints from the configured server URL (which gets a final "/").
  void RegenWsURL();
  std::string url() const;
  std::string wsUrl() const;
  std::string mobileUrl() const;
  std::string adUrl() const;
  std::string shareUrl() const;
  std::string downloadFileUrl() const;
  std::string getFileUrl() const;
  std::string getMyFileUrl() const;
  std::string uploadFile() const;

  std::vector<CVTokenCollection> GetTokenCol() const;
  // A token for the key, logging in when there is none; "" when none can be had.
  std::string CheckCVToken(const std::string& key);
  void RemoveCVToken(const std::string& key);
  // CheckCVToken's token when it gives one; "" otherwise (nothing, or an "err"
  // text), with the key dropped so that the next ask logs in anew.
  std::string UsableCVToken(const std::string& key);
  // A reply that says the token is unknown or expired: "-1;" or "-3;".
  static bool IsBadTokenReply(const std::string& reply);
  // A reply that says the server has no item at the path: "-100;" or "-6;".
  static bool IsNotFoundReply(const std::string& reply);
  void RemoveCVTokenForTokenValue(const std::string& token);
  void RemoveAllTokens();

  bool Login();
  bool LoginMobile(std::size_t index);
  // Tests a storage's credentials before the storage exists; keeps no token.
  bool LoginMobile(const std::string& url, const std::string& username, const std::string& password,
                   const std::string& type);
  // The token of a login on a server that is not saved yet, or exactly "-1;".
  std::string TestLoginWithUrl(const std::string& url, const std::string& userName,
                               const std::string& password);
  // The same login told apart: a token, a refusal of the credentials (the
  // server's "-1;..." text), or no usable answer (no server, a transport error,
  // an empty reply), which says nothing about the password.
  struct LoginTest {
    enum class Kind { Token, Refused, Unreachable };
    Kind kind = Kind::Unreachable;
    std::string text;  // the token, the refusal, or what went wrong
  };
  LoginTest TestLogin(const std::string& url, const std::string& userName, const std::string& password);

  std::optional<std::string> GetDefaultConfig();
  std::optional<std::string> GetDefaultConfigForNewSettings(const std::string& token,
                                                            const std::string& wsUrl);

  std::string GetDeviceStatus();
  std::string GetDeviceStatusWithToken(const std::optional<std::string>& token,
                                       const std::optional<std::string>& url);
  std::string GetDeviceStatusAutoReloginIfIncorrectToken();
  std::string devStatus() const;
  void setDevStatus(const std::string& status);

  void RunVersionWS();
  // 4 from 6.0 on, 3 from 5.2, 2 from 5.1, 1 from 5.0, else 0.
  int GetWSVersion();
  static int VersionLevel(const std::string& version);
  std::string VersionText();

  std::string GetFileInfoReturnForPath(const std::string& serverPath, const std::string& WithSiteName);
  std::optional<std::vector<std::string>> GetFileInfo(const std::string& serverPath,
                                                      const std::string& siteName);
  static std::optional<std::vector<std::string>> ParseGetFileInfo(const std::string& result);

  std::int64_t GetPartSizeNSNumber();
  std::string GetCompressedTypesString();
  std::string GetCompressedTypesStringForSite(const std::string& siteName);
  bool isFileNeedToBeCompressed(const std::string& extension);
  // One page (from 0) of the account's usage history; nothing when the main
  // token was refused twice.
  std::optional<std::vector<WSUsageHistory>> GetUsageHistory(long pageNum);

  // The application's version as the login tells the server.
  void SetAppVersion(const std::string& version);
  std::string appVersion() const;
  // What the session does with the policy text after a main login.
  void SetPolicyHandler(std::function<void(const std::string& policy)> handler);

  bool isLocked = false;

 private:
  CVHandler() = default;
  // Runs work with the main probe's blessing, in at most two rounds.
  template <typename Work>
  auto TwoRounds(const std::string& tokenKey, Work work) -> decltype(work(std::string()));
  std::optional<std::string> SystemConfigField(const std::string& tokenKey, std::size_t field,
                                               std::size_t minimumFields);
  std::optional<std::string> FindToken(const std::string& key) const;
  void AddToken(const std::string& key, const std::string& token);

  mutable std::mutex lock_;  // guards everything below
  std::string url_, wsUrl_, mobileUrl_, adUrl_, shareUrl_, downloadFileUrl_, getFileUrl_,
      getMyFileUrl_, uploadFile_;
  std::vector<CVTokenCollection> tokens_;
  std::string devStatus_;
  std::string compressedTypes_;
  bool compressedTypesFetched_ = false;
  std::optional<std::string> versionWSBackup_;
  std::string appVersion_ = "0.0.0";
  std::function<void(const std::string&)> policyHandler_;
};
