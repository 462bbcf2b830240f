#pragma once
// MobileClientWS: the calls of the file service (storage login, upload request
// login, system configuration, file calls).

#include <optional>
#include <string>

class MobileClientWS {
 public:
  // Storage login: the reply's whole text or an "err..." text.
  std::string Login(const std::string& user, const std::string& password, const std::string& storageUrl,
                    const std::string& storageType, const std::string& cvToken);
  // Login of an upload request: the reply bytes.
  std::optional<std::string> LoginEx(const std::string& externalGuid, const std::string& cvToken);
  std::optional<std::string> GetSystemConfig(const std::string& token);
  // The result string of GetFileInfo, or nothing when no reply came.
  std::optional<std::string> GetFileInfo(const std::string& token, const std::string& path);
};
