#include "LogRedaction.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <string_view>

namespace {

std::mutex gLock;
std::set<std::string, std::greater<>> gSecrets;  // longest first among shared prefixes

// Elements whose text is a secret, by local name; matched without regard to case.
constexpr std::string_view kSecretElements[] = {"password", "token", "cvtoken", "loginresult", "loginexresult"};
// Query and form fields whose value is a secret.
constexpr std::string_view kSecretFields[] = {"token=", "password="};

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

void Mask(std::string& text, std::string& lower, std::size_t from, std::size_t to) {
  if (to <= from) return;
  text.replace(from, to - from, LogRedaction::kMask);
  lower.replace(from, to - from, LogRedaction::kMask);
}

// <name ...>secret</name>, also escaped as &lt;name&gt;, with or without a prefix.
void MaskElements(std::string& text, std::string& lower) {
  for (std::string_view open : {std::string_view("<"), std::string_view("&lt;")}) {
    const std::string_view close = open == "<" ? ">" : "&gt;";
    for (std::size_t at = lower.find(open); at != std::string::npos; at = lower.find(open, at + 1)) {
      std::size_t name = at + open.size();
      std::size_t nameEnd = name;
      while (nameEnd < lower.size() && (std::isalnum(static_cast<unsigned char>(lower[nameEnd])) ||
                                        lower[nameEnd] == ':' || lower[nameEnd] == '_')) {
        ++nameEnd;
      }
      std::string_view tag(lower.data() + name, nameEnd - name);
      if (auto colon = tag.rfind(':'); colon != std::string_view::npos) tag.remove_prefix(colon + 1);
      if (std::find(std::begin(kSecretElements), std::end(kSecretElements), tag) == std::end(kSecretElements)) {
        continue;
      }
      const std::size_t tagEnd = lower.find(close, nameEnd);
      if (tagEnd == std::string::npos || lower[tagEnd - 1] == '/') continue;
      const std::size_t from = tagEnd + close.size();
      std::size_t to = lower.find(open, from);
      if (to == std::string::npos) to = lower.size();
      // An error code ("-1;Invalid token") is no secret, and says why a login failed.
      if (from < lower.size() && lower[from] == '-') continue;
      Mask(text, lower, from, to);
    }
  }
}

void MaskFields(std::string& text, std::string& lower) {
  for (std::string_view field : kSecretFields) {
    for (std::size_t at = lower.find(field); at != std::string::npos; at = lower.find(field, at + 1)) {
      if (at > 0 && std::isalnum(static_cast<unsigned char>(lower[at - 1]))) continue;
      const std::size_t from = at + field.size();
      const std::size_t to = std::min(lower.find_first_of("&; \t\r\n\"'<", from), lower.size());
      Mask(text, lower, from, to);
    }
  }
}

}  // namespace

void LogRedaction::AddSecret(const std::string& secret) {
  if (secret.size() < 4 || secret == kMask) return;
  std::lock_guard<std::mutex> lock(gLock);
  gSecrets.insert(secret);
}

void LogRedaction::ForgetSecrets() {
  std::lock_guard<std::mutex> lock(gLock);
  gSecrets.clear();
}

std::string LogRedaction::Redacted(std::string text) {
  {
    std::lock_guard<std::mutex> lock(gLock);
    for (const auto& secret : gSecrets) {
      for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + 1)) {
        text.replace(at, secret.size(), kMask);
      }
    }
  }
  std::string lower = Lower(text);
  MaskElements(text, lower);
  MaskFields(text, lower);
  return text;
}
