#pragma once
// VersionService: the server calls of the version window, behind one interface
// so that its rules run without a server. ServerVersionService is the real one:
// the storage's token from CVHandler, asked for again once when the server
// refuses it, and the calls of MobileClientWS. Every call blocks; the window
// makes them on a worker.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "AsyncSharedDownloader.h"

// A storage's file as the server knows it.
struct FileOnServer {
  std::string siteName;
  std::string serverPath;
};

class VersionService {
 public:
  virtual ~VersionService() = default;
  // The whole GetVersions reply; nothing when no reply came or no token was accepted.
  virtual std::optional<std::string> GetVersions(const FileOnServer& file) = 0;
  // The result string of SwitchToVersion; "" when no reply came.
  virtual std::string SwitchToVersion(const FileOnServer& file, const std::string& version) = 0;
  // The version's bytes at target, replacing what is there only once whole.
  // progress: bytes so far, on the calling thread.
  virtual bool DownloadFileVersionToPath(const std::string& target, const std::string& version,
                                         const FileOnServer& file, std::int64_t size,
                                         const std::function<void(std::int64_t)>& progress) = 0;
};

class ServerVersionService : public VersionService {
 public:
  std::optional<std::string> GetVersions(const FileOnServer& file) override;
  std::string SwitchToVersion(const FileOnServer& file, const std::string& version) override;
  bool DownloadFileVersionToPath(const std::string& target, const std::string& version, const FileOnServer& file,
                                 std::int64_t size, const std::function<void(std::int64_t)>& progress) override;
};
