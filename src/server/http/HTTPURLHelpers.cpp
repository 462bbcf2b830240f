#include "HTTPURLHelpers.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace {

struct UrlDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlDeleter>;

std::string Part(CURLU* handle, CURLUPart part, unsigned int flags = 0) {
  char* value = nullptr;
  if (curl_url_get(handle, part, &value, flags) != CURLUE_OK || !value) return "";
  std::string text(value);
  curl_free(value);
  return text;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

UrlHandle Parse(const std::string& url) {
  UrlHandle handle(curl_url());
  if (!handle) return nullptr;
  if (curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return nullptr;
  return handle;
}

}  // namespace

bool HTTPURLHelpers::IsHTTPURL(const std::string& url) {
  if (url.find_first_of("\r\n") != std::string::npos) return false;
  UrlHandle handle = Parse(url);
  if (!handle) return false;
  std::string scheme = Lower(Part(handle.get(), CURLUPART_SCHEME));
  return (scheme == "http" || scheme == "https") && !Part(handle.get(), CURLUPART_HOST).empty();
}

std::string HTTPURLHelpers::Origin(const std::string& url) {
  UrlHandle handle = Parse(url);
  if (!handle) return "";
  std::string scheme = Lower(Part(handle.get(), CURLUPART_SCHEME));
  std::string host = Lower(Part(handle.get(), CURLUPART_HOST));
  std::string port = Part(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
  if (scheme.empty() || host.empty()) return "";
  return scheme + "://" + host + ":" + port;
}

std::optional<std::string> HTTPURLHelpers::ResolveLocation(const std::string& base,
                                                           const std::string& location) {
  if (location.empty() || location.find_first_of("\r\n") != std::string::npos) return std::nullopt;
  UrlHandle handle = Parse(base);
  if (!handle) return std::nullopt;
  // Setting a relative URL on a parsed one resolves it against that one.
  if (curl_url_set(handle.get(), CURLUPART_URL, location.c_str(), CURLU_URLENCODE) != CURLUE_OK) {
    return std::nullopt;
  }
  std::string resolved = Part(handle.get(), CURLUPART_URL);
  if (resolved.empty() || !IsHTTPURL(resolved)) return std::nullopt;
  return resolved;
}
