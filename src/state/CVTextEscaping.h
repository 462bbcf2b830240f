#pragma once
// CVTextEscaping: the percent and XML escaping of texts that go into URLs and
// request bodies. Stateless; any thread.

#include <string>
#include <string_view>

class CVTextEscaping {
 public:
  // Percent-escapes the UTF-8 bytes of text; only letters, digits and "-._~"
  // stay as they are, so every reserved character ("!*'();:@&=+$,/?#[]") and
  // "%" are escaped. "" for "".
  static std::string URLEncodedString(const std::string& text);
  // Percent-encoding that keeps the unreserved characters and those of kept.
  static std::string PercentEncoded(const std::string& text, std::string_view kept);
  // Undoes percent escapes. A "%" without two hex digits stays as it is; when the
  // decoded bytes are no valid UTF-8 the text comes back unchanged.
  static std::string URLDecodedString(const std::string& text);
  // "&", "<", ">", '"' and "'" to their XML entities, in that order.
  static std::string AddSpecialSymbols(const std::string& text);
  // The entities back, "&amp;" first, so "&amp;lt;" gives "<".
  static std::string ReplaceSpecialSymbols(const std::string& text);
};
