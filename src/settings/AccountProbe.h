#pragma once
// AccountProbe: a server address, a user and a password tried in a session of
// their own: the login, the device's status and the policy, each with the token
// of this login and the address under test. Nothing of the saved account, the
// token cache or the storage list is touched, so a failure changes nothing.

#include <string>

struct AccountProbe {
  enum class Kind {
    Ok,
    Refused,        // the login refused the credentials ("-1;")
    Unreachable,    // no usable answer from the server
    AccessRefused,  // the device status call refused the token
    DeviceRefused,  // the device may not sync
    NoPolicy,       // the server sent no policy
  };
  Kind kind = Kind::Unreachable;
  std::string devStatus;  // the device status reply
  std::string policy;     // the policy document's text when Ok
  std::string detail;     // what went wrong, for the log

  static AccountProbe Run(const std::string& url, const std::string& user, const std::string& password);
  // The text a user reads for a refused device.
  static std::string DeviceRefusedText(const std::string& status);
};
