#pragma once
// The records of the sharing replies: shared files, users to share with, usage
// history, versions of a file, upload requests. A field the reply leaves out
// keeps its value here: empty text, 0, false, no date.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// A server time to the millisecond; nothing when the reply had no valid one.
using WSDate = std::optional<std::chrono::sys_time<std::chrono::milliseconds>>;

struct WSFileProperty {
  std::string file_name;
  std::int64_t file_size = 0;
  WSDate file_modified;
  std::string share_id;
  std::int64_t ownerId = 0;
  std::string owner;
  std::string ownerFullName;
  std::string link;
  WSDate shared_at;
  WSDate expire_at;
  std::string isExternal;  // kept as the server wrote it
  std::string mobileNumber;
  bool isFolder = false;
  std::int64_t folderId = 0;
  std::string shareGroup;
};

struct WSUserData {
  std::string Username;
  std::string Fullname;
  bool IsGroup = false;
  std::string UserId;
  std::string Email;
  std::string Mobile;
  bool IsExternal = false;
};

struct WSUsageHistory {
  std::string Action;
  WSDate Date;
  std::string UserBy;
  std::string UserTo;  // no element fills it
  std::string Subject;
  std::string FileURL;
};

struct StorageVersionInfo {
  std::string Version;
  WSDate Created;
  std::int64_t Size = 0;
  std::string Owner;
  std::string FullPath;
};

struct CVUploadRequest {
  std::string reqID;
  std::string reqSession;
  std::string reqPath;
  std::string reqPathType;
  std::string reqOwnerName;
  std::string reqOwnerEmail;
  std::string reqRecipientName;
  std::string reqRecipientEmail;
  std::string reqRecipientMobile;
  std::string reqExstension;
  std::int64_t reqNumberOfUpload = 0;
  std::string reqFileSize;
  std::string reqCreateDateTime;
  std::string reqExpireDateTime;
  std::string reqGuid;
  std::string reqSessionID;
  std::string reqNotification;
};
