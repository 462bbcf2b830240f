#include "FileAccess.h"

#include <sys/stat.h>

#include <algorithm>

#include "ResultTexts.h"

namespace devserver {

std::variant<FileTarget, AccessError> ResolveFileAccess(ServerState& state,
                                                        const std::string& token,
                                                        const std::string& serverPath) {
  auto owner = state.TokenUser(token);
  if (!owner) return AccessError::BadToken;
  auto path = state.storages().Resolve(owner->user, serverPath);
  if (!path) return AccessError::NotFound;
  return FileTarget{std::move(*owner), std::move(*path)};
}

std::variant<FileTarget, SoapReply> ResolveCallTarget(ServerState& state, const std::string& token,
                                                      const std::string& serverPath) {
  auto access = ResolveFileAccess(state, token, serverPath);
  if (auto* error = std::get_if<AccessError>(&access)) {
    return SoapReply::Text(*error == AccessError::BadToken ? kInvalidToken : kNotFound);
  }
  return std::get<FileTarget>(std::move(access));
}

std::optional<ShareRecord> FindShare(ServerState& state, const std::string& user, const std::string& shareId,
                                     bool mine) {
  const auto now = ShareClock::now();
  for (auto& share : mine ? state.shares().OwnedBy(user, now) : state.shares().SharedWith(user, now)) {
    if (std::to_string(share.id) == shareId) return share;
  }
  return std::nullopt;
}

std::optional<ResolvedPath> ResolveInShare(ServerState& state, const ShareRecord& share, const std::string& inner) {
  auto top = state.storages().Resolve(share.owner, share.location);
  if (!top || inner.empty()) return top;
  auto path = state.storages().Resolve(share.owner, share.location + "/" + inner);
  // "sub/../../other" stays in the storage but leaves the share.
  if (!path || path->storage != top->storage || path->components.size() <= top->components.size() ||
      !std::equal(top->components.begin(), top->components.end(), path->components.begin())) {
    return std::nullopt;
  }
  return path;
}

std::optional<EntryStat> StatEntry(const std::filesystem::path& local) {
  struct stat st {};
  if (::lstat(local.c_str(), &st) != 0) return std::nullopt;
  EntryStat entry;
  entry.modified = static_cast<std::int64_t>(st.st_mtim.tv_sec);
  if (S_ISDIR(st.st_mode)) {
    entry.isFolder = true;
  } else if (S_ISREG(st.st_mode)) {
    entry.size = static_cast<std::int64_t>(st.st_size);
  } else {
    return std::nullopt;
  }
  return entry;
}

}  // namespace devserver
