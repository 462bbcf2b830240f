#pragma once
// DevServer: corvalink-devserver as a library. Tests start it in-process on a
// free loopback port, drive it with any HTTP client, change its storages through
// the folder or the operations below, make calls fail on purpose, and look at
// what the client sent:
//
//   devserver::ServerOptions options;
//   options.port = 0;  // any free port
//   options.users = {{"alice", "secret"}};
//   options.storages = {{"Docs", folder}};
//   devserver::DevServer server(options);
//   server.Start();
//   server.FailNext("GetFiles", devserver::Fault::Result("-100;Busy"));
//   server.FailNext("DownloadStorageFile.ashx", devserver::Fault::Drop(1024));
//   ... server.LastRequest("DownloadStorageFile.ashx")->Header("Range") ...
//   ... for (auto& part : server.Requests("UploadStorageFile.ashx")) part.Header("Range") ...
//
// The server serves on its own threads from Start() until Stop() or destruction.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Faults.h"
#include "PendingUploads.h"
#include "RequestRecorder.h"
#include "ServerOptions.h"
#include "VersionStore.h"

namespace devserver {

class ServerState;

// True for 127.0.0.0/8, ::1 and "localhost".
bool IsLoopbackHost(const std::string& host);

class DevServer {
 public:
  // Throws std::invalid_argument for bad options, a non-loopback address
  // without allowRemote among them.
  explicit DevServer(ServerOptions options);
  ~DevServer();
  DevServer(const DevServer&) = delete;
  DevServer& operator=(const DevServer&) = delete;

  // Binds and starts serving; throws std::runtime_error when the address cannot
  // be bound. Once only.
  void Start();
  void Stop();

  int port() const { return port_; }
  // "http://HOST:PORT/" ("https://" with TLS): the client's server URL.
  std::string BaseUrl() const;

  // Faults and recorded requests, by method ("GetFiles"), qualified method
  // ("share.asmx/Login") or handler ("DownloadStorageFile.ashx",
  // "UploadStorageFile.ashx"; see Fault::Drop for what a drop does to an upload).
  void FailNext(const std::string& name, Fault fault, int count = 1);
  void ClearFaults();
  std::optional<RecordedRequest> LastRequest(const std::string& name) const;
  // The recent requests, oldest first: the parts an upload sent, in order.
  std::vector<RecordedRequest> Requests(const std::string& name) const;
  int CallCount(const std::string& name) const;
  void ClearRequests();

  // Paths closed as by an IP restriction: "-7;" from the calls, 403 from downloads.
  void MarkRestricted(const std::string& storage, const std::string& relativePath);
  void ClearRestricted();

  // Tokens handed out so far stop working: the client sees "-1;Invalid token".
  void InvalidateToken(const std::string& token);
  void InvalidateAllTokens();

  void SetVersionReply(std::string version);
  void AddUploadRequest(const std::string& guid, const std::string& user);

  // Storages: the location clients use ("\\devserver\Docs\"), the folder, and
  // changes that keep versions as the server's own changes do. Paths are
  // relative to the storage's folder, "/" separated. Throw std::invalid_argument
  // for an unknown storage or a path that would leave it.
  std::string LocationOf(const std::string& storage) const;
  std::filesystem::path FolderOf(const std::string& storage) const;
  void WriteFile(const std::string& storage, const std::string& relativePath,
                 const std::string& content, const std::string& owner = {},
                 std::optional<std::int64_t> modified = std::nullopt);
  bool RemovePath(const std::string& storage, const std::string& relativePath,
                  const std::string& owner = {});
  std::vector<VersionRecord> Versions(const std::string& storage,
                                      const std::string& relativePath) const;
  // The parts of a part upload that wait for FinishPartialUpload; nothing
  // when none wait.
  std::optional<PendingSet> PendingParts(const std::string& storage,
                                         const std::string& relativePath) const;

  ServerState& state() { return *state_; }

 private:
  class Routes;

  ServerOptions options_;
  std::unique_ptr<ServerState> state_;
  std::unique_ptr<Routes> routes_;
  std::thread thread_;
  int port_ = 0;
  bool started_ = false;
};

}  // namespace devserver
