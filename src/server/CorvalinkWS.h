#pragma once
// CorvalinkWS: the calls of the main service (login, version, device status,
// policy). One small operation per server method on top of WSCommonMethods.

#include <optional>
#include <string>

class CorvalinkWS {
 public:
  static constexpr const char* kDeviceType = "macOSdesktop";  // the server knows this value

  // The main login on the service under url; the form depends on the server's
  // version, asked of the same server. The whole reply text or an "err..." text.
  std::string LoginWithUrl(const std::string& user, const std::string& password,
                           const std::string& devSerial, const std::string& url);
  // The same against the configured server.
  std::string Login(const std::string& user, const std::string& withPass, const std::string& withSerial);

  // The reply of GetVersion from the service whose main endpoint is wsUrl, "" on failure.
  std::string GetVersion(const std::string& wsUrl);
  std::string GetVersion();
  // Whether the server under wsUrl takes the login with device name and system.
  bool shouldSendDeviceNameAndSystemInfo(const std::string& wsUrl);
  // Pure decision on a version text: 7+, 6.1+, or 6.0.71+.
  static bool VersionTakesOptions(const std::string& version);

  // The whole reply text of GetDeviceStatus, or an "err..." text.
  std::string GetDeviceStatus(const std::string& token, const std::string& wsUrl);
  // The reply bytes of GetDefaultSettings2.
  std::optional<std::string> GetDefaultSettings2(const std::string& token, const std::string& wsUrl);
  // The reply bytes of GetSharedStorages on share.asmx: the shared storages the user reaches.
  std::optional<std::string> GetSharedStoragesWithToken(const std::string& token);

  // What the login tells the server about this machine.
  static std::string OptionsFragment(const std::string& devSerial);
  static std::string DeviceName();
  static std::string SystemVersion();
};
