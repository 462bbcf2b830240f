#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "MachineIdentity.h"

namespace fs = std::filesystem;

namespace {

const char kIdA[] = "0123456789abcdef0123456789abcdef";
const char kIdB[] = "fedcba9876543210fedcba9876543210";
// Computed apart with: printf corvalink-sync | openssl dgst -sha256 -mac HMAC -macopt key:<id>
const char kIdentityA[] = "72A5549AEAF0";
const char kIdentityB[] = "8C64F4CD97AE";

class MachineIdFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "cvmachineid-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string Write(const std::string& name, const std::string& content) {
    std::string path = folder_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string Missing() const { return folder_ + "/missing"; }

  std::string folder_;
};

}  // namespace

TEST(MachineIdentity, DerivesTheKnownIdentityFromAMachineId) {
  EXPECT_EQ(FileMachineIdentity::DeriveIdentity(kIdA), kIdentityA);
  EXPECT_EQ(FileMachineIdentity::DeriveIdentity(kIdB), kIdentityB);
}

TEST_F(MachineIdFiles, AcceptsOnlyAWellFormedMachineId) {
  struct Case {
    std::string content;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {std::string(kIdA) + "\n", kIdA},
      {kIdA, kIdA},
      {std::string(kIdA) + "  \n\n", kIdA},
      {"uninitialized\n", ""},  // systemd's placeholder before the first boot completes
      {std::string(kIdA).substr(1) + "\n", ""},
      {std::string(kIdA) + "0\n", ""},
      {"0123456789abcdef0123456789abcdeg\n", ""},
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FileMachineIdentity::ReadMachineId(Write("id", c.content)), c.expected) << c.content;
  }
  EXPECT_EQ(FileMachineIdentity::ReadMachineId(Missing()), "");
}

TEST_F(MachineIdFiles, TakesTheFirstUsableFileInOrder) {
  std::string a = Write("a", std::string(kIdA) + "\n");
  std::string b = Write("b", std::string(kIdB) + "\n");
  std::string bad = Write("bad", "uninitialized\n");

  EXPECT_EQ(FileMachineIdentity({a, b}).DeviceIdentity(), kIdentityA);
  EXPECT_EQ(FileMachineIdentity({Missing(), b}).DeviceIdentity(), kIdentityB);
  EXPECT_EQ(FileMachineIdentity({bad, b}).DeviceIdentity(), kIdentityB);
  EXPECT_EQ(FileMachineIdentity({Missing(), bad}).DeviceIdentity(), "");
  EXPECT_EQ(FileMachineIdentity(std::vector<std::string>{}).DeviceIdentity(), "");
}

TEST(MachineIdentity, ThisMachineGivesAStableIdentityOrNone) {
  EXPECT_EQ(FileMachineIdentity::DefaultPaths(),
            (std::vector<std::string>{"/etc/machine-id", "/var/lib/dbus/machine-id"}));
  std::string first = FileMachineIdentity().DeviceIdentity();
  EXPECT_EQ(FileMachineIdentity().DeviceIdentity(), first);
  EXPECT_TRUE(first.empty() || std::regex_match(first, std::regex("[0-9A-F]{12}"))) << first;
}
