// The parts of a download that need no server: the Range values, the temporary
// name, extensions, dates, and the zero-byte file that never asks the server.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "AsyncFileDownloader.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "ServerXMLParser.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::int64_t ModificationTime(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return static_cast<std::int64_t>(info.st_mtim.tv_sec);
}

class DownloadRulesTest : public ::testing::Test {
 protected:
  void SetUp() override { CVHandler::ResetForTests(); }
  void TearDown() override { CVHandler::ResetForTests(); }

  CVFileWithAction File(const std::string& relative, std::int64_t size, std::int64_t modified) {
    CVFileWithAction file;
    file.fileAction = FWA_DownloadFromServer;
    file.nFilePath = home_.root() + "/" + relative;
    file.fileSize = size;
    file.dateModified = modified;
    return file;
  }

  TempHome home_;
};

TEST_F(DownloadRulesTest, RangeValuesFollowTheKindOfFile) {
  struct Case {
    const char* extension;
    bool compressible;
    std::int64_t existing, expected;
    bool openWithoutExtension;
    const char* range;
  };
  const Case cases[] = {
      {"bin", false, 100, 250, false, "100-"},
      {"txt", true, 100, 250, false, "100-150"},  // a length, not a last index
      {"txt", true, 0, 250, false, "0-250"},
      {"txt", true, 250, 250, false, "250-0"},
      {"bin", false, 0, 250, false, "0-"},
      {"", false, 100, 250, false, ""},  // no extension: the empty value, whole file
      {"", false, 100, 250, true, "100-"},  // the ready-made body's form
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.extension) + " " + std::to_string(c.existing));
    EXPECT_EQ(AsyncFileDownloader::RangeValue(c.extension, c.compressible, c.existing, c.expected,
                                              c.openWithoutExtension),
              c.range);
  }
}

TEST_F(DownloadRulesTest, ExtensionsAndTheTemporaryName) {
  EXPECT_EQ(AsyncFileDownloader::FileExtensionForPath("/a/b/c.txt"), "txt");
  EXPECT_EQ(AsyncFileDownloader::FileExtensionForPath("/a/b/archive.tar.gz"), "gz");
  EXPECT_EQ(AsyncFileDownloader::FileExtensionForPath("/a/b.d/README"), "");
  EXPECT_EQ(AsyncFileDownloader::FileExtensionForPath("/a/.profile"), "");
  EXPECT_EQ(AsyncFileDownloader::FileExtensionForPath("/a/.notes.md"), "md");
  EXPECT_EQ(AsyncFileDownloader::FileExtensionForPath("/a/trailing."), "");

  EXPECT_EQ(AsyncFileDownloader::GetFileCVTempForFileLocalPath("/a/b/c.txt"), "/a/b/.c.txt.cvtemp");
  EXPECT_EQ(AsyncFileDownloader::GetFileCVTempForFileLocalPath("/a/b/.c.txt.cvtemp"), "/a/b/.c.txt.cvtemp");
  EXPECT_EQ(AsyncFileDownloader::GetFileCVTempForFileLocalPath("/a/Ünï cødé.txt"), "/a/.Ünï cødé.txt.cvtemp");
}

TEST_F(DownloadRulesTest, ChangeDateSetsTheModificationTimeOnly) {
  const std::string path = home_.root() + "/Docs/dated.txt";
  WriteFile(path, "x");
  AsyncFileDownloader::ChangeDate(1'500'000'000, path);
  EXPECT_EQ(ModificationTime(path), 1'500'000'000);
  AsyncFileDownloader::ChangeDate(std::nullopt, path);  // no date: nothing
  EXPECT_EQ(ModificationTime(path), 1'500'000'000);
  AsyncFileDownloader::ChangeDate(1'600'000'000, "");  // no path: nothing, no crash
  EXPECT_EQ(ReadFile(path), "x");
}

TEST_F(DownloadRulesTest, AZeroByteFileNeedsNoServerAndIsRecorded) {
  // No server is configured: a token or any request would fail the download.
  AsyncFileDownloader downloader;
  CVFileWithAction file = File("Docs/sub/empty.txt", 0, 1'400'000'000);
  ASSERT_TRUE(downloader.DownloadFile(file, "Docs"));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonSuccess);
  ASSERT_TRUE(fs::is_regular_file(file.nFilePath));
  EXPECT_EQ(fs::file_size(file.nFilePath), 0u);
  EXPECT_EQ(ModificationTime(file.nFilePath), 1'400'000'000);
  EXPECT_FALSE(fs::exists(AsyncFileDownloader::GetFileCVTempForFileLocalPath(file.nFilePath)));
  EXPECT_FALSE(downloader.currentFileInfo().has_value());

  ServerXMLParser parser;
  auto records = parser.readDownloadedFiles();
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 1u);
  EXPECT_EQ(records->front().localPath, file.nFilePath);
  EXPECT_FALSE(records->front().brokeDownload);
  EXPECT_TRUE(records->front().fileStatus == 0 || records->front().fileStatus == 1);
  EXPECT_EQ(records->front().modifiedTime, 1'400'000'000);

  // The server emptied a file that has content here, and the owner made it executable:
  // it is emptied too, and keeps its mode.
  CVFileWithAction script = File("Docs/run.sh", 0, 1'400'000'100);
  WriteFile(script.nFilePath, "#!/bin/sh\n");
  fs::permissions(script.nFilePath, fs::perms::owner_all | fs::perms::group_read);
  ASSERT_TRUE(downloader.DownloadFile(script, "Docs"));
  EXPECT_EQ(fs::file_size(script.nFilePath), 0u);
  EXPECT_EQ(fs::status(script.nFilePath).permissions() & fs::perms::all,
            fs::perms::owner_all | fs::perms::group_read);
}

TEST_F(DownloadRulesTest, ANameOfTheTemporaryFormIsNeverDownloadedIntoItself) {
  AsyncFileDownloader downloader;
  CVFileWithAction file = File("Docs/.partial.cvtemp", 0, 1'400'000'000);
  WriteFile(file.nFilePath, "the user's bytes");
  EXPECT_FALSE(downloader.DownloadFile(file, "Docs"));
  EXPECT_EQ(ReadFile(file.nFilePath), "the user's bytes");
}

TEST_F(DownloadRulesTest, AFileOutsideEveryStorageGetsNoTokenAndNoRequest) {
  AsyncFileDownloader downloader;
  CVFileWithAction file;
  file.nFilePath = home_.path() + "/elsewhere/file.bin";
  file.fileSize = 10;
  EXPECT_EQ(downloader.GetSiteNameForFileWithAction(file), "");
  EXPECT_FALSE(downloader.DownloadFile(file));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonNoTokenOrFile);
  EXPECT_FALSE(fs::exists(file.nFilePath));
  EXPECT_FALSE(fs::exists(AsyncFileDownloader::GetFileCVTempForFileLocalPath(file.nFilePath)));

  // An upload request's file is known by its session.
  CVFileWithAction request;
  request.nFilePath = home_.root() + "/External user uploads/x.pdf";
  request.urServerPath = "/uploads/x.pdf";
  request.sessionGuid = "0f8fad5b-d9cb-469f-a165-70867728950e";
  EXPECT_EQ(downloader.GetSiteNameForFileWithAction(request), request.sessionGuid);
}

TEST_F(DownloadRulesTest, AStopBeforeTheDownloadBeginsStillStopsIt) {
  // The sync makes the downloader where a stop finds it before it starts.
  AsyncFileDownloader downloader;
  CVFileWithAction file = File("Docs/later.txt", 0, 1'400'000'000);
  downloader.StopDownloading();
  EXPECT_FALSE(downloader.DownloadFile(file, "Docs"));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonStopped);
  EXPECT_FALSE(fs::exists(file.nFilePath));
  // That stop is spent: the next download runs.
  EXPECT_TRUE(downloader.DownloadFile(file, "Docs"));
  EXPECT_TRUE(fs::exists(file.nFilePath));
}

}  // namespace
