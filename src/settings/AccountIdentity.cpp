#include "AccountIdentity.h"

#include <utf8proc.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "CVStaticHelpers.h"

namespace {
std::string Trimmed(const std::string& text) {
  auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  auto end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}
}  // namespace

std::string AccountIdentity::NormalisedUrl(const std::string& url) {
  std::string text = Trimmed(url);
  auto schemeEnd = text.find("://");
  std::string scheme, rest = text;
  if (schemeEnd != std::string::npos) {
    scheme = CVStaticHelpers::AsciiLower(text.substr(0, schemeEnd));
    rest = text.substr(schemeEnd + 3);
  }
  auto slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  std::string path = slash == std::string::npos ? "" : rest.substr(slash);
  authority = CVStaticHelpers::AsciiLower(authority);
  // The port a scheme takes by default says nothing of the server.
  auto colon = authority.rfind(':');
  if (colon != std::string::npos && authority.find(']', colon) == std::string::npos) {
    std::string port = authority.substr(colon + 1);
    if ((scheme == "http" && port == "80") || (scheme == "https" && port == "443") || port.empty()) {
      authority.erase(colon);
    }
  }
  while (!path.empty() && path.back() == '/') path.pop_back();
  return (scheme.empty() ? "" : scheme + "://") + authority + path;
}

std::string AccountIdentity::FoldedUser(const std::string& user) {
  std::string text = Trimmed(user);
  utf8proc_uint8_t* folded = nullptr;
  utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(text.size()),
                   &folded, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD));
  if (length < 0 || !folded) {
    std::free(folded);
    return CVStaticHelpers::AsciiLower(text);  // not UTF-8: fold what can be folded
  }
  std::string result(reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length));
  std::free(folded);
  return result;
}

AccountIdentity AccountIdentity::Of(const std::string& url, const std::string& user) {
  return {NormalisedUrl(url), FoldedUser(user)};
}
