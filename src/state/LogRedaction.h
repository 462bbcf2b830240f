#pragma once
// LogRedaction: keeps passwords and session tokens out of the logs and of the
// log export. Every line passes Redacted before it is written: the secrets the
// process has sent (registered by the call core) are masked wherever they
// appear, and so is the text of the elements and fields that carry secrets
// (a login's reply, Password, Token, token= in a query), also before a token is
// known, and in logs that an earlier version wrote. Thread-safe.

#include <string>

class LogRedaction {
 public:
  static constexpr const char* kMask = "********";
  // Texts shorter than 4 characters are not registered: they would mask common words.
  static void AddSecret(const std::string& secret);
  static void ForgetSecrets();
  static std::string Redacted(std::string text);
};
