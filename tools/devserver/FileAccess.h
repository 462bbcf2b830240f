#pragma once
// FileAccess: what every file call and handler does first: the token's user,
// then the server path within that user's storages; and how an entry of a
// storage's folder is seen (kind, size, time) by listings, file info and
// downloads alike, so that they always agree.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "ServerState.h"
#include "SoapEnvelope.h"

namespace devserver {

struct FileTarget {
  TokenInfo owner;
  ResolvedPath path;
};

enum class AccessError { BadToken, NotFound };

// Any valid token of the user is accepted by file calls, whatever its kind.
std::variant<FileTarget, AccessError> ResolveFileAccess(ServerState& state,
                                                        const std::string& token,
                                                        const std::string& serverPath);

// For SOAP calls: the target, or the reply that ends the call ("-1;Invalid
// token", "-6;File/Folder not found;").
std::variant<FileTarget, SoapReply> ResolveCallTarget(ServerState& state, const std::string& token,
                                                      const std::string& serverPath);

// A share the user reaches by its id: one made to the user (Shared In), or by
// the user (mine); expired shares are found nowhere.
std::optional<ShareRecord> FindShare(ServerState& state, const std::string& user, const std::string& shareId,
                                     bool mine);
// The item of a share, or the entry at inner ("/" or "\" separated) inside a
// shared folder; nothing when it does not exist or inner would leave the share.
std::optional<ResolvedPath> ResolveInShare(ServerState& state, const ShareRecord& share, const std::string& inner);

// The server path of an upload request's folder; "" for an unknown request.
std::string UploadRequestLocation(ServerState& state, const std::string& guid);

struct EntryStat {
  bool isFolder = false;
  std::int64_t size = 0;      // 0 for folders
  std::int64_t modified = 0;  // whole seconds since 1970, UTC
};

// Regular files and folders only; nothing for a missing entry, a symbolic link
// or anything else.
std::optional<EntryStat> StatEntry(const std::filesystem::path& local);

}  // namespace devserver
