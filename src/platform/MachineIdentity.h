#pragma once
// MachineIdentity: the stable identity of this machine. Login sends it as the
// device's id, and the configuration's cipher binds its key to it, so it must
// not change between runs. Tests put a fake in place of the file-reading one.

#include <string>
#include <vector>

class MachineIdentity {
 public:
  virtual ~MachineIdentity() = default;
  // 12 upper-case hexadecimal digits; "" when the machine has no readable id.
  virtual std::string DeviceIdentity() const = 0;
};

// Derives the identity from the systemd / D-Bus machine id. The raw id is never
// sent anywhere: only a keyed hash of it leaves this class.
class FileMachineIdentity : public MachineIdentity {
 public:
  // The files tried in order; the first with a well-formed id wins.
  explicit FileMachineIdentity(std::vector<std::string> machineIdPaths = DefaultPaths());

  std::string DeviceIdentity() const override;

  // "/etc/machine-id", then "/var/lib/dbus/machine-id".
  static std::vector<std::string> DefaultPaths();
  // The first 12 hex digits (upper case) of HMAC-SHA256 keyed with the 32
  // characters of the machine id, over "corvalink-sync".
  static std::string DeriveIdentity(const std::string& machineId);
  // The 32 hexadecimal characters of a machine id file; "" when the file is
  // missing, unreadable or does not hold such an id ("uninitialized" at first boot).
  static std::string ReadMachineId(const std::string& path);

 private:
  std::vector<std::string> machineIdPaths_;
};
