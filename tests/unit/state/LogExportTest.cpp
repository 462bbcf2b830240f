// The log export: the archive's name and entries, what it leaves out, a second
// export replacing the first, and no password or token in the logs or the zip.

#include <gtest/gtest.h>
#include <minizip/unzip.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "CVEventLogger.h"
#include "LogExport.h"
#include "LogRedaction.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

// Every entry of the archive by name, with its bytes.
std::map<std::string, std::string> Entries(const std::string& path) {
  std::map<std::string, std::string> entries;
  unzFile archive = unzOpen(path.c_str());
  if (!archive) return entries;
  for (int more = unzGoToFirstFile(archive); more == UNZ_OK; more = unzGoToNextFile(archive)) {
    char name[512];
    unz_file_info info{};
    unzGetCurrentFileInfo(archive, &info, name, sizeof name, nullptr, 0, nullptr, 0);
    std::string bytes(info.uncompressed_size, '\0');
    unzOpenCurrentFile(archive);
    unzReadCurrentFile(archive, bytes.data(), static_cast<unsigned>(bytes.size()));
    unzCloseCurrentFile(archive);
    entries[name] = bytes;
  }
  unzClose(archive);
  return entries;
}

void Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

TEST(LogRedaction, MasksSecretsWhereverTheyStand) {
  LogRedaction::AddSecret("s3cr3t-pass");
  LogRedaction::AddSecret("abc");  // too short to mask
  const struct {
    std::string line, expected;
  } cases[] = {
      {"<LoginResult>0b1e-77</LoginResult>", "<LoginResult>********</LoginResult>"},
      {"&lt;m:Token&gt;0b1e&lt;/m:Token&gt; <token/>", "&lt;m:Token&gt;********&lt;/m:Token&gt; <token/>"},
      {"<LoginResult>-1;Invalid user</LoginResult>", "<LoginResult>-1;Invalid user</LoginResult>"},
      {"POST /Upload.ashx?TOKEN=0b1e&path=a.txt", "POST /Upload.ashx?TOKEN=********&path=a.txt"},
      {"mytoken=1 password=x y", "mytoken=1 password=******** y"},
      {"sent s3cr3t-pass twice: s3cr3t-pass abc", "sent ******** twice: ******** abc"},
  };
  for (const auto& c : cases) EXPECT_EQ(LogRedaction::Redacted(c.line), c.expected);
  LogRedaction::ForgetSecrets();
}

TEST(LogExport, PacksTheLogsWithoutSecretsAndReplacesTheDaysArchive) {
  TempHome home;
  ::setenv("XDG_CONFIG_HOME", (home.path() + "/config").c_str(), 1);
  Write(home.path() + "/config/user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n");
  LogRedaction::AddSecret("s3cr3t-pass");
  CVEventLogger::SetConsoleEcho(false);
  CVEventLogger::WriteMainLogMessage("signed in with s3cr3t-pass");
  // Lines an earlier version wrote, and files that are not logs.
  const fs::path logger = home.settings() + "/CVLogger";
  Write(logger / "CVSyncLogs/2026-01-02/LOG 2026-01-02_1.txt", "\n[x]: <LoginResult>9f0c-token</LoginResult>");
  Write(logger / "CVSyncLogs/2026-01-02/core.dump", "binary");
  const std::string stale = home.path() + "/Téléchargements/" + LogExport::ArchiveName();
  Write(stale, "an archive of this morning");

  const auto result = LogExport::sendLogs();
  EXPECT_EQ(LogExport::SavedText(result), "Logs files were saved to Downloads folder\nFile name: " +
                                              LogExport::ArchiveName());
  ::unsetenv("XDG_CONFIG_HOME");
  LogRedaction::ForgetSecrets();
  ASSERT_TRUE(result.saved) << result.problem;
  EXPECT_EQ(result.path, stale);
  EXPECT_EQ(result.files, 2);
  const auto entries = Entries(result.path);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries.begin()->first.rfind("CVLogs/CVMainLogs/", 0), 0u) << entries.begin()->first;
  EXPECT_EQ(entries.rbegin()->first, "CVLogs/CVSyncLogs/2026-01-02/LOG 2026-01-02_1.txt");
  for (const auto& [name, bytes] : entries) {
    for (const char* secret : {"s3cr3t-pass", "9f0c-token"}) EXPECT_EQ(bytes.find(secret), std::string::npos) << name;
  }
  EXPECT_NE(entries.begin()->second.find("signed in with ********"), std::string::npos);

  EXPECT_FALSE(LogExport::sendLogs(home.path() + "/missing/folder/logs.zip").saved);
}
