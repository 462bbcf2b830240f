#pragma once
// AccountProbe: a server address, a user and a password tried in a session of
// their own: first the server's certificate, then the login, the device's status
// and the policy, each with the token of this login and the address under test.
// Nothing of the saved account, the token cache or the storage list is touched,
// so a failure changes nothing.
//
// The certificate: one an authority of the system vouches for passes; one of the
// server's own authority (or self-signed) passes only by the key accepted for
// the address before, a fingerprint given beforehand, or the user's answer to the
// question with its fingerprint; an expired one, or one for another host name,
// never passes. No password leaves before the certificate has passed.

#include <functional>
#include <string>
#include <vector>

#include "ServerCertificate.h"

// The question of a certificate that no authority of the system vouches for.
struct CertificateQuestion {
  std::string host;
  ServerCertificate certificate;
  bool keyChanged = false;  // another key than the one accepted for this address before
  // The lines a user reads before answering: what is wrong, the certificate, its fingerprint.
  std::string Details() const;
  std::string Question() const;
};

struct AccountProbe {
  enum class Kind {
    Ok,
    Refused,        // the login refused the credentials ("-1;")
    Unreachable,    // no usable answer from the server
    AccessRefused,  // the device status call refused the token
    DeviceRefused,  // the device may not sync
    NoPolicy,       // the server sent no policy
    Untrusted,      // the server's certificate was refused, or not accepted
  };

  // How the server's certificate may pass beyond the system's authorities.
  struct Trust {
    std::string acceptedPin;          // the key accepted for this address before
    std::string acceptedFingerprint;  // given beforehand, for scripts: no question then
    std::function<bool(const CertificateQuestion&)> ask;  // none: not accepted
  };

  Kind kind = Kind::Unreachable;
  std::string devStatus;  // the device status reply
  std::string policy;     // the policy document's text when Ok
  std::string detail;     // what went wrong, for the log; for Untrusted the user's text
  std::string pin;        // the key to keep with the account; "" when the authorities vouch
  std::vector<std::string> notices;  // what the user should know even on success

  static AccountProbe Run(const std::string& url, const std::string& user, const std::string& password,
                          const Trust& trust = {});
  // The text a user reads for a refused device.
  static std::string DeviceRefusedText(const std::string& status);

 private:
  // The certificate step; false (kind and detail set) when the probe stops here.
  bool CheckCertificate(const std::string& url, const Trust& trust);
};
