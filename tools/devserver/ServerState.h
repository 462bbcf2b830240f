#pragma once
// ServerState: what every method and handler of the server works on: the
// options, users, tokens, storages, restricted paths, upload requests, the
// usage log, and the
// test hooks (faults and recorded requests). Owned by DevServer; shared by the
// connection threads, so each part guards itself.

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Faults.h"
#include "RequestRecorder.h"
#include "ServerOptions.h"
#include "ShareStore.h"
#include "Storage.h"
#include "TokenStore.h"
#include "UploadRequestStore.h"
#include "UsageLog.h"

namespace devserver {

// Paths closed to the client, as an IP restriction would close them.
class RestrictionList {
 public:
  // Throws std::invalid_argument for a path with "." or "..".
  void Add(const std::string& storage, const std::string& relativePath);
  void Clear();
  // The path is restricted or lies inside a restricted folder.
  bool Covers(const std::string& storage, const std::string& relativePath) const;
  // A restricted path lies strictly inside this folder.
  bool HasInside(const std::string& storage, const std::string& relativePath) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> paths_;  // storage (lower case), relative
};

class ServerState {
 public:
  explicit ServerState(ServerOptions options);

  const ServerOptions& options() const { return options_; }
  const UserAccount* FindUser(const std::string& name) const;
  // The user of a valid token of any kind.
  std::optional<TokenInfo> TokenUser(const std::string& token) const { return tokens_.Find(token); }

  TokenStore& tokens() { return tokens_; }
  StorageSet& storages() { return storages_; }
  RestrictionList& restrictions() { return restrictions_; }
  FaultInjector& faults() { return faults_; }
  RequestRecorder& requests() { return requests_; }
  ShareStore& shares() { return shares_; }
  UploadRequestStore& uploadRequestStore() { return uploadRequestStore_; }
  UsageLog& usage() { return usage_; }

  // The policy document of GetDefaultSettings2 for the user.
  std::string PolicyFor(const std::string& user) const;
  std::string DeviceStatusFor(const std::string& user) const;
  void SetDeviceStatus(const std::string& user, std::string status);
  // Failed main logins in a row; a success starts the count again.
  int LoginFailures(const std::string& user) const;
  // Counts a failed login; true when the user's logins are locked now.
  bool NoteLoginFailure(const std::string& user);
  bool IsLoginLocked(const std::string& user) const;
  void NoteLoginSuccess(const std::string& user);

  std::string versionReply() const;
  void SetVersionReply(std::string version);
  // The newer Login (share service, with Options) exists from 6.0.71 on.
  bool HasNewerLogin() const;

  void AddUploadRequest(const std::string& guid, const std::string& user);
  std::optional<std::string> UploadRequestUser(const std::string& guid) const;

  // Waits for the given time or until the server stops; false when stopping.
  bool Pause(std::chrono::milliseconds duration);
  void BeginStop();

  void Log(const std::string& line) const;

 private:
  ServerOptions options_;
  TokenStore tokens_;
  StorageSet storages_;
  RestrictionList restrictions_;
  FaultInjector faults_;
  RequestRecorder requests_;
  ShareStore shares_;
  UploadRequestStore uploadRequestStore_;
  UsageLog usage_;

  mutable std::mutex mutex_;
  std::string versionReply_;
  std::map<std::string, std::string> uploadRequests_;  // GUID (lower case) -> user
  std::map<std::string, std::string> deviceStatus_;    // user (lower case) -> reply
  std::map<std::string, int> loginFailures_;           // user (lower case) -> count
  std::condition_variable stopSignal_;
  bool stopping_ = false;
};

}  // namespace devserver
