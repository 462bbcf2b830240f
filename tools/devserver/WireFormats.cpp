#include "WireFormats.h"

#include <cstdio>
#include <ctime>

#include <openssl/evp.h>
#include <uuid/uuid.h>
#include <zlib.h>

#include <charconv>
#include <stdexcept>

namespace devserver {

std::string EscapeXmlText(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\r':
        out += "&#xD;";
        break;
      default:
        if (byte < 0x20 && c != '\t' && c != '\n') {
          out += "\xEF\xBF\xBD";
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string PercentEncode(std::string_view text, char keep) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3 / 2);
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool unreserved = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                            (byte >= '0' && byte <= '9') || c == '-' || c == '.' || c == '_' ||
                            c == '~';
    if (unreserved || c == keep) {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0x0F];
    }
  }
  return out;
}

std::string GzipMember(std::string_view data) {
  z_stream zs{};
  // 15 + 16: the largest window, wrapped as gzip rather than zlib.
  if (deflateInit2(&zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    throw std::runtime_error("deflateInit2 failed");
  }
  std::string out;
  out.resize(deflateBound(&zs, static_cast<uLong>(data.size())) + 32);
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  zs.avail_in = static_cast<uInt>(data.size());
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  const int rc = deflate(&zs, Z_FINISH);
  const auto written = zs.total_out;
  deflateEnd(&zs);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate did not finish");
  out.resize(written);
  return out;
}

std::string Base64Encode(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(written));
  return out;
}

std::string NewLowerGuid() {
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_lower(id, text);
  return text;
}

std::string AsciiLower(std::string_view text) {
  std::string out(text);
  for (auto& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool EqualsIgnoreAsciiCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && AsciiLower(a) == AsciiLower(b);
}

bool StartsWithIgnoreAsciiCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         EqualsIgnoreAsciiCase(text.substr(0, prefix.size()), prefix);
}

std::string_view TrimSpaces(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

bool ParseUnsigned(std::string_view text, unsigned long long& value) {
  if (text.empty()) return false;
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  return ec == std::errc() && ptr == end;
}

}  // namespace devserver

namespace devserver {

std::string XmlElement(const std::string& name, std::string_view text) {
  return "<" + name + ">" + EscapeXmlText(text) + "</" + name + ">";
}

std::string MillisecondTimeText(std::int64_t ms) {
  const auto seconds = static_cast<std::time_t>(ms / 1000);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[96];  // room for any int the format could print
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(ms % 1000));
  return text;
}

}  // namespace devserver
