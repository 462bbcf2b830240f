#include "CVTextEscaping.h"

#include <array>
#include <utility>

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsValidUtf8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    auto byte = static_cast<unsigned char>(text[i]);
    std::size_t length;
    unsigned int codePoint;
    if (byte < 0x80) {
      ++i;
      continue;
    } else if ((byte & 0xE0) == 0xC0) {
      length = 2;
      codePoint = byte & 0x1F;
    } else if ((byte & 0xF0) == 0xE0) {
      length = 3;
      codePoint = byte & 0x0F;
    } else if ((byte & 0xF8) == 0xF0) {
      length = 4;
      codePoint = byte & 0x07;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode are not text.
    static constexpr unsigned int kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  std::size_t position = 0;
  while ((position = text.find(from, position)) != std::string::npos) {
    text.replace(position, from.size(), to);
    position += to.size();
  }
  return text;
}

using Pair = std::pair<const char*, const char*>;
constexpr std::array<Pair, 5> kEntities = {
    {{"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&apos;"}}};

}  // namespace

std::string CVTextEscaping::URLEncodedString(const std::string& text) { return PercentEncoded(text, ""); }

std::string CVTextEscaping::PercentEncoded(const std::string& text, std::string_view kept) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size());
  for (unsigned char c : text) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~' || (c != 0 && kept.find(static_cast<char>(c)) != std::string_view::npos)) {
      escaped += static_cast<char>(c);
    } else {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 0x0F];
    }
  }
  return escaped;
}

std::string CVTextEscaping::URLDecodedString(const std::string& text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  // Escaped bytes that make no text are kept escaped rather than handed on broken.
  if (!IsValidUtf8(decoded)) return text;
  return decoded;
}

std::string CVTextEscaping::AddSpecialSymbols(const std::string& text) {
  std::string escaped = text;
  for (const auto& [plain, entity] : kEntities)
    escaped = ReplaceAll(std::move(escaped), plain, entity);
  return escaped;
}

std::string CVTextEscaping::ReplaceSpecialSymbols(const std::string& text) {
  std::string plain = text;
  for (const auto& [character, entity] : kEntities) {
    plain = ReplaceAll(std::move(plain), entity, character);
  }
  return plain;
}
