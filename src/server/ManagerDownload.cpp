#include "ManagerDownload.h"

#include <utf8proc.h>

#include <charconv>
#include <chrono>
#include <ctime>
#include <exception>
#include <string_view>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVIPRestriction.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "Clock.h"
#include "MyParser.h"
#include "WSCommonMethods.h"
#include "WorkerThreads.h"

namespace {

constexpr const char* kClass = "ManagerDownload";
constexpr const char* kListing = "GetFileListFromServerNew";
constexpr int kAttempts = 3;
constexpr auto kPauseAfterServerFailure = std::chrono::seconds(5);

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// Every piece, empty ones too: "a;" is "a" and "".
std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    std::size_t at = text.find(separator, start);
    if (at == std::string::npos) {
      parts.push_back(text.substr(start));
      return parts;
    }
    parts.push_back(text.substr(start, at - start));
    start = at + 1;
  }
}

// Lower case by code point, with the byte offset in text of each byte of the
// result (and one past the end), so that a match in the lower-cased text can be
// cut out of the text in its own case. Bytes that are no UTF-8 stay as they are.
std::string LowerWithOffsets(const std::string& text, std::vector<std::size_t>& offsets) {
  std::string lower;
  offsets.clear();
  lower.reserve(text.size());
  offsets.reserve(text.size() + 1);
  std::size_t i = 0;
  while (i < text.size()) {
    utf8proc_int32_t code = 0;
    auto used = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + i),
                                 static_cast<utf8proc_ssize_t>(text.size() - i), &code);
    if (used <= 0) {
      lower += text[i];
      offsets.push_back(i);
      ++i;
      continue;
    }
    utf8proc_uint8_t encoded[4];
    auto length = utf8proc_encode_char(utf8proc_tolower(code), encoded);
    for (utf8proc_ssize_t k = 0; k < length; ++k) {
      lower += static_cast<char>(encoded[k]);
      offsets.push_back(i);
    }
    i += static_cast<std::size_t>(used);
  }
  offsets.push_back(text.size());
  return lower;
}

std::string Lower(const std::string& text) {
  std::vector<std::size_t> offsets;
  return LowerWithOffsets(text, offsets);
}

// A whole decimal number, nothing else.
bool ParseDecimal(const std::string& text, std::int64_t& value) {
  if (text.empty()) return false;
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end;
}

// The last sync as the restriction store keeps its times.
std::string DateTextOf(std::int64_t secondsSince1970) {
  if (secondsSince1970 == 0) return "0001-01-01 00:00:00";
  std::time_t when = static_cast<std::time_t>(secondsSince1970);
  std::tm parts{};
  gmtime_r(&when, &parts);
  char buffer[32];
  std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &parts);
  return std::string(buffer, length);
}

std::string ReplaceAll(std::string text, char from, char to) {
  for (char& c : text) {
    if (c == from) c = to;
  }
  return text;
}

bool HasDotComponent(std::string_view path) {
  for (const auto& part : Split(std::string(path), '/')) {
    if (part == "." || part == "..") return true;
  }
  return false;
}

struct Conversion {
  std::string localPath;
  bool locationFound = false;
};

// The local path of a server path, and whether the storage's location was found
// in it (when not, the path comes out as the storage's root).
Conversion Convert(const std::string& serverPath, const std::string& serverURL, const std::string& siteName) {
  Conversion conversion;
  if (siteName.empty()) return conversion;
  std::string root = CVStaticHelpers::GetLocalPathForSiteName(siteName);
  std::vector<std::size_t> offsets;
  std::string lowerPath = LowerWithOffsets(serverPath, offsets);
  // The location may come escaped for XML; a listed path never is.
  std::string lowerUrl = CVTextEscaping::ReplaceSpecialSymbols(Lower(serverURL));
  std::size_t at = lowerUrl.empty() ? std::string::npos : lowerPath.find(lowerUrl);
  if (at == std::string::npos && !lowerUrl.empty()) {
    // Listed paths come decoded; a location kept percent-encoded still names the storage.
    std::string decoded = CVTextEscaping::URLDecodedString(lowerUrl);
    if (decoded != lowerUrl) {
      lowerUrl = Lower(decoded);
      at = lowerPath.find(lowerUrl);
    }
  }
  if (at == std::string::npos) {
    conversion.localPath = root;
    return conversion;
  }
  conversion.locationFound = true;
  std::size_t begin = offsets[at];
  std::size_t end = offsets[at + lowerUrl.size()];
  std::string rest = serverPath.substr(0, begin) + serverPath.substr(end);
  if (!rest.empty() && rest.front() == '\\') rest.erase(0, 1);
  conversion.localPath = root + ReplaceAll(rest, '\\', '/');
  return conversion;
}

std::vector<std::string> UploadRequestParts(const std::string& serverPath) {
  auto parts = Split(serverPath, '\\');
  if (parts.size() == 1) parts = Split(serverPath, '/');
  return parts;
}

}  // namespace

struct ManagerDownload::Run {
  std::string name;
  std::string type;
  std::string url;
  std::string path;  // as sent, before XML escaping
  bool recursive = false;
  bool uploadRequest = false;
  CVSharepoint* site = nullptr;
  std::function<bool()> stop;
};

ManagerDownload::ManagerDownload(const Clock& clock, std::function<bool()> stopRequested)
    : clock_(clock), stopRequested_(std::move(stopRequested)) {}

void ManagerDownload::Note(const std::string& text) { report_ += text; }

std::string ManagerDownload::ReverseSlashForCIFS(const std::string& path, const std::string& siteType) {
  if (path.empty() || siteType.empty()) return "";
  char separator = '/';
  if (siteType == "CIFS" || path.find('\\') != std::string::npos) separator = '\\';
  return path.back() == separator ? path : path + separator;
}

std::string ManagerDownload::GetLocalPathForServerFullPath(const std::string& serverPath,
                                                           const std::string& WithServerURL,
                                                           const std::string& WithSiteName) {
  return Convert(serverPath, WithServerURL, WithSiteName).localPath;
}

std::string ManagerDownload::GetLocalPathForServerPathForUploadRequest(const std::string& serverPath,
                                                                       const CVSharepoint& site) {
  try {
    return GetLocalPathForServerFullPath(serverPath, site.Url, site.Name);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetLocalPathForServerPathForUploadRequest", failure.what());
    return "";
  }
}

std::string ManagerDownload::DeleteDoubleDot(const std::string& text) {
  std::size_t end = text.find_last_not_of(':');
  return end == std::string::npos ? "" : text.substr(0, end + 1);
}

std::string ManagerDownload::GetFileURL_Of_FileInfoArray(const std::vector<std::string>& fields) {
  if (fields.size() <= 5) return "";
  std::string joined = fields[5];
  for (std::size_t i = 6; i < fields.size(); ++i) joined += ":" + fields[i];
  // Only literal ":" fields go; an encoded one ("%3A") is part of the name.
  // The decoder hands back its input when the bytes are no UTF-8.
  return CVTextEscaping::URLDecodedString(DeleteDoubleDot(joined));
}

bool ManagerDownload::StaysInsideStorage(const std::string& localPath, const std::string& storageRoot) {
  if (storageRoot.empty() || storageRoot.front() != '/') return false;
  if (localPath.find('\0') != std::string::npos || storageRoot.find('\0') != std::string::npos) return false;
  if (HasDotComponent(storageRoot) || HasDotComponent(localPath)) return false;
  std::string root = storageRoot.back() == '/' ? storageRoot : storageRoot + "/";
  if (localPath.size() <= root.size() || localPath.compare(0, root.size(), root) != 0) return false;
  // "root//" is the root itself, not something in it.
  return localPath.find_first_not_of('/', root.size()) != std::string::npos;
}

std::string ManagerDownload::UploadRequestLocalPath(const std::string& serverPath, const std::string& base) {
  auto parts = UploadRequestParts(serverPath);
  if (parts.size() < 3) return "";
  std::size_t n = parts.size();
  return base + parts[n - 3] + "/" + parts[n - 2] + "/" + parts[n - 1];
}

std::string ManagerDownload::UploadRequestUrl(const std::string& serverPath) {
  std::string url = "\\\\";
  for (const auto& part : UploadRequestParts(serverPath)) {
    if (part.empty()) continue;
    url += part + "\\";
    if (part == "UploadRequest") break;
  }
  return url;
}

ManagerDownload::ListingRead ManagerDownload::ReadListingEntries(const std::string& result,
                                                                 const std::string& siteName,
                                                                 const std::string& siteUrl,
                                                                 bool uploadRequest, CVSharepoint& site) {
  ListingRead read;
  const std::string prefix = std::string("\n") + kClass + " - " + kListing + " -> ";
  auto unusable = [&](std::string why) {
    read.usable = false;
    read.why = std::move(why);
    read.records.clear();
    return read;
  };
  try {
    const std::string root = uploadRequest ? siteUrl : CVStaticHelpers::GetLocalPathForSiteName(siteName);
    auto entries = Split(result, ';');
    for (std::size_t i = 1; i < entries.size(); ++i) {
      const std::string& entry = entries[i];
      auto fields = Split(entry, ':');
      if (fields.size() == 1) {
        Note(prefix + "not correct url file");
        // The empty piece behind a final ";" (or of "0;" alone) stands for no file.
        if (entry.empty()) continue;
        return unusable("an entry has too few fields: '" + CVStateXMLFile::PrintableText(entry) + "'");
      }
      std::string serverPath = GetFileURL_Of_FileInfoArray(fields);
      if (serverPath.empty()) {
        Note(prefix + "ERROR address_str == nil or address_str == ''");
        return unusable("an entry has no path: '" + CVStateXMLFile::PrintableText(entry) + "'");
      }
      CVFileForCompare record;
      if (!ParseDecimal(fields[1], record.size) || !ParseDecimal(fields[2], record.modifiedTime)) {
        return unusable("an entry's size or time is not a number: '" + CVStateXMLFile::PrintableText(entry) +
                        "'");
      }
      std::string localPath;
      bool located = true;
      if (uploadRequest) {
        localPath = UploadRequestLocalPath(serverPath, siteUrl);
      } else {
        Conversion conversion = Convert(serverPath, siteUrl, siteName);
        localPath = conversion.localPath;
        located = conversion.locationFound;
      }
      if (localPath.empty()) {
        Note(prefix + "Local Name is not valid");
        return unusable("no local path for '" + CVStateXMLFile::PrintableText(serverPath) + "'");
      }
      if (!located) {
        // It would stand for the storage's root, and every file would look deleted.
        return unusable("'" + CVStateXMLFile::PrintableText(serverPath) +
                        "' does not lie in the storage's location '" + siteUrl + "'");
      }
      if (!StaysInsideStorage(localPath, root)) {
        // No record inside the storage can stand for it, so dropping it alone is safe.
        Note(prefix + "Refused a listed path that would leave the storage's folder: '" +
             CVStateXMLFile::PrintableText(serverPath) + "'");
        continue;
      }
      if (uploadRequest) site.Url = UploadRequestUrl(serverPath);
      record.localPath = localPath;
      record.storagePath = serverPath;
      record.isFolder = fields[3] == "D";
      record.wasProcessed = false;
      record.site = siteName;
      read.records.push_back(std::move(record));
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, kListing, failure.what());
    return unusable(std::string("a failure while reading the entries: ") + failure.what());
  }
  return read;
}

ManagerDownload::Next ManagerDownload::Attempt(const Run& run, bool& offline,
                                               std::optional<std::vector<CVFileForCompare>>& list) {
  const std::string prefix = std::string(kClass) + " - " + kListing + " -> ";
  CVHandler& handler = CVHandler::Instance();
  std::string token = handler.CheckCVToken(run.name);
  if (StartsWith(token, "err") || token.empty()) {
    Note("\n" + prefix + "Bad Token! '" + token + "'");
    handler.RemoveCVToken(run.name);
    offline = true;
    return Next::Retry;
  }
  handler.RegenWsURL();
  auto stopped = [&] {
    if (!run.stop()) return false;
    offline = false;
    return true;
  };
  if (stopped()) return Next::Finish;

  auto data = WSCommonMethods::ProcessDataWebServiceRequest(
      {token, CVTextEscaping::AddSpecialSymbols(run.path), run.recursive ? "true" : "false"},
      {"Token", "Path", "IsRecursive"}, "GetFiles", handler.mobileUrl());
  if (stopped()) return Next::Finish;
  std::string result;
  if (!data || data->empty()) {
    Note("\n" + prefix + "GetFiles resData nil");
  } else {
    result = MyParser::GetParsedStringForNode("GetFilesResult", *data);
  }
  if (stopped()) return Next::Finish;

  if (StartsWith(result, "0;")) {
    ListingRead read = ReadListingEntries(result, run.name, run.url, run.uploadRequest, *run.site);
    if (!read.usable) {
      Note("\n" + prefix + "The listing of '" + run.name + "' is not used in this pass: " + read.why);
      offline = true;
      list.reset();
      return Next::Finish;
    }
    offline = false;
    list = std::move(read.records);
    return Next::Finish;
  }
  if (StartsWith(result, "-1;") || StartsWith(result, "-3;")) {
    Note("\n" + prefix + "Invalid or Incorrect token: " + result + ",  for site: " + run.name);
    handler.RemoveCVToken(run.name);
    offline = true;
    return Next::Retry;
  }
  if (StartsWith(result, "-7;")) {
    Note("\n" + prefix + "IP Restriction " + result);
    // An upload request sends no path, and an empty record would name nothing.
    if (!run.path.empty()) {
      CVIPRestriction::Instance().AddNodeIfNoSuchWitServerPathFile(
          run.path, DateTextOf(CVConfiguration::Instance().LastSync()));
    }
    offline = false;
    return Next::Finish;
  }
  if (StartsWith(result, "-100;") || StartsWith(result, "-10000;")) {
    Note("\n" + prefix + result);
    clock_.Sleep(kPauseAfterServerFailure);
    offline = false;
    return Next::Retry;
  }
  Note(std::string("\nERROR: Unhandled error in ") + kClass + " -> " + kListing + ": " + result + "\n");
  offline = false;
  return Next::Retry;
}

std::optional<std::vector<CVFileForCompare>> ManagerDownload::GetFileListFromServerNew(
    const std::string& serverURL, CVSharepoint& site, bool recursive, bool uploadRequest,
    bool WithCanStopped) {
  Run run;
  run.stop = [&] {
    return CancelFlag::ThisThreadCancelled() || (WithCanStopped && stopRequested_ && stopRequested_());
  };
  if (run.stop()) return std::nullopt;

  CVEventLogger::LogMethodRun(kClass, kListing);
  report_.clear();
  bool offline = true;
  std::optional<std::vector<CVFileForCompare>> list;
  try {
    // A server that was upgraded since the last run is noticed here.
    CVHandler::Instance().RunVersionWS();
    run.name = site.Name;
    run.type = site.StorageType;
    run.url = site.Url;
    run.path = ReverseSlashForCIFS(serverURL, run.type);
    run.recursive = recursive;
    run.uploadRequest = uploadRequest;
    run.site = &site;

    for (int attempts = 0; attempts < kAttempts; ++attempts) {
      if (run.stop()) break;
      Next next = Next::Retry;
      try {
        next = Attempt(run, offline, list);
      } catch (const std::exception& failure) {
        CVEventLogger::LogException(kClass, kListing, failure.what());
        list.reset();
      }
      if (next == Next::Finish) break;
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, kListing, failure.what());
    list.reset();
  }

  isSiteOffline = offline;
  if (!list || list->empty()) {
    Note("\nGETFILES RETURN 0 OR nil");
    list.reset();
  }
  CVEventLogger::WriteMainLogMessage(report_);
  CVEventLogger::LogMethodEnd(kClass, kListing);
  return list;
}
