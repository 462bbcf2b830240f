#include "CVStorageDataProtection.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace {

const char kClassName[] = "CVStorageDataProtection";
constexpr std::size_t kBlock = 16;
constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kKeyCount = 32;
constexpr std::size_t kMaxIdentity = 16;

// Serialises the read-or-make of the GUID file: two first uses at once would
// otherwise each make a GUID, and one of them would encipher under a key that
// the file does not give back.
std::mutex gGuidFileLock;

// The AES key: the first 32 bytes of the key text, zero bytes behind a shorter one.
std::array<unsigned char, kKeyBytes> KeyBytes(const std::string& keyText) {
  std::array<unsigned char, kKeyBytes> key{};
  std::memcpy(key.data(), keyText.data(), std::min(keyText.size(), key.size()));
  return key;
}

// Runs whole blocks through AES-256-ECB; nothing when OpenSSL fails.
std::optional<std::string> Cipher(bool encrypt, const std::string& keyText,
                                  std::string_view input) {
  auto key = KeyBytes(keyText);
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                          EVP_CIPHER_CTX_free);
  std::string output(input.size() + kBlock, '\0');
  int written = 0;
  int finished = 0;
  bool good = context &&
              EVP_CipherInit_ex(context.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr,
                                encrypt ? 1 : 0) == 1 &&
              EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1;
  auto* out = reinterpret_cast<unsigned char*>(output.data());
  if (good && !input.empty()) {
    good = EVP_CipherUpdate(context.get(), out, &written,
                            reinterpret_cast<const unsigned char*>(input.data()),
                            static_cast<int>(input.size())) == 1;
  }
  if (good) good = EVP_CipherFinal_ex(context.get(), out + written, &finished) == 1;
  OPENSSL_cleanse(key.data(), key.size());
  if (!good) return std::nullopt;
  output.resize(static_cast<std::size_t>(written + finished));
  return output;
}

// The deciphered whole blocks of the file; a partial block at the end is ignored.
std::optional<std::string> ReadDeciphered(const std::string& path, const std::string& keyText) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  bytes.resize(bytes.size() - bytes.size() % kBlock);
  return Cipher(false, keyText, bytes);
}

bool LooksLikeGuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

// The key text from the identity (at most 16 characters) and the GUID. The
// arithmetic wraps in 32 bits: it runs on unsigned values, which wrap by
// definition, and each number is printed as the signed value of its bits.
std::string DeriveKeyText(const std::string& identity, const std::string& guid) {
  const std::size_t n = identity.size();
  auto D = [&](std::size_t i) -> std::uint32_t { return static_cast<unsigned char>(identity[i]); };
  auto G = [&](std::size_t i) -> std::uint32_t { return static_cast<unsigned char>(guid[i]); };
  std::uint32_t k[kKeyCount];

  for (std::size_t i = 0; i < kKeyCount; ++i) k[i] = (i < n ? D(i) : G(i)) + 1;
  for (std::size_t i = 1; i < kKeyCount; i += 2) k[i] -= 2;
  for (std::size_t i = 0; i < n; ++i) k[i] = D(i) + 2 * k[i];
  for (std::size_t i = 1; i < kKeyCount; i += 2) k[i] = 2 * k[i] - G(i);
  for (std::size_t i = 0; i < kKeyCount; ++i) {
    if (i % 3 != 0) k[i] += 7;
  }
  for (std::size_t i = 0; i < n; ++i) k[i] = 2 * k[i] - (G(i) + D(i));
  for (std::size_t i = 1; i < kKeyCount; i += 2) {
    for (std::size_t j = 0; j < kKeyCount; ++j) {
      if (j % 3 != 0) k[i] += G(j);
    }
  }
  // The next two read k[j] as the earlier rounds left it: the order is part of the key.
  for (std::size_t i = 0; i < kKeyCount; ++i) {
    if (i % 3 == 0) continue;
    for (std::size_t j = 1; j < kKeyCount; j += 2) k[i] = k[j] + G(j);
  }
  for (std::size_t i = 0; i < kKeyCount; ++i) {
    if (i % 3 == 0) continue;
    for (std::size_t j = 1; j < n; j += 2) k[i] = k[j] - D(j);
  }

  std::string text;
  for (std::uint32_t value : k) text += std::to_string(static_cast<std::int32_t>(value));
  return text;
}

enum class KeyState { kReady, kBadStoredGuid, kFailed };

struct KeyText {
  KeyState state = KeyState::kFailed;
  std::string text;
};

// Caller holds gGuidFileLock.
KeyText MakeKeyTextLocked() {
  std::string identity = CVStaticHelpers::GetUniqueDeviceID();
  // The GUID file is written and read under the identity as cut here; reading it
  // under a longer uncut identity would never give back what was written.
  if (identity.size() > kMaxIdentity) identity.resize(kMaxIdentity);
  const std::string path = CVStorageDataProtection::GuidFilePath();

  struct stat info {};
  bool exists = lstat(path.c_str(), &info) == 0;
  if (!exists && errno != ENOENT) {
    CVEventLogger::LogException(kClassName, "GetDecryptKey",
                                "cannot look at " + path + ": " + std::strerror(errno));
    return {};
  }
  std::string guid;
  if (exists) {
    auto plain = ReadDeciphered(path, identity);
    if (!plain) {
      CVEventLogger::LogException(kClassName, "GetDecryptKey", "cannot read " + path);
      return {};
    }
    guid = *plain;
    while (!guid.empty() && guid.back() == ' ') guid.pop_back();
    // Another machine's file, or a damaged one: deriving a key from it would make
    // every later save unreadable for good.
    if (!LooksLikeGuid(guid)) {
      CVEventLogger::LogException(
          kClassName, "GetDecryptKey",
          path + " does not hold a GUID for this machine; it is kept as it is");
      return {KeyState::kBadStoredGuid, ""};
    }
  } else {
    guid = CVStaticHelpers::uuid();
  }

  KeyText key{KeyState::kReady, DeriveKeyText(identity, guid)};
  // A key whose GUID is not on disk would lock the next start out of the file.
  if (!exists && !CVStorageDataProtection::EncryptStorageDataFile(guid, path, identity)) {
    CVEventLogger::LogException(kClassName, "GetDecryptKey", "cannot write " + path);
    return {};
  }
  return key;
}

// Renames an existing file to "<path>.unreadable" (or "-2", "-3"...), never over another.
bool SetAside(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return errno == ENOENT;
  for (int attempt = 1; attempt < 1000; ++attempt) {
    std::string target = path + ".unreadable" + (attempt > 1 ? "-" + std::to_string(attempt) : "");
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
      CVEventLogger::WriteMainLogMessage(std::string(kClassName) + " - EncryptFile -> " + path +
                                         " cannot be read on this machine; kept as " + target);
      return true;
    }
    if (errno != EEXIST) break;
  }
  CVEventLogger::LogException(kClassName, "EncryptFile", "cannot set aside " + path);
  return false;
}

}  // namespace

std::string CVStorageDataProtection::GuidFilePath() {
  return CVStaticHelpers::GenerateSettingsPath() + "/AdditionalStoragesInfo.xml";
}

bool CVStorageDataProtection::EncryptStorageDataFile(const std::string& plainText,
                                                     const std::string& toFile,
                                                     const std::string& additionalInfo) {
  try {
    std::string padded = plainText;
    if (padded.size() % kBlock != 0) padded.append(kBlock - padded.size() % kBlock, ' ');
    auto enciphered = Cipher(true, additionalInfo, padded);
    if (!enciphered) {
      CVEventLogger::LogException(kClassName, "EncryptStorageDataFile",
                                  "the cipher failed for " + toFile);
      return false;
    }
    return CVStaticHelpers::WriteFileAtomically(toFile, *enciphered, 0600);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "EncryptStorageDataFile", exception.what());
    return false;
  }
}

std::string CVStorageDataProtection::DecryptStorageDataFile(const std::string& path,
                                                            const std::string& additionalInfo) {
  try {
    auto plain = ReadDeciphered(path, additionalInfo);
    if (plain) return *plain;
    CVEventLogger::LogException(kClassName, "DecryptStorageDataFile", "cannot read " + path);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "DecryptStorageDataFile", exception.what());
  }
  return "";
}

std::string CVStorageDataProtection::GetDecryptKey() {
  try {
    std::lock_guard<std::mutex> lock(gGuidFileLock);
    KeyText key = MakeKeyTextLocked();
    return key.state == KeyState::kReady ? key.text : "";
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "GetDecryptKey", exception.what());
    return "";
  }
}

bool CVStorageDataProtection::EncryptFile(const std::string& path,
                                          const std::string& strToEncrypt) {
  try {
    KeyText key;
    {
      std::lock_guard<std::mutex> lock(gGuidFileLock);
      key = MakeKeyTextLocked();
      // The GUID file belongs to another machine (or is damaged), so neither it nor
      // the file enciphered under it can be read here. Both are kept under another
      // name, never overwritten, and a new pair is started, so that the client can
      // save again and the old files stay for whoever can still read them.
      if (key.state == KeyState::kBadStoredGuid && SetAside(path) && SetAside(GuidFilePath())) {
        key = MakeKeyTextLocked();
      }
    }
    if (key.state != KeyState::kReady) {
      CVEventLogger::LogException(kClassName, "EncryptFile",
                                  "no key: " + path + " is left as it was");
      return false;
    }
    return EncryptStorageDataFile(strToEncrypt, path, key.text);
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "EncryptFile", exception.what());
    return false;
  }
}

std::optional<std::string> CVStorageDataProtection::DecryptFile(const std::string& path) {
  try {
    std::string keyText;
    {
      std::lock_guard<std::mutex> lock(gGuidFileLock);
      KeyText key = MakeKeyTextLocked();
      // Without a key there is nothing to give: the caller keeps what it has, and
      // the file stays untouched for a later run that can read it.
      if (key.state != KeyState::kReady) return std::nullopt;
      keyText = std::move(key.text);
    }
    auto plain = ReadDeciphered(path, keyText);
    if (!plain) CVEventLogger::LogException(kClassName, "DecryptFile", "cannot read " + path);
    return plain;
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "DecryptFile", exception.what());
    return std::nullopt;
  }
}
