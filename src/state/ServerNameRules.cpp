#include "ServerNameRules.h"

#include <limits.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>

#include "CVStaticHelpers.h"

namespace {

// The characters a Windows share refuses in a name, control characters apart.
constexpr std::string_view kRefused = "\\/:*?\"<>|";
// A download is written as ".NAME.cvtemp" beside its target first.
constexpr std::size_t kTemporaryNameExtra = 8;

// The part before the first dot, which is what Windows reads as a device name.
bool IsDeviceName(std::string_view name) {
  const std::string stem = CVStaticHelpers::AsciiLower(std::string(name.substr(0, name.find('.'))));
  if (stem == "con" || stem == "prn" || stem == "aux" || stem == "nul") return true;
  return stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) && stem[3] >= '1' &&
         stem[3] <= '9';
}

bool IsRefusedCharacter(unsigned char c) { return c < 0x20 || kRefused.find(static_cast<char>(c)) != std::string_view::npos; }

}  // namespace

bool ServerNameRules::IsShareKind(const std::string& storageType) {
  const std::string type = CVStaticHelpers::AsciiLower(storageType);
  return type == "cifs" || type == "sp" || type == "o365";
}

std::string ServerNameRules::NameProblem(std::string_view name, const std::string& storageType) {
  if (!IsShareKind(storageType)) return "";
  for (unsigned char c : name) {
    if (!IsRefusedCharacter(c)) continue;
    const std::string shown = c < 0x20 ? "a control character" : "\"" + std::string(1, static_cast<char>(c)) + "\"";
    return "the name holds " + shown + ", which the server's storage does not allow in a name";
  }
  if (!name.empty() && (name.back() == '.' || name.back() == ' ')) {
    return std::string("the name ends with ") + (name.back() == '.' ? "a dot" : "a space") +
           ", which the server's storage does not allow";
  }
  if (IsDeviceName(name)) return "the server's storage keeps the name for a device";
  return "";
}

std::string ServerNameRules::ValidName(std::string_view name, const std::string& storageType) {
  std::string valid(name);
  if (!IsShareKind(storageType)) return valid;
  std::replace_if(valid.begin(), valid.end(), [](char c) { return IsRefusedCharacter(static_cast<unsigned char>(c)); },
                  '_');
  while (!valid.empty() && (valid.back() == '.' || valid.back() == ' ')) valid.pop_back();
  if (valid.empty()) valid = "_";
  if (IsDeviceName(valid)) valid.insert(std::min(valid.find('.'), valid.size()), "_");
  return valid;
}

std::string ServerNameRules::ComparisonKey(std::string_view name, const std::string& storageType) {
  if (!IsShareKind(storageType)) return std::string(name);
  utf8proc_uint8_t* folded = nullptr;
  const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                   static_cast<utf8proc_ssize_t>(name.size()), &folded,
                                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE |
                                                                  UTF8PROC_CASEFOLD));
  // Text that is not UTF-8 compares by its ASCII letters alone.
  if (length < 0) return CVStaticHelpers::AsciiLower(std::string(name));
  std::string key(reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length));
  std::free(folded);
  return key;
}

std::string ServerNameRules::LocalPathProblem(const std::string& localPath, bool isFolder) {
  const std::size_t slash = localPath.rfind('/');
  const std::size_t nameLength = slash == std::string::npos ? localPath.size() : localPath.size() - slash - 1;
  const std::size_t extra = isFolder ? 0 : kTemporaryNameExtra;
  if (nameLength + extra > NAME_MAX) {
    return "its name has " + std::to_string(nameLength) + " bytes, more than this computer's file system takes (" +
           std::to_string(NAME_MAX - extra) + ")";
  }
  if (localPath.size() + extra >= PATH_MAX) {
    return "its path has " + std::to_string(localPath.size()) +
           " bytes, more than this computer's file system takes (" + std::to_string(PATH_MAX - 1 - extra) + ")";
  }
  return "";
}
