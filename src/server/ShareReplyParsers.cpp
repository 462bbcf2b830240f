#include "ShareReplyParsers.h"

#include <charconv>
#include <exception>
#include <initializer_list>
#include <string_view>

#include "CVEventLogger.h"

namespace {

// How one reader turns element texts into values, and says what it could not read.
struct Reading {
  const char* parser;

  std::int64_t Number(const std::string& element, const std::string& text) const {
    std::string trimmed = CVStateXMLFile::Trim(text);
    if (trimmed.empty()) return 0;
    std::int64_t value = 0;
    auto [end, failure] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), value);
    if (failure == std::errc() && end == trimmed.data() + trimmed.size()) return value;
    Refuse(element, "not a number", text);
    return 0;
  }

  WSDate Date(const std::string& element, const std::string& text) const {
    if (text.empty()) return std::nullopt;
    WSDate date = ParseWSDate(text);
    if (!date) Refuse(element, "not a date", text);
    return date;
  }

  static bool Flag(const std::string& text) { return text == "true"; }

  void Refuse(const std::string& element, const char* what, const std::string& text) const {
    CVEventLogger::WriteMainLogMessage(std::string(parser) + " - " + element + " -> " + what + ": '" +
                                       CVStateXMLFile::PrintableText(text) + "'");
  }
};

// Reads data into records: a record starts at one of recordElements and ends at
// its end tag; assign(record, element, text, reading) fills one field.
template <typename Record, typename Assign>
void ReadRecords(const std::string& data, const char* parser, const char* logName,
                 std::initializer_list<std::string_view> recordElements, bool trim, Assign assign,
                 std::vector<Record>& records, std::optional<CVStateXMLFile::ParseError>& error) {
  if (data.empty()) return;
  const Reading reading{parser};
  auto isRecord = [&](const std::string& name) {
    for (auto element : recordElements) {
      if (name == element) return true;
    }
    return false;
  };
  try {
    std::optional<Record> current;
    CVStateXMLFile::Events events;
    events.startElement = [&](const std::string& name) {
      if (isRecord(name)) current.emplace();
    };
    events.endElement = [&](const std::string& name, const std::string& text) {
      if (!current) return;
      if (isRecord(name)) {
        records.push_back(std::move(*current));
        current.reset();
      } else {
        assign(*current, name, trim ? CVStateXMLFile::Trim(text) : text, reading);
      }
    };
    error = CVStateXMLFile::Parse(data, events);
    if (error) {
      // The console stands in for the system log.
      CVEventLogger::CommonLogWriting(
          "Error: (" + std::string(logName) + " XML parser) Error " + std::to_string(error->code) +
              ", Description: " + error->description + ", Line: " + std::to_string(error->line) +
              ", Column: " + std::to_string(error->column),
          "");
    }
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(parser, "initWithXMLdata", failure.what());
  }
}

}  // namespace

WSDate ParseWSDate(const std::string& text) {
  // 2020-09-13T12:26:40.123Z
  static constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != kForm.size()) return std::nullopt;
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    bool digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == 'd' ? !digit : text[i] != kForm[i]) return std::nullopt;
  }
  auto number = [&](std::size_t at, std::size_t count) {
    int value = 0;
    for (std::size_t i = at; i < at + count; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  using namespace std::chrono;
  year_month_day day{year{number(0, 4)}, month(number(5, 2)), std::chrono::day(number(8, 2))};
  int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
  if (!day.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  return sys_days{day} + hours{hour} + minutes{minute} + seconds{second} + milliseconds{number(20, 3)};
}

WSFilePropertyArray::WSFilePropertyArray(const std::string& data) {
  auto assign = [](WSFileProperty& r, const std::string& name, const std::string& text, const Reading& read) {
    if (name == "file_name") r.file_name = text;
    else if (name == "file_size") r.file_size = read.Number(name, text);
    else if (name == "file_modified") r.file_modified = read.Date(name, text);
    else if (name == "share_id") r.share_id = text;
    else if (name == "ownerId") r.ownerId = read.Number(name, text);
    else if (name == "owner") r.owner = text;
    else if (name == "ownerFullName") r.ownerFullName = text;
    else if (name == "link") r.link = text;
    else if (name == "shared_at") r.shared_at = read.Date(name, text);
    else if (name == "expire_at") r.expire_at = read.Date(name, text);
    else if (name == "isExternal") r.isExternal = text;
    else if (name == "mobileNumber") r.mobileNumber = text;
    else if (name == "isFolder") r.isFolder = Reading::Flag(text);
    else if (name == "folderId") r.folderId = read.Number(name, text);
    else if (name == "shareGroup") r.shareGroup = text;
  };
  ReadRecords<WSFileProperty>(data, "WSFilePropertyArray", "WSFileProperty", {"FileProperty"}, false, assign,
                              records_, error_);
}

WSUserDataArray::WSUserDataArray(const std::string& data) {
  auto assign = [](WSUserData& r, const std::string& name, const std::string& text, const Reading&) {
    if (name == "Username") r.Username = text;
    else if (name == "Fullname") r.Fullname = text;
    else if (name == "IsGroup") r.IsGroup = Reading::Flag(text);
    else if (name == "UserId") r.UserId = text;
    else if (name == "Email") r.Email = text;
    else if (name == "Mobile") r.Mobile = text;
    else if (name == "IsExternal") r.IsExternal = Reading::Flag(text);
  };
  ReadRecords<WSUserData>(data, "WSUserDataArray", "WSUserDataArray", {"UserData", "UserToShare"}, false,
                          assign, records_, error_);
}

std::vector<RecipientItem> WSUserDataArray::GetRecipientItemCollection() const {
  std::vector<RecipientItem> items;
  for (const auto& user : records_) {
    if (user.Username.empty()) continue;
    RecipientName recipient;
    recipient.recName = user.Fullname;
    recipient.recEmail = user.Username;
    recipient.isGroup = user.IsGroup;
    recipient.recUserId = user.UserId;
    recipient.IsExternal = user.IsExternal;
    items.push_back(RecipientName::GetItemForRecipient(std::move(recipient)));
  }
  return items;
}

WSUsageHistoryArray::WSUsageHistoryArray(const std::string& data) {
  auto assign = [](WSUsageHistory& r, const std::string& name, const std::string& text, const Reading& read) {
    if (name == "Action") r.Action = text;
    else if (name == "Date") r.Date = read.Date(name, text);
    else if (name == "UserBy") r.UserBy = text;
    else if (name == "Subject") r.Subject = text;
    else if (name == "FileUrl") r.FileURL = text;
  };
  ReadRecords<WSUsageHistory>(data, "WSUsageHistoryArray", "WSUsageHistory", {"UsageHistory"}, false, assign,
                              records_, error_);
}

StorageVersionInfoArray::StorageVersionInfoArray(const std::string& data) {
  auto assign = [](StorageVersionInfo& r, const std::string& name, const std::string& text,
                   const Reading& read) {
    if (name == "Version") r.Version = text;
    else if (name == "Created") r.Created = read.Date(name, text);
    else if (name == "Size") r.Size = read.Number(name, text);
    else if (name == "Owner") r.Owner = text;
    else if (name == "FullPath") r.FullPath = text;
  };
  ReadRecords<StorageVersionInfo>(data, "StorageVersionInfoArray", "WSFileProperty", {"StorageVersionInfo"},
                                  false, assign, records_, error_);
}

WSUploadRequestParser::WSUploadRequestParser(const std::string& data) {
  auto assign = [](CVUploadRequest& r, const std::string& name, const std::string& text, const Reading& read) {
    if (name == "RequestId") r.reqID = text;
    else if (name == "Session") r.reqSession = text;
    else if (name == "Path") r.reqPath = text;
    else if (name == "PathType") r.reqPathType = text;
    else if (name == "OwnerName") r.reqOwnerName = text;
    else if (name == "OwnerEmail") r.reqOwnerEmail = text;
    else if (name == "RecipientName") r.reqRecipientName = text;
    else if (name == "RecipientEmail") r.reqRecipientEmail = text;
    else if (name == "RecipientMobile") r.reqRecipientMobile = text;
    else if (name == "FileExtensions") r.reqExstension = text;
    else if (name == "NumberOfUpload") r.reqNumberOfUpload = read.Number(name, text);
    else if (name == "FileSize") r.reqFileSize = text;
    else if (name == "CreatedAt") r.reqCreateDateTime = text;
    else if (name == "ExpireAt") r.reqExpireDateTime = text;
    else if (name == "guid") r.reqGuid = text;
    else if (name == "SessionId") r.reqSessionID = text;
    else if (name == "NotificationState") r.reqNotification = text;
  };
  ReadRecords<CVUploadRequest>(data, "WSUploadRequestParser", "WSUploadRequestParser",
                               {"UploadRequest", "GetUploadRequestResult"}, true, assign, records_, error_);
}
