#include "MachineIdentity.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cctype>
#include <fstream>
#include <utility>

namespace {
constexpr char kHashedText[] = "corvalink-sync";
constexpr std::size_t kMachineIdLength = 32;
constexpr std::size_t kIdentityBytes = 6;  // 12 hex digits
}  // namespace

FileMachineIdentity::FileMachineIdentity(std::vector<std::string> machineIdPaths)
    : machineIdPaths_(std::move(machineIdPaths)) {}

std::vector<std::string> FileMachineIdentity::DefaultPaths() {
  return {"/etc/machine-id", "/var/lib/dbus/machine-id"};
}

std::string FileMachineIdentity::DeviceIdentity() const {
  for (const auto& path : machineIdPaths_) {
    std::string machineId = ReadMachineId(path);
    if (!machineId.empty()) return DeriveIdentity(machineId);
  }
  return "";
}

std::string FileMachineIdentity::ReadMachineId(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "";
  // A valid file is one line; read a little more to notice longer content.
  std::string text(kMachineIdLength + 8, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  if (text.size() != kMachineIdLength) return "";
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return "";
  }
  return text;
}

std::string FileMachineIdentity::DeriveIdentity(const std::string& machineId) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(kHashedText);
  if (!HMAC(EVP_sha256(), machineId.data(), static_cast<int>(machineId.size()), data,
            sizeof kHashedText - 1, digest, &digestLength) ||
      digestLength < kIdentityBytes) {
    return "";
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string identity;
  for (std::size_t i = 0; i < kIdentityBytes; ++i) {
    identity += kHex[digest[i] >> 4];
    identity += kHex[digest[i] & 0x0F];
  }
  return identity;
}
