#pragma once
// CVStorageDataProtection: the cipher of Configuration.xml, which holds the
// account's passwords. AES-256 in ECB mode, blocks filled up with spaces, under a
// key text made at each use from the machine's identity and a random GUID that
// is kept, enciphered under that identity, in ".Settings/AdditionalStoragesInfo.xml".
// The key text is never stored. Any thread: making the GUID file is serialised.

#include <optional>
#include <string>

class CVStorageDataProtection {
 public:
  // Writes the UTF-8 bytes of plainText enciphered under the key text
  // additionalInfo, the last block filled up with spaces, to toFile (mode 0600,
  // replaced atomically). False when the file could not be written.
  static bool EncryptStorageDataFile(const std::string& plainText, const std::string& toFile,
                                     const std::string& additionalInfo);
  // The deciphered whole blocks of path, padding spaces included; "" when the
  // file cannot be read. A wrong key gives unreadable text: there is no check value.
  static std::string DecryptStorageDataFile(const std::string& path,
                                            const std::string& additionalInfo);

  // The two above under the key of GetDecryptKey. EncryptFile gives false when no
  // key can be made; DecryptFile gives nothing then, or when path cannot be read.
  static bool EncryptFile(const std::string& path, const std::string& strToEncrypt);
  static std::optional<std::string> DecryptFile(const std::string& path);

  // The key text: 32 signed numbers printed one after the other, built from the
  // device identity and the stored GUID; the GUID file is made on first use.
  // "" when the GUID file cannot be read or made, or holds no GUID.
  static std::string GetDecryptKey();

  // ".Settings/AdditionalStoragesInfo.xml" under the root.
  static std::string GuidFilePath();
};
