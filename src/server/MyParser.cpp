#include "MyParser.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <exception>
#include <stdexcept>

#include "AsyncFileCommonPart.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ManagerDownload.h"

namespace {

constexpr const char* kClass = "MyParser";

bool IsDigits(const std::string& text, std::size_t at, std::size_t count) {
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

int Number(const std::string& text, std::size_t at, std::size_t count) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

bool IsResultCodeForEmptyArray(const std::string& code) {
  return code == "-7" || code == "-100" || code == "-1";
}

std::int64_t ParseSize(const std::string& text) {
  std::string trimmed = CVStateXMLFile::Trim(text);
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), value);
  return error == std::errc() ? value : 0;
}

// The reader's state over one array reply.
struct ArrayReader {
  const CVSharepoint* site = nullptr;
  std::vector<MyParser::ArrayItem> items;
  std::optional<CVFileForCompare> fileInfo;
  bool refused = false;  // the record in hand would leave the storage's folder
  std::string resultCode, faultcode, faultstring;

  void Start(const std::string& name) {
    if (name == "CVFileInfo") {
      fileInfo.emplace();
      refused = false;
    }
  }

  void End(const std::string& name, const std::string& text) {
    if (name == "string") {
      items.emplace_back(text);
    } else if (name == "ResultCode") {
      resultCode = text;
    } else if (name == "faultcode") {
      faultcode = text;
    } else if (name == "faultstring") {
      faultstring = text;
    } else if (fileInfo) {
      EndOfFileInfoElement(name, text);
    }
  }

  void EndOfFileInfoElement(const std::string& name, const std::string& text) {
    CVFileForCompare& record = *fileInfo;
    if (name == "fileUrl") {
      record.storagePath = text;
    } else if (name == "fileName") {
      std::string url = site ? site->Url : "";
      std::string siteName = site ? site->Name : "";
      record.localPath = ManagerDownload::GetLocalPathForServerFullPath(record.storagePath, url, siteName);
      if (record.localPath.empty()) {
        CVEventLogger::WriteMainLogMessage("Error parse 'MyParse' localName is not correct ((nil) or '')");
      } else if (!ManagerDownload::StaysInsideStorage(record.localPath,
                                                      CVStaticHelpers::GetLocalPathForSiteName(siteName))) {
        refused = true;
      }
    } else if (name == "lastModificationTime") {
      auto seconds = MyParser::ModificationTimeFromText(text);
      if (!seconds) {
        CVEventLogger::LogException(kClass, "GetParsedArrayForNode",
                                    "Date modify for file in parse GetFiles3 == nil (" + text + ") !!! ");
      }
      record.modifiedTime = seconds.value_or(0);
    } else if (name == "isDirectory") {
      record.isFolder = CVStateXMLFile::Trim(text) == "true";
    } else if (name == "fileSize") {
      record.size = ParseSize(text);
    } else if (name == "isDeleted") {
      record.deleted = CVStateXMLFile::Trim(text) == "true";
    } else if (name == "CVFileInfo") {
      record.wasProcessed = false;
      record.site = site ? site->Name : "";
      if (refused) {
        CVEventLogger::WriteMainLogMessage(
            std::string(kClass) +
            " - GetParsedArrayForNode -> Refused a listed path that would leave the "
            "storage's folder: '" +
            CVStateXMLFile::PrintableText(record.storagePath) + "'");
      } else {
        items.emplace_back(std::move(record));
      }
      fileInfo.reset();
    }
    // fullName, creationTime, isHidden, owner, newFileUrl, CacheTTL: not needed.
  }
};

}  // namespace

void MyParser::LogParseError(const std::string& className, const std::string& method,
                             const std::string& nodeName, const CVStateXMLFile::ParseError& error) {
  CVEventLogger::WriteMainLogMessage(
      "Error:" + className + " - " + method + " -> (MyParser XML parser [" + nodeName + "]) Error " +
      std::to_string(error.code) + ", Description: " + error.description +
      ", Line: " + std::to_string(error.line) + ", Column: " + std::to_string(error.column));
}

std::string MyParser::GetParsedStringForNode(const std::string& nodeName, const std::string& dataToParse) {
  if (dataToParse.empty()) return "";
  std::string result;
  CVStateXMLFile::Events events;
  // The parser hands over the text since the last tag, so white space between
  // elements never ends up in front of a value.
  events.endElement = [&](const std::string& name, const std::string& text) {
    if (name == nodeName) result = text;
  };
  if (auto error = CVStateXMLFile::Parse(dataToParse, events)) {
    LogParseError(kClass, "GetParsedStringForNode", nodeName, *error);
  }
  return result;
}

std::vector<MyParser::ArrayItem> MyParser::GetParsedArrayForNode(const std::string& nodeName,
                                                                 const std::string& dataToParse,
                                                                 const CVSharepoint* WithSiteName) {
  ResultCode.clear();
  faultcode.clear();
  faultstring.clear();
  try {
    ArrayReader reader;
    reader.site = WithSiteName;
    std::optional<std::string> failure;
    CVStateXMLFile::Events events;
    // A failure of our own is told apart from a reply that does not parse.
    events.startElement = [&](const std::string& name) {
      try {
        reader.Start(name);
      } catch (const std::exception& e) {
        if (!failure) failure = e.what();
        throw;
      }
    };
    events.endElement = [&](const std::string& name, const std::string& text) {
      try {
        reader.End(name, text);
      } catch (const std::exception& e) {
        if (!failure) failure = e.what();
        throw;
      }
    };
    auto error = dataToParse.empty() ? std::nullopt : CVStateXMLFile::Parse(dataToParse, events);
    if (failure) throw std::runtime_error(*failure);
    if (error) LogParseError(kClass, "GetParsedArrayForNode", nodeName, *error);

    ResultCode = reader.resultCode;
    faultcode = reader.faultcode;
    faultstring = reader.faultstring;
    if (reader.items.empty() && IsResultCodeForEmptyArray(CVStateXMLFile::Trim(ResultCode))) {
      reader.items.emplace_back(CVStateXMLFile::Trim(ResultCode));
    }
    return std::move(reader.items);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetParsedArrayForNode", failure.what());
    // The console stands in for the system log.
    CVEventLogger::CommonLogWriting("Maybe errNon 200", "");
    return {};
  }
}

std::vector<std::string> MyParser::StringsOf(const std::vector<ArrayItem>& items) {
  std::vector<std::string> strings;
  for (const auto& item : items) {
    if (const auto* text = std::get_if<std::string>(&item)) strings.push_back(*text);
  }
  return strings;
}

std::string MyParser::GetFileCVTempForFileLocalPath(const std::string& localPath) {
  std::size_t slash = localPath.rfind('/');
  if (slash == std::string::npos || slash + 1 == localPath.size()) return "";
  // The download writes the same name; one rule for both.
  return AsyncFileCommonPart::TemporaryNameForPath(localPath);
}

std::string MyParser::GetFileCVTempForFileWithAction(const CVFileWithAction& file) {
  if (file.isFolder) return "";
  return GetFileCVTempForFileLocalPath(file.nFilePath);
}

std::optional<std::int64_t> MyParser::ModificationTimeFromText(const std::string& text) {
  // "yyyy-MM-ddTHH:mm:ss": digits and separators in their places.
  if (text.size() < 19 || !IsDigits(text, 0, 4) || text[4] != '-' || !IsDigits(text, 5, 2) ||
      text[7] != '-' || !IsDigits(text, 8, 2) || text[10] != 'T' || !IsDigits(text, 11, 2) ||
      text[13] != ':' || !IsDigits(text, 14, 2) || text[16] != ':' || !IsDigits(text, 17, 2)) {
    return std::nullopt;
  }
  using namespace std::chrono;
  year_month_day date{year{Number(text, 0, 4)}, month{static_cast<unsigned>(Number(text, 5, 2))},
                      day{static_cast<unsigned>(Number(text, 8, 2))}};
  int hours = Number(text, 11, 2);
  int minutes = Number(text, 14, 2);
  int seconds = Number(text, 17, 2);
  if (!date.ok() || hours > 23 || minutes > 59 || seconds > 59) return std::nullopt;
  std::int64_t result =
      sys_days(date).time_since_epoch().count() * 86400LL + hours * 3600 + minutes * 60 + seconds;

  // The fraction, without the character behind it ("Z"), rounds to 0 or 1 second.
  double fraction = 0;
  if (text.size() >= 21) {
    std::string number = "0." + text.substr(20, text.size() - 21);
    auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), fraction);
    if (error != std::errc()) fraction = 0;
    fraction = std::round(fraction);
  }
  return result + static_cast<std::int64_t>(fraction);
}
