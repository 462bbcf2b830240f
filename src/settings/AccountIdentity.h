#pragma once
// AccountIdentity: which account a server address and a user name stand for.
// Two sign-ins are the same account when the normalised address (scheme and host
// in lower case, no default port, no final "/") and the case-folded user name
// agree: "Alice" and "alice" on one server are one account, and the same user on
// another server is another. Only a change of account wipes the local data.

#include <string>

struct AccountIdentity {
  std::string url;
  std::string user;

  static AccountIdentity Of(const std::string& url, const std::string& user);
  static std::string NormalisedUrl(const std::string& url);
  static std::string FoldedUser(const std::string& user);

  bool operator==(const AccountIdentity& other) const = default;
};
