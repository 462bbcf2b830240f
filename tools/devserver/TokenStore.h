#pragma once
// TokenStore: the session tokens the server has handed out. Three kinds: the
// main token (Login on the main or share service), a storage token (Login on
// the mobile service) and an upload request token (LoginEx). Tokens are
// lower-case GUIDs and are compared exactly. Thread-safe.

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace devserver {

enum class TokenKind { Main, Storage, UploadRequest };

struct TokenInfo {
  std::string user;
  TokenKind kind = TokenKind::Main;
  std::string scope;  // the storage's name, or the upload request's GUID
};

class TokenStore {
 public:
  std::string Issue(const std::string& user, TokenKind kind, const std::string& scope = {});
  // The token's owner when the token is valid.
  std::optional<TokenInfo> Find(const std::string& token) const;
  void Invalidate(const std::string& token);
  void InvalidateAll();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, TokenInfo> tokens_;
};

}  // namespace devserver
