// Whole downloads against the local server: bytes, mode, time and record; gzip
// for compressible types; resumes from the temporary file; names beyond ASCII.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "AsyncFileCommonPart.h"
#include "CVHandler.h"
#include "DownloadFixture.h"
#include "IconOverlayInFinderStaticMethods.h"

namespace fs = std::filesystem;

namespace {

mode_t CurrentUmask() {
  mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

TEST_F(FileDownloadTest, AWholeFileArrivesWithItsBytesModeTimeAndRecord) {
  const std::string content = Pattern(300'000);
  CVFileWithAction file = ServerFile("Docs", "sub/deeper/data.bin", content, 1'577'836'800);
  ASSERT_FALSE(fs::exists(fs::path(file.nFilePath).parent_path()));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonSuccess);
  EXPECT_EQ(downloader.failDownloadsCount(), 0);

  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_EQ(ModificationTime(file.nFilePath), 1'577'836'800);
  struct stat info {};
  ASSERT_EQ(::stat(file.nFilePath.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0666 & ~CurrentUmask());
  EXPECT_FALSE(fs::exists(Temporary(file)));
  // Nothing else was made beside the file.
  EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(file.nFilePath).parent_path()),
                          fs::directory_iterator()),
            1);

  auto record = RecordOf(file.nFilePath);
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->brokeDownload);
  EXPECT_EQ(record->size, 300'000);
  EXPECT_EQ(record->modifiedTime, 1'577'836'800);
  EXPECT_EQ(record->site, "Docs");

  auto request = server_->LastRequest("DownloadStorageFile.ashx");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->Field("path"), server_->LocationOf("Docs") + "sub\\deeper\\data.bin");
  EXPECT_EQ(request->Field("token"), CVHandler::Instance().CheckCVToken("Docs"));
  EXPECT_EQ(request->Header("Range"), "0-");
  EXPECT_FALSE(request->HasHeader("Accept-Encoding"));
  EXPECT_EQ(Downloads(), 1);
  EXPECT_EQ(ProgressBytes(), 300'000);
  // The new temporary file asked for a redraw.
  EXPECT_EQ(IconOverlayInFinderStaticMethods::TakePendingRedraws().count(Temporary(file)), 1u);
}

TEST_F(FileDownloadTest, ACompressibleFileComesGzipAndIsInflated) {
  const std::string content = Text(200'000);
  CVFileWithAction file = ServerFile("Docs", "notes/readme.txt", content);

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  auto request = server_->LastRequest("DownloadStorageFile.ashx");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->Header("Accept-Encoding"), "gzip");
  EXPECT_EQ(request->Header("Range"), "0-200000");
  // Progress counts the bytes on the wire, which came compressed.
  EXPECT_GT(ProgressBytes(), 0);
  EXPECT_LT(ProgressBytes(), 200'000 / 4);
}

TEST_F(FileDownloadTest, AnInterruptedTransferResumesFromItsTemporaryFile) {
  const std::string content = Pattern(200'000, 13);
  CVFileWithAction file = ServerFile("Docs", "big.bin", content);
  server_->FailNext("DownloadStorageFile.ashx", devserver::Fault::Drop(70'000));

  AsyncFileDownloader downloader;
  // A single attempt finds the folder made, as DownloadFile makes it.
  fs::create_directories(fs::path(file.nFilePath).parent_path());
  ASSERT_FALSE(downloader.StartFileDownloadingAsync(file, "Docs"));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonRequestFailed);
  EXPECT_TRUE(HasBytes(Temporary(file), content.substr(0, 70'000)));
  EXPECT_FALSE(fs::exists(file.nFilePath));
  auto broken = RecordOf(file.nFilePath);
  ASSERT_TRUE(broken);
  EXPECT_TRUE(broken->brokeDownload);

  ASSERT_TRUE(downloader.StartFileDownloadingAsync(file, "Docs"));
  EXPECT_EQ(LastRange(), "70000-");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_FALSE(fs::exists(Temporary(file)));
  EXPECT_FALSE(RecordOf(file.nFilePath)->brokeDownload);
}

TEST_F(FileDownloadTest, AFailedAttemptOfDownloadFileStartsTheNextOneFromTheFirstByte) {
  const std::string content = Pattern(150'000, 3);
  CVFileWithAction file = ServerFile("Docs", "restart.bin", content);
  server_->FailNext("DownloadStorageFile.ashx", devserver::Fault::Drop(40'000));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(Downloads(), 2);
  EXPECT_EQ(LastRange(), "0-");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
}

TEST_F(FileDownloadTest, ACompressibleResumeAsksForTheRestByItsLength) {
  const std::string content = Text(250);
  CVFileWithAction file = ServerFile("Docs", "short.txt", content);
  // What a run that ended mid-transfer leaves: 100 bytes and the broken record.
  WriteFile(Temporary(file), content.substr(0, 100));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(file, true));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(LastRange(), "100-150");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));

  // The same with a plain type: from 100 to the end.
  const std::string bytes = Pattern(250);
  CVFileWithAction plain = ServerFile("Docs", "short.bin", bytes);
  WriteFile(Temporary(plain), bytes.substr(0, 100));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(plain, true));
  ASSERT_TRUE(downloader.DownloadFile(plain));
  EXPECT_EQ(LastRange(), "100-");
  EXPECT_TRUE(HasBytes(plain.nFilePath, bytes));
}

TEST_F(FileDownloadTest, ATemporaryFileOfAnotherVersionIsNotResumed) {
  const std::string content = Pattern(5'000, 11);
  CVFileWithAction file = ServerFile("Docs", "changed.bin", content, 1'600'000'900);
  // Left by a download of the version before, which had another time.
  CVFileWithAction older = file;
  older.dateModified = 1'600'000'100;
  WriteFile(Temporary(file), Pattern(1'000, 5));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(older, true));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(LastRange(), "0-");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
}

TEST_F(FileDownloadTest, AFileWithoutExtensionAsksForEverything) {
  const std::string content = Pattern(4'000);
  CVFileWithAction file = ServerFile("Docs", "Makefile", content);
  // A resumable start is there, but the empty Range brings the whole file: it is
  // written from the first byte, not behind the 1000 already here.
  WriteFile(Temporary(file), content.substr(0, 1'000));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(file, true));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  auto request = server_->LastRequest("DownloadStorageFile.ashx");
  ASSERT_TRUE(request && request->HasHeader("Range"));
  EXPECT_EQ(request->Header("Range"), "");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_EQ(Downloads(), 1);

  // The ready-made body sends the open range instead, and the same fields.
  const std::string other = Pattern(3'000, 9);
  CVFileWithAction second = ServerFile("Docs", "LICENSE", other);
  ASSERT_TRUE(downloader.StartFileDownloadingAsync2(second, "Docs"));
  request = server_->LastRequest("DownloadStorageFile.ashx");
  EXPECT_EQ(request->Header("Range"), "0-");
  EXPECT_EQ(request->Field("path"), server_->LocationOf("Docs") + "LICENSE");
  EXPECT_TRUE(HasBytes(second.nFilePath, other));
}

TEST_F(FileDownloadTest, AnEmptyAnswerForACompleteTemporaryFileFinishesIt) {
  const std::string content = Pattern(2'000);
  CVFileWithAction file = ServerFile("Docs", "done.bin", content);
  WriteFile(Temporary(file), content);
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(file, true));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(LastRange(), "2000-");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_FALSE(fs::exists(Temporary(file)));
}

TEST_F(FileDownloadTest, NamesBeyondASCII) {
  const std::string text = Text(10'000);
  CVFileWithAction first = ServerFile("Docs", "Ünïcødé/файл €.txt", text);
  const std::string bytes = Pattern(20'000);
  CVFileWithAction second = ServerFile("Team", "日本語/ファイル #1&2.bin", bytes);

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(first));
  EXPECT_EQ(server_->LastRequest("DownloadStorageFile.ashx")->Field("path"),
            server_->LocationOf("Docs") + "Ünïcødé\\файл €.txt");
  EXPECT_TRUE(HasBytes(first.nFilePath, text));
  ASSERT_TRUE(downloader.DownloadFile(second));
  EXPECT_EQ(server_->LastRequest("DownloadStorageFile.ashx")->Field("path"),
            server_->LocationOf("Team") + "日本語/ファイル #1&2.bin");
  EXPECT_TRUE(HasBytes(second.nFilePath, bytes));
  EXPECT_TRUE(RecordOf(second.nFilePath).has_value());
}

}  // namespace
