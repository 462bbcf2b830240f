#pragma once
// Keyring: a store of passwords outside the settings folder, kept by the desktop
// and unlocked with the user's session. An item is found by the server and the
// user it is for. SecretServiceKeyring is the real one (the freedesktop.org
// Secret Service, that is the login keyring, through libsecret); tests may put
// another in its place.

#include <memory>
#include <optional>
#include <string>

class Keyring {
 public:
  virtual ~Keyring() = default;
  // The password kept for server and user; "" when there is none; nothing, with
  // error filled, when the keyring cannot be asked (locked, gone from the bus).
  virtual std::optional<std::string> Lookup(const std::string& server, const std::string& user,
                                            std::string& error) = 0;
  // Keeps password for server and user, replacing what was kept; label is what
  // the desktop's keyring manager shows.
  virtual bool Store(const std::string& server, const std::string& user, const std::string& label,
                     const std::string& password, std::string& error) = 0;
  virtual bool Clear(const std::string& server, const std::string& user, std::string& error) = 0;
};

class SecretServiceKeyring : public Keyring {
 public:
  // The desktop's Secret Service when one answers on the session bus; nothing
  // otherwise (a headless machine), with why in reason.
  static std::unique_ptr<Keyring> IfOnSessionBus(std::string& reason);
  // Ends every call that waits for the user to unlock the keyring, and makes
  // later calls fail at once: the client quits.
  static void CancelWaits();

  std::optional<std::string> Lookup(const std::string& server, const std::string& user, std::string& error) override;
  bool Store(const std::string& server, const std::string& user, const std::string& label,
             const std::string& password, std::string& error) override;
  bool Clear(const std::string& server, const std::string& user, std::string& error) override;
};
