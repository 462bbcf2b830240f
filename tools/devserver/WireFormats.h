#pragma once
// WireFormats: the small text and byte conversions of the wire as the server
// writes it: XML text escaping, the percent-encoding of listed paths, gzip
// members, lower-case GUIDs. Kept apart from the client's helpers on purpose:
// a fault in a shared helper would hide on both sides of the wire.

#include <cstdint>
#include <string>
#include <string_view>

namespace devserver {

// Escapes text for an XML element body, once: "&", "<", ">"; a carriage return
// as a character reference so that it survives the reader's line-end handling.
// Control characters that XML 1.0 cannot carry become U+FFFD.
std::string EscapeXmlText(std::string_view text);
// "<name>text</name>" with the text escaped once.
std::string XmlElement(const std::string& name, std::string_view text);

// Milliseconds since 1970 as "yyyy-MM-ddTHH:mm:ss.fffZ" in UTC.
std::string MillisecondTimeText(std::int64_t ms);

// Percent-encodes UTF-8 bytes: everything but the unreserved characters
// (A-Z a-z 0-9 - . _ ~) and `keep` becomes %XX with upper-case hex digits.
std::string PercentEncode(std::string_view text, char keep);

// One gzip member holding `data`.
std::string GzipMember(std::string_view data);

// Standard base64 with padding, as Content-MD5 and the part hashes carry MD5s.
std::string Base64Encode(std::string_view bytes);

// A new random GUID, 36 characters, lower case.
std::string NewLowerGuid();

// ASCII lower case; other bytes stay as they are.
std::string AsciiLower(std::string_view text);
bool EqualsIgnoreAsciiCase(std::string_view a, std::string_view b);
bool StartsWithIgnoreAsciiCase(std::string_view text, std::string_view prefix);

std::string_view TrimSpaces(std::string_view text);

// Parses a whole decimal number without sign; false for anything else,
// including an overflow.
bool ParseUnsigned(std::string_view text, unsigned long long& value);

}  // namespace devserver
