// The server operations against the local server: uploads in one request and in
// parts, a resumed part upload, a refused token, a stop in flight, and rename,
// create folder and delete with what the server's folder shows afterwards.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "ASIHTTPRequest.h"
#include "AsyncFileCommonPart.h"
#include "AsyncFileMethods.h"
#include "ClientServerFixture.h"
#include "Clock.h"
#include "CVHandler.h"
#include "RecordFiles.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kPart = 64 * 1024;

std::string Bytes(std::size_t size, unsigned seed = 11) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::int64_t ModificationTime(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return static_cast<std::int64_t>(info.st_mtim.tv_sec);
}

class UploadServerTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    devserver::ServerOptions options = DefaultOptions();
    options.partSizeKb = kPart / 1024;
    StartServer(std::move(options));
    ConfigureAccount();
    clock_ = std::make_shared<Clock>(0.1);
    ASIHTTPRequest::SetClock(clock_);
    methods_ = std::make_unique<AsyncFileMethods>(clock_);
  }

  void TearDown() override {
    if (HasFailure()) {
      std::string log = home_->ReadLog("CVMainLogs");
      if (log.size() > 20000) log = log.substr(log.size() - 20000);
      std::cerr << "--- CVMainLogs ---" << log << "\n";
    }
    methods_.reset();
    ASIHTTPRequest::SetClock(nullptr);
    ClientServerTest::TearDown();
  }

  std::string Local(const std::string& storage, const std::string& relative) const {
    return home_->root() + "/" + storage + "/" + relative;
  }

  CVFileWithAction LocalFile(const std::string& storage, const std::string& relative, const std::string& bytes) {
    CVFileWithAction item;
    item.fileAction = FWA_UploadToServer;
    item.nFilePath = Local(storage, relative);
    item.fileSize = static_cast<std::int64_t>(bytes.size());
    fs::create_directories(fs::path(item.nFilePath).parent_path());
    std::ofstream(item.nFilePath, std::ios::binary) << bytes;
    return item;
  }

  fs::path OnServer(const std::string& storage, const std::string& relative) const {
    return server_->FolderOf(storage) / relative;
  }

  // Parts travel several at a time: their order on the wire is any.
  std::multiset<std::string> UploadRanges() const {
    std::multiset<std::string> ranges;
    for (const auto& request : server_->Requests("UploadStorageFile.ashx")) {
      ranges.insert(request.HasHeader("Range") ? request.Header("Range") : "(whole)");
    }
    return ranges;
  }

  std::shared_ptr<Clock> clock_;
  std::unique_ptr<AsyncFileMethods> methods_;
};

TEST_F(UploadServerTest, SmallAndLargeFilesArriveWholeWithTheServersTimeRecorded) {
  struct Case {
    const char* storage;
    const char* relative;
    std::size_t size;
    std::multiset<std::string> ranges;
  };
  const Case cases[] = {
      {"Docs", "small & odd #1.txt", 1000, {"(whole)"}},
      {"Docs", "empty.txt", 0, {"(whole)"}},
      {"Docs", "one less.bin", kPart - 1, {"(whole)"}},
      {"Docs", "exactly one.bin", kPart, {"bytes=0-65536"}},
      {"Docs", "sub/deeper/large.bin", 5 * kPart / 2, {"bytes=0-65536", "bytes=65536-131072", "bytes=131072-163840"}},
      {"Team", "sharepoint.bin", 5 * kPart / 2, {"(whole)"}},  // SharePoint takes whole files only
  };
  unsigned seed = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.relative);
    server_->ClearRequests();
    const std::string bytes = Bytes(c.size, ++seed);
    CVFileWithAction item = LocalFile(c.storage, c.relative, bytes);
    ASSERT_EQ(methods_->UploadFileToServer(item), 0);
    EXPECT_EQ(UploadRanges(), c.ranges);
    const fs::path stored = OnServer(c.storage, c.relative);
    EXPECT_EQ(ReadAll(stored), bytes);
    EXPECT_FALSE(server_->PendingParts(c.storage, c.relative));
    auto record = RecordOf(item.nFilePath);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->size, static_cast<std::int64_t>(c.size));
    EXPECT_EQ(record->modifiedTime, ModificationTime(stored));
    EXPECT_EQ(ModificationTime(item.nFilePath), ModificationTime(stored));
  }
}

TEST_F(UploadServerTest, APartWhoseReplyWasLostIsNotSentAgain) {
  const std::string bytes = Bytes(5 * kPart / 2);
  CVFileWithAction item = LocalFile("Docs", "resumed.bin", bytes);
  // The server keeps the first part, but its answer never comes back.
  server_->FailNext("UploadStorageFile.ashx", devserver::Fault::DropBeforeReply());
  EXPECT_EQ(methods_->UploadFileToServer(item), -5);
  EXPECT_FALSE(fs::exists(OnServer("Docs", "resumed.bin")));
  auto pending = server_->PendingParts("Docs", "resumed.bin");
  ASSERT_TRUE(pending);
  const std::size_t held = pending->parts.size();
  EXPECT_GE(held, 1u);

  // Whatever the server holds goes no second time.
  server_->ClearRequests();
  EXPECT_EQ(methods_->UploadFileToServer(item), 0);
  EXPECT_EQ(UploadRanges().count("bytes=0-65536"), 0u);
  EXPECT_EQ(UploadRanges().size(), 3 - held);
  EXPECT_EQ(ReadAll(OnServer("Docs", "resumed.bin")), bytes);
  EXPECT_FALSE(server_->PendingParts("Docs", "resumed.bin"));
}

TEST_F(UploadServerTest, TokensTheServerForgotAreRenewed) {
  CVFileWithAction first = LocalFile("Docs", "first.txt", "first");
  ASSERT_EQ(methods_->UploadFileToServer(first), 0);
  server_->InvalidateAllTokens();

  CVFileWithAction whole = LocalFile("Docs", "whole.txt", "whole");
  EXPECT_EQ(methods_->UploadFileToServer(whole), 0);
  EXPECT_EQ(ReadAll(OnServer("Docs", "whole.txt")), "whole");

  server_->InvalidateAllTokens();
  const std::string bytes = Bytes(2 * kPart + 10);
  CVFileWithAction parts = LocalFile("Docs", "parts.bin", bytes);
  EXPECT_EQ(methods_->UploadFileToServer(parts), 0);
  EXPECT_EQ(ReadAll(OnServer("Docs", "parts.bin")), bytes);
}

TEST_F(UploadServerTest, ATokenRefusedBetweenThePartsIsRenewedAndTheUploadGoesOn) {
  const std::string bytes = Bytes(4 * kPart + 7);
  CVFileWithAction item = LocalFile("Docs", "midway.bin", bytes);
  // The first part is held up while every token is forgotten: the parts after it
  // meet a refused token.
  server_->FailNext("UploadStorageFile.ashx", devserver::Fault::Delay(std::chrono::seconds(1)));
  std::thread forget([&] {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server_->CallCount("UploadStorageFile.ashx") == 0 && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    server_->InvalidateAllTokens();
  });
  const std::int32_t result = methods_->UploadFileToServer(item);
  forget.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(ReadAll(OnServer("Docs", "midway.bin")), bytes);
  EXPECT_FALSE(server_->PendingParts("Docs", "midway.bin"));
  // Five parts; those on the wire when the tokens went were refused once and
  // sent again with the new token.
  EXPECT_GE(server_->CallCount("UploadStorageFile.ashx"), 6);
  EXPECT_LE(server_->CallCount("UploadStorageFile.ashx"), 5 + AsyncFileMethods::kPartsInFlight);
}

TEST_F(UploadServerTest, AStopEndsAnUploadTheServerHoldsUp) {
  server_->FailNext("UploadStorageFile.ashx", devserver::Fault::Delay(std::chrono::seconds(6)));
  CVFileWithAction item = LocalFile("Docs", "held.bin", Bytes(5 * kPart / 2));
  std::thread stopper([&] {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server_->CallCount("UploadStorageFile.ashx") == 0 && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    methods_->StopCurrentAction();
  });
  const auto start = std::chrono::steady_clock::now();
  const std::int32_t result = methods_->UploadFileToServer(item);
  const auto took = std::chrono::steady_clock::now() - start;
  stopper.join();
  EXPECT_EQ(result, -5);
  EXPECT_LT(took, std::chrono::seconds(4));
  EXPECT_EQ(server_->CallCount("FinishPartialUpload"), 0);
  EXPECT_FALSE(fs::exists(OnServer("Docs", "held.bin")));
  EXPECT_FALSE(RecordOf(item.nFilePath));
}

TEST_F(UploadServerTest, RenameCreateAndDeleteChangeTheServersFolder) {
  std::vector<bool> told;
  methods_->SetFirstTimeSyncPerformedHandler([&](bool performed) { told.push_back(performed); });

  CVFileWithAction file = LocalFile("Docs", "a&b 'c'.txt", "content");
  ASSERT_EQ(methods_->UploadFileToServer(file), 0);

  CVFileWithAction rename = file;
  rename.fileAction = FWA_RenameFileOnServer;
  rename.oldFilePath = file.nFilePath;
  rename.nFilePath = Local("Docs", "x{y}.txt");
  EXPECT_EQ(methods_->RenameFileOnServer(rename), 0);
  EXPECT_FALSE(fs::exists(OnServer("Docs", "a&b 'c'.txt")));
  EXPECT_EQ(ReadAll(OnServer("Docs", "x{y}.txt")), "content");
  EXPECT_TRUE(RecordOf(rename.nFilePath));
  EXPECT_FALSE(RecordOf(rename.oldFilePath));

  // The target is taken: the server keeps both, the next pass compares everything.
  PutServerFile("Docs", "taken.txt", "theirs");
  CVFileWithAction clash = rename;
  clash.oldFilePath = rename.nFilePath;
  clash.nFilePath = Local("Docs", "taken.txt");
  EXPECT_EQ(methods_->RenameFileOnServer(clash), -61);
  EXPECT_EQ(told, std::vector<bool>{false});
  EXPECT_EQ(ReadAll(OnServer("Docs", "taken.txt")), "theirs");
  EXPECT_EQ(ReadAll(OnServer("Docs", "x{y}.txt")), "content");

  // A rename whose source the server never had counts as done.
  CVFileWithAction ghost;
  ghost.oldFilePath = Local("Docs", "ghost.txt");
  ghost.nFilePath = Local("Docs", "ghost2.txt");
  EXPECT_EQ(methods_->RenameFileOnServer(ghost), -61);
  EXPECT_EQ(told.size(), 1u);

  CVFileWithAction folder;
  folder.isFolder = true;
  folder.nFilePath = Local("Team", "new/nested & more");
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), 0);
  EXPECT_TRUE(fs::is_directory(OnServer("Team", "new/nested & more")));
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), 0);  // there already

  CVFileWithAction gone = file;
  gone.nFilePath = Local("Docs", "x{y}.txt");
  EXPECT_EQ(methods_->DeleteFileOnServer(gone), 0);
  EXPECT_FALSE(fs::exists(OnServer("Docs", "x{y}.txt")));
  EXPECT_FALSE(server_->Versions("Docs", "x{y}.txt").empty());
  EXPECT_FALSE(RecordOf(gone.nFilePath));
  EXPECT_EQ(methods_->DeleteFileOnServer(gone), 0);  // gone already: as good as deleted

  CVFileWithAction tree;
  tree.isFolder = true;
  tree.nFilePath = Local("Team", "new");
  EXPECT_EQ(methods_->DeleteFolderOnServer(tree), 0);
  EXPECT_FALSE(fs::exists(OnServer("Team", "new")));

  server_->MarkRestricted("Docs", "closed.txt");
  PutServerFile("Docs", "closed.txt", "closed");
  CVFileWithAction closed;
  closed.nFilePath = Local("Docs", "closed.txt");
  EXPECT_EQ(methods_->DeleteFileOnServer(closed), -6);
  EXPECT_TRUE(fs::exists(OnServer("Docs", "closed.txt")));
}

}  // namespace
