#pragma once
// ConnectionService: the server calls of the connection probe and the version
// question, as the application's run sees them. SessionConnectionService makes
// them over the wire; tests put a fake in its place.

#include <optional>
#include <string>

class ConnectionService {
 public:
  // The fixed GUID under which the main token is kept.
  static constexpr const char* kMainTokenGuid = "4b7e21c0-93d6-4a1f-8c55-2de07f61a9b3";

  virtual ~ConnectionService() = default;
  // A valid token for the GUID, logging in when none is cached; "" on failure.
  virtual std::string CheckCVToken(const std::string& guid) = 0;
  virtual void RemoveCVToken(const std::string& guid) = 0;
  // "1;A" when the device may sync.
  virtual std::string GetDeviceStatus(const std::string& token) = 0;
  virtual void setDevStatus(const std::string& status) = 0;
  virtual std::string GetVersion() = 0;
  // Why the server's certificate stops the sync (a changed key, a certificate
  // no longer trusted), for the user; nothing while it is trusted.
  virtual std::optional<std::string> CertificateProblem() { return std::nullopt; }
};
