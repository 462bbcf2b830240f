#include "TokenStore.h"

#include "WireFormats.h"

namespace devserver {

std::string TokenStore::Issue(const std::string& user, TokenKind kind, const std::string& scope) {
  std::string token = NewLowerGuid();
  std::lock_guard<std::mutex> lock(mutex_);
  tokens_[token] = TokenInfo{user, kind, scope};
  return token;
}

std::optional<TokenInfo> TokenStore::Find(const std::string& token) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = tokens_.find(token);
  if (it == tokens_.end()) return std::nullopt;
  return it->second;
}

void TokenStore::Invalidate(const std::string& token) {
  std::lock_guard<std::mutex> lock(mutex_);
  tokens_.erase(token);
}

void TokenStore::InvalidateAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  tokens_.clear();
}

}  // namespace devserver
