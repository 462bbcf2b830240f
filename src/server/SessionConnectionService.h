#pragma once
// SessionConnectionService: the connection probe's server calls through the
// session (CVHandler) and the main service.

#include "ConnectionService.h"

class SessionConnectionService : public ConnectionService {
 public:
  std::string CheckCVToken(const std::string& guid) override;
  void RemoveCVToken(const std::string& guid) override;
  std::string GetDeviceStatus(const std::string& token) override;
  void setDevStatus(const std::string& status) override;
  std::string GetVersion() override;
  std::optional<std::string> CertificateProblem() override;
};
