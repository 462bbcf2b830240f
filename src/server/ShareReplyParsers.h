#pragma once
// The readers of the sharing replies. Each is made with the reply's bytes and
// reads them at once: every record element starts a record, the end tags of its
// fields fill it (names matched exactly, no namespace), and its own end tag adds
// it to the collection. A reply that does not parse keeps the records read before
// the error, and the error goes to the system log; a number or date that does
// not read is logged and leaves its field at 0 or no date. A reader made in
// place hands its collection out by value, so a loop over it never outlives it.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CVStateXMLFile.h"
#include "RecipientName.h"
#include "ShareRecords.h"

template <typename Record>
class ShareReplyArray {
 public:
  const std::vector<Record>& records() const& { return records_; }
  std::vector<Record> records() && { return std::move(records_); }
  // The parser's first error; nothing when the reply was read whole.
  const std::optional<CVStateXMLFile::ParseError>& error() const { return error_; }

 protected:
  ShareReplyArray() = default;
  std::vector<Record> records_;
  std::optional<CVStateXMLFile::ParseError> error_;
};

// GetFileList, GetMyFileList: FileProperty records.
class WSFilePropertyArray : public ShareReplyArray<WSFileProperty> {
 public:
  explicit WSFilePropertyArray(const std::string& data);
  const std::vector<WSFileProperty>& GetFilePropertyCollection() const& { return records_; }
  std::vector<WSFileProperty> GetFilePropertyCollection() && { return std::move(records_); }
};

// FindUsers2, GetUsersToShare: UserData or UserToShare records.
class WSUserDataArray : public ShareReplyArray<WSUserData> {
 public:
  explicit WSUserDataArray(const std::string& data);
  const std::vector<WSUserData>& GetUserDataCollection() const& { return records_; }
  std::vector<WSUserData> GetUserDataCollection() && { return std::move(records_); }
  // The rows of the recipient search; a record without a user name has none.
  std::vector<RecipientItem> GetRecipientItemCollection() const;
};

// GetUsageHistory: UsageHistory records.
class WSUsageHistoryArray : public ShareReplyArray<WSUsageHistory> {
 public:
  explicit WSUsageHistoryArray(const std::string& data);
  const std::vector<WSUsageHistory>& GetUsageHistoryCollection() const& { return records_; }
  std::vector<WSUsageHistory> GetUsageHistoryCollection() && { return std::move(records_); }
};

// GetVersions: StorageVersionInfo records.
class StorageVersionInfoArray : public ShareReplyArray<StorageVersionInfo> {
 public:
  explicit StorageVersionInfoArray(const std::string& data);
  const std::vector<StorageVersionInfo>& GetVersionCollection() const& { return records_; }
  std::vector<StorageVersionInfo> GetVersionCollection() && { return std::move(records_); }
};

// Upload request lists (UploadRequest records) and the single request
// (GetUploadRequestResult); every text trimmed.
class WSUploadRequestParser : public ShareReplyArray<CVUploadRequest> {
 public:
  explicit WSUploadRequestParser(const std::string& data);
  const std::vector<CVUploadRequest>& GetFilePropertyCollection() const& { return records_; }
  std::vector<CVUploadRequest> GetFilePropertyCollection() && { return std::move(records_); }
};

// "yyyy-MM-dd'T'HH:mm:ss.SSS'Z'" in GMT, exactly; nothing for any other text.
WSDate ParseWSDate(const std::string& text);
