#pragma once
// The code tables every part of the sync shares: kinds of local change (NFQ_*),
// comparison results (CMP_*), actions (FWA_*) and per-file result codes.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

// Kinds of local change.
enum : std::int32_t {
  NFQ_Created = 0,
  NFQ_Deleted = 1,
  NFQ_Renamed = 2,
  NFQ_Modified = 3,
};

// Results of the three-way comparison of a server line.
enum : std::int32_t {
  CMP_Same = 1,
  CMP_ServerNewer = 2,
  CMP_LocalChanged = 3,
  CMP_Reserved4 = 4,
  CMP_Reserved5 = 5,
  CMP_LocalMissing = 6,
  CMP_ServerChangedLocalMissing = 7,
  CMP_NeverDownloaded = 8,
  CMP_BothExistUnknown = 9,
  CMP_BothChanged = 10,
};

// What is to be done with one file.
enum : std::int32_t {
  FWA_Nothing = -1,
  FWA_UploadToServer = 0,
  FWA_DeleteOnServer = 1,
  FWA_DownloadFromServer = 2,
  FWA_DeleteLocally = 3,
  FWA_CreateLocalCopyAndDownloadFromServer1 = 4,
  FWA_CreateAndUploadLocalCopy = 5,
  FWA_RenameFileOnServer = 6,
  FWA_DeleteOnServerAndUploadToServer = 7,
  FWA_CreateLocalCopyAndDownloadFromServer2 = 8,
  FWA_DownloadForUploadRequest = 9,
  FWA_UpdateDownloadedFiles = 99,
};

// Results of a per-file operation.
enum : std::int32_t {
  SYNC_RETURN_OK = 0,
  SYNC_RETURN_NOT_AUTHORIZED = -1,
  SYNC_RETURN_LOCKED = -5,
  SYNC_RETURN_STATE_CHANGED = -6,
  SYNC_RETURN_RESTRICTED = -7,
  SYNC_RETURN_NO_OPERATION = -50,
  SYNC_RETURN_RENAME_SOURCE_GONE = -61,
  SYNC_RETURN_SERVER_NOT_FOUND = -100,
  SYNC_RETURN_SIZE_CHANGED = -101,
  // The server's storage cannot hold the name: the item stays here, reported.
  SYNC_RETURN_NAME_HELD_BACK = -123,
  SYNC_RETURN_FAILED = -1000,
};

// The text of an NFQ_* code, as the queue log writes it.
inline const char* NFQActionName(std::int32_t code) {
  switch (code) {
    case NFQ_Created: return "NFQ_Created";
    case NFQ_Deleted: return "NFQ_Deleted";
    case NFQ_Renamed: return "NFQ_Renamed";
    case NFQ_Modified: return "NFQ_Modified";
    default: return "NFQ_None";
  }
}

// The text of an FWA_* code; a code without a row is "FWA_Nothing".
inline const char* FWAActionName(std::int32_t code) {
  switch (code) {
    case FWA_UploadToServer: return "FWA_UploadToServer";
    case FWA_DeleteOnServer: return "FWA_DeleteOnServer";
    case FWA_DownloadFromServer: return "FWA_DownloadFromServer";
    case FWA_DeleteLocally: return "FWA_DeleteLocally";
    case FWA_CreateLocalCopyAndDownloadFromServer1: return "FWA_CreateLocalCopyAndDownloadFromServer1";
    case FWA_CreateAndUploadLocalCopy: return "FWA_CreateAndUploadLocalCopy";
    case FWA_RenameFileOnServer: return "FWA_RenameFileOnServer";
    case FWA_DeleteOnServerAndUploadToServer: return "FWA_DeleteOnServerAndUploadToServer";
    case FWA_CreateLocalCopyAndDownloadFromServer2: return "FWA_CreateLocalCopyAndDownloadFromServer2";
    case FWA_DownloadForUploadRequest: return "FWA_DownloadForUploadRequest";
    case FWA_UpdateDownloadedFiles: return "FWA_UpdateDownloadedFiles";
    default: return "FWA_Nothing";
  }
}

// A local change mapped to its action; any other kind keeps the fresh item's 0.
inline std::int32_t FWAForNFQAction(std::int32_t nfqAction) {
  switch (nfqAction) {
    case NFQ_Created: return FWA_UploadToServer;
    case NFQ_Deleted: return FWA_DeleteOnServer;
    case NFQ_Renamed: return FWA_RenameFileOnServer;
    case NFQ_Modified: return FWA_UploadToServer;
    default: return FWA_UploadToServer;
  }
}

// A comparison result mapped to its action: a table of nine entries indexed
// by the result less 2; anything outside 2..10 does nothing.
inline std::int32_t GetFWAEvent(std::int32_t compareResult) {
  static constexpr std::int32_t table[9] = {
      FWA_DownloadFromServer,                     // 2 CMP_ServerNewer
      FWA_UploadToServer,                         // 3 CMP_LocalChanged
      FWA_DeleteLocally,                          // 4
      FWA_CreateAndUploadLocalCopy,               // 5
      FWA_DownloadFromServer,                     // 6 CMP_LocalMissing
      FWA_DownloadFromServer,                     // 7 CMP_ServerChangedLocalMissing
      FWA_DownloadFromServer,                     // 8 CMP_NeverDownloaded
      FWA_CreateLocalCopyAndDownloadFromServer1,  // 9 CMP_BothExistUnknown
      FWA_CreateLocalCopyAndDownloadFromServer2,  // 10 CMP_BothChanged
  };
  if (compareResult < 2 || compareResult > 10) return FWA_Nothing;
  return table[compareResult - 2];
}

// A server reply "code;..." becomes the whole number before its first ";".
// An empty reply is a failure; a reply without a leading number counts as one too.
inline std::int32_t ResultCodeFromReply(std::string_view reply) {
  if (reply.empty()) return SYNC_RETURN_FAILED;
  std::string head(reply.substr(0, reply.find(';')));
  if (head.empty()) return SYNC_RETURN_FAILED;
  char* end = nullptr;
  long value = std::strtol(head.c_str(), &end, 10);
  if (end == head.c_str() || *end != '\0') return SYNC_RETURN_FAILED;
  return static_cast<std::int32_t>(value);
}

// An HTTP status of a transfer as a result code.
inline std::int32_t ResultCodeFromHttpStatus(int status) {
  if (status >= 200 && status <= 299) return SYNC_RETURN_OK;
  if (status == 401) return SYNC_RETURN_NOT_AUTHORIZED;
  if (status == -6) return SYNC_RETURN_STATE_CHANGED;
  return SYNC_RETURN_LOCKED;
}
