#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CVStaticHelpers.h"
#include "CVStorageDataProtection.h"
#include "MachineIdentity.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

class FixedIdentity : public MachineIdentity {
 public:
  explicit FixedIdentity(std::string identity) : identity_(std::move(identity)) {}
  std::string DeviceIdentity() const override { return identity_; }

 private:
  std::string identity_;
};

// A temporary home with the settings folder and a known machine identity.
class Protection : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(CVStaticHelpers::CreateSettingsFolder());
    UseIdentity("4F2A9C01B2D4");
  }
  void TearDown() override { CVStaticHelpers::SetMachineIdentity(nullptr); }

  void UseIdentity(const std::string& identity) {
    CVStaticHelpers::SetMachineIdentity(std::make_shared<FixedIdentity>(identity));
  }
  std::string Path(const std::string& name) const { return home_.settings() + "/" + name; }

  TempHome home_;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::string Padded(std::string text) {
  if (text.size() % 16) text.append(16 - text.size() % 16, ' ');
  return text;
}

unsigned Mode(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? (info.st_mode & 0777) : 0;
}

// The key routine written out once more, step by step, on 64-bit numbers that
// are brought back to signed 32 bits after each step.
std::string ReferenceKeyText(const std::string& identity, const std::string& guid) {
  auto wrap = [](std::int64_t v) {
    v &= 0xFFFFFFFFLL;
    return v >= 0x80000000LL ? v - 0x100000000LL : v;
  };
  std::string D = identity.substr(0, 16);
  const int n = static_cast<int>(D.size());
  std::string M = D + guid.substr(n, 32 - n);
  auto d = [&](int i) -> std::int64_t { return static_cast<unsigned char>(D[i]); };
  auto g = [&](int i) -> std::int64_t { return static_cast<unsigned char>(guid[i]); };
  std::int64_t k[32];
  for (int i = 0; i < 32; ++i) k[i] = wrap(static_cast<unsigned char>(M[i]) + 1);
  for (int i = 0; i < 32; ++i)
    if (i % 2 == 1) k[i] = wrap(k[i] - 2);
  for (int i = 0; i < n; ++i) k[i] = wrap(d(i) + 2 * k[i]);
  for (int i = 0; i < 32; ++i)
    if (i % 2 == 1) k[i] = wrap(2 * k[i] - g(i));
  for (int i = 0; i < 32; ++i)
    if (i % 3 != 0) k[i] = wrap(k[i] + 7);
  for (int i = 0; i < n; ++i) k[i] = wrap(2 * k[i] - (g(i) + d(i)));
  for (int i = 0; i < 32; ++i)
    if (i % 2 == 1)
      for (int j = 0; j < 32; ++j)
        if (j % 3 != 0) k[i] = wrap(k[i] + g(j));
  for (int i = 0; i < 32; ++i)
    if (i % 3 != 0)
      for (int j = 1; j < 32; j += 2) k[i] = wrap(k[j] + g(j));
  for (int i = 0; i < 32; ++i)
    if (i % 3 != 0)
      for (int j = 1; j < n; j += 2) k[i] = wrap(k[j] - d(j));
  std::string text;
  for (std::int64_t value : k) text += std::to_string(value);
  return text;
}

std::string StoredGuid(const std::string& path, const std::string& identity) {
  std::string plain = CVStorageDataProtection::DecryptStorageDataFile(path, identity.substr(0, 16));
  while (!plain.empty() && plain.back() == ' ') plain.pop_back();
  return plain;
}

const std::regex kGuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");

}  // namespace

TEST_F(Protection, BlocksAreFilledWithSpacesAndComeBackWhole) {
  const std::string cases[] = {
      "",
      std::string(15, 'a'),
      std::string(16, 'b'),
      std::string(17, 'c'),
      std::string(31, 'd'),
      std::string(32, 'e'),
      std::string(33, 'f'),
      "123456789012345é",          // "é" falls across the first two blocks
      "12345678901234😀 and more",  // so do the four bytes of the emoji
      "<Password>Grüße, 世界 – ünïcödé</Password>",
  };
  std::string file = Path("data.bin");
  for (const auto& text : cases) {
    ASSERT_TRUE(CVStorageDataProtection::EncryptStorageDataFile(text, file, "a key text")) << text;
    std::string stored = ReadFile(file);
    EXPECT_EQ(stored.size(), (text.size() + 15) / 16 * 16) << text;
    if (!text.empty()) {
      EXPECT_EQ(stored.find(text.substr(0, 8)), std::string::npos) << "stored in clear";
    }
    EXPECT_EQ(CVStorageDataProtection::DecryptStorageDataFile(file, "a key text"), Padded(text));
    EXPECT_EQ(Mode(file), 0600u);
  }
}

TEST_F(Protection, TheKeyIsTheFirst32BytesOfItsTextPaddedWithZeros) {
  std::string file = Path("data.bin");
  auto cipherOf = [&](const std::string& key) {
    EXPECT_TRUE(
        CVStorageDataProtection::EncryptStorageDataFile("same plain text, two blocks!", file, key));
    return ReadFile(file);
  };
  std::string key32(32, 'k');
  EXPECT_EQ(cipherOf(key32), cipherOf(key32 + "anything after byte 32"));
  EXPECT_EQ(cipherOf("short"), cipherOf(std::string("short\0\0\0", 8)));
  std::string underShort = cipherOf("short");
  EXPECT_NE(cipherOf("shorT"), underShort);
  EXPECT_NE(CVStorageDataProtection::DecryptStorageDataFile(file, "short"),
            Padded("same plain text, two blocks!"));

  // Only whole blocks are read: a torn tail is dropped, not deciphered.
  ASSERT_TRUE(CVStorageDataProtection::EncryptStorageDataFile("0123456789abcdef0123456789abcdef",
                                                              file, "k"));
  std::ofstream(file, std::ios::app | std::ios::binary) << "torn";
  EXPECT_EQ(CVStorageDataProtection::DecryptStorageDataFile(file, "k"),
            "0123456789abcdef0123456789abcdef");
  EXPECT_EQ(CVStorageDataProtection::DecryptStorageDataFile(Path("missing"), "shorT"), "");
  EXPECT_FALSE(CVStorageDataProtection::EncryptStorageDataFile("x", Path("no/folder/x"), "k"));
}

TEST_F(Protection, TheFileIsPlainAes256EcbForTheOpensslTool) {
  if (std::system("command -v openssl >/dev/null 2>&1") != 0) GTEST_SKIP() << "no openssl on PATH";
  const std::string keyText = "-1234567890123";  // shorter than 32 bytes: zeros behind it
  const std::string text = "<Configuration>Grüße, 世界</Configuration>";
  std::string file = Path("data.bin");
  ASSERT_TRUE(CVStorageDataProtection::EncryptStorageDataFile(text, file, keyText));

  std::string hexKey;
  char piece[3];
  for (std::size_t i = 0; i < 32; ++i) {
    std::snprintf(piece, sizeof piece, "%02x",
                  i < keyText.size() ? static_cast<unsigned char>(keyText[i]) : 0u);
    hexKey += piece;
  }
  std::string command =
      "openssl enc -d -aes-256-ecb -nopad -K " + hexKey + " -in '" + file + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[256];
  std::size_t got;
  while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
  ASSERT_EQ(pclose(pipe), 0) << output;
  EXPECT_EQ(output, Padded(text));
}

TEST_F(Protection, TheKeyMatchesTheReferenceForEachKindOfIdentity) {
  // Empty, the usual 12 digits, exactly 16, and longer than 16 (cut).
  for (const std::string identity :
       {"", "4F2A9C01B2D4", "0123456789ABCDEF", "ABCDEFGHIJKLMNOPQRST"}) {
    SCOPED_TRACE("identity \"" + identity + "\"");
    fs::remove(CVStorageDataProtection::GuidFilePath());
    UseIdentity(identity);

    std::string first = CVStorageDataProtection::GetDecryptKey();  // makes the GUID file
    ASSERT_FALSE(first.empty());
    std::string stored = ReadFile(CVStorageDataProtection::GuidFilePath());
    EXPECT_EQ(stored.size(), 48u);
    EXPECT_EQ(Mode(CVStorageDataProtection::GuidFilePath()), 0600u);
    EXPECT_EQ(CVStorageDataProtection::GetDecryptKey(), first);  // reads the file it made
    EXPECT_EQ(ReadFile(CVStorageDataProtection::GuidFilePath()), stored)
        << "the file is never rewritten";

    std::string guid = StoredGuid(CVStorageDataProtection::GuidFilePath(), identity);
    ASSERT_TRUE(std::regex_match(guid, kGuid)) << guid;
    EXPECT_EQ(first, ReferenceKeyText(identity, guid));
    EXPECT_TRUE(std::regex_match(first, std::regex("(-?[0-9]+)+")));
  }
  // With no identity the GUID file lies under an all-zero key.
  UseIdentity("");
  fs::remove(CVStorageDataProtection::GuidFilePath());
  CVStorageDataProtection::GetDecryptKey();
  EXPECT_TRUE(std::regex_match(
      StoredGuid(CVStorageDataProtection::GuidFilePath(), std::string(32, '\0')), kGuid));
}

TEST_F(Protection, AStoredGuidGivesTheReferenceKey) {
  const std::string identity = "4F2A9C01B2D4";
  for (const std::string guid :
       {"0F8FAD5B-D9CB-469F-A165-70867728950E", "7c9e6679-7425-40de-944b-e07fc1f90ae7"}) {
    ASSERT_TRUE(CVStorageDataProtection::EncryptStorageDataFile(
        guid, CVStorageDataProtection::GuidFilePath(), identity));
    EXPECT_EQ(CVStorageDataProtection::GetDecryptKey(), ReferenceKeyText(identity, guid)) << guid;
  }
  EXPECT_NE(ReferenceKeyText(identity, "0F8FAD5B-D9CB-469F-A165-70867728950E"),
            ReferenceKeyText("4F2A9C01B2D5", "0F8FAD5B-D9CB-469F-A165-70867728950E"));
}

TEST_F(Protection, FirstUsesAtOnceAgreeOnOneGuid) {
  std::vector<std::string> keys(4);
  std::vector<std::thread> threads;
  for (auto& key : keys)
    threads.emplace_back([&key] { key = CVStorageDataProtection::GetDecryptKey(); });
  for (auto& thread : threads) thread.join();
  for (const auto& key : keys) EXPECT_EQ(key, keys[0]);
  EXPECT_EQ(CVStorageDataProtection::GetDecryptKey(), keys[0]);
}

TEST_F(Protection, EncryptFileAndDecryptFileUseTheMachineKey) {
  std::string config = Path("Configuration.xml");
  std::string xml = "<Configuration xmlns=\"x\"><Password>pä&amp;ss</Password></Configuration>";
  ASSERT_TRUE(CVStorageDataProtection::EncryptFile(config, xml));
  EXPECT_EQ(ReadFile(config).find("Password"), std::string::npos);
  EXPECT_EQ(Mode(config), 0600u);
  EXPECT_EQ(CVStorageDataProtection::DecryptFile(config), Padded(xml));
  EXPECT_EQ(CVStorageDataProtection::DecryptStorageDataFile(
                config, CVStorageDataProtection::GetDecryptKey()),
            Padded(xml));

  EXPECT_EQ(CVStorageDataProtection::DecryptFile(Path("missing.xml")), std::nullopt);
  EXPECT_FALSE(CVStorageDataProtection::EncryptFile(Path("no/folder/Configuration.xml"), xml));
}

TEST_F(Protection, AStoredTextThatIsNoGuidIsNeverAKey) {
  const std::string identity = "4F2A9C01B2D4";
  std::string config = Path("Configuration.xml");
  std::string guidFile = CVStorageDataProtection::GuidFilePath();
  ASSERT_TRUE(CVStorageDataProtection::EncryptFile(config, "<Configuration>old</Configuration>"));
  std::string oldConfig = ReadFile(config);
  std::string oldGuidFile = ReadFile(guidFile);

  // The settings came from another machine: its GUID file deciphers to noise here.
  UseIdentity("9999AAAABBBB");
  EXPECT_EQ(CVStorageDataProtection::GetDecryptKey(), "");
  EXPECT_EQ(CVStorageDataProtection::DecryptFile(config), std::nullopt);
  EXPECT_EQ(ReadFile(guidFile), oldGuidFile);
  EXPECT_NE(home_.ReadLog("CVExceptionLogs").find("does not hold a GUID"), std::string::npos);

  // Texts that come close are refused as well.
  UseIdentity(identity);
  for (const std::string text :
       {"0F8FAD5B-D9CB-469F-A165-70867728950", "0F8FAD5B-D9CB-469F-A165-70867728950EE",
        "0F8FAD5BXD9CB-469F-A165-70867728950E", "0F8FAD5B-D9CB-469F-A165-70867728950G"}) {
    ASSERT_TRUE(CVStorageDataProtection::EncryptStorageDataFile(text, guidFile, identity));
    EXPECT_EQ(CVStorageDataProtection::GetDecryptKey(), "") << text;
  }

  // Saving again keeps both unreadable files aside and starts a new pair.
  ASSERT_TRUE(CVStorageDataProtection::EncryptStorageDataFile("not a guid", guidFile, identity));
  std::string badGuidFile = ReadFile(guidFile);
  ASSERT_TRUE(CVStorageDataProtection::EncryptFile(config, "<Configuration>new</Configuration>"));
  EXPECT_EQ(ReadFile(config + ".unreadable"), oldConfig);
  EXPECT_EQ(ReadFile(guidFile + ".unreadable"), badGuidFile);
  EXPECT_TRUE(std::regex_match(StoredGuid(guidFile, identity), kGuid));
  EXPECT_EQ(CVStorageDataProtection::DecryptFile(config),
            Padded("<Configuration>new</Configuration>"));
}
