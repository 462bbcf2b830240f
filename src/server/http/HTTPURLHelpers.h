#pragma once
// HTTPURLHelpers: what the request engine needs to know about URLs: whether one
// can be requested, where a Location points, and whether two URLs share an
// origin (scheme, host and port), which decides what may follow a redirect.

#include <optional>
#include <string>

class HTTPURLHelpers {
 public:
  // An absolute http or https URL with a host.
  static bool IsHTTPURL(const std::string& url);
  // "scheme://host:port" in lower case with the default port filled in; "" when
  // the URL cannot be read.
  static std::string Origin(const std::string& url);
  // The URL a Location value points to, relative ones read against base.
  static std::optional<std::string> ResolveLocation(const std::string& base,
                                                    const std::string& location);
};
