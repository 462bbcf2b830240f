// Shared files from the local server: what GetFile.ashx and GetMyFile.ashx give
// whom, a download broken on the wire and resumed, one that starts over because
// the file changed, and a wrong size that never replaces the file in place.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "AsyncSharedDownloader.h"
#include "ClientServerFixture.h"
#include "ServerState.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

class SharedDownloadTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    auto options = DefaultOptions();
    options.users.push_back({"bob", "pw"});
    StartServer(options);
    ConfigureAccount("bob", "pw");
    for (int i = 0; i < 50000; ++i) content_ += std::to_string(i % 97) + ",";
    PutServerFile("Docs", "big.csv", content_, kModified);
    PutServerFile("Docs", "Dir/in.txt", "inside", kModified);
    PutServerFile("Docs", "secret.txt", "not shared", kModified);
    devserver::ShareRecord file, folder;
    file.owner = folder.owner = "alice";
    file.recipientUser = folder.recipientUser = "bob";
    file.location = server_->LocationOf("Docs") + "big.csv";
    folder.location = server_->LocationOf("Docs") + "Dir";
    folder.isFolder = true;
    server_->state().shares().Add({file, folder}, "https://devserver/s/");
    bob_ = server_->state().tokens().Issue("bob", devserver::TokenKind::Main);
    alice_ = server_->state().tokens().Issue("alice", devserver::TokenKind::Main);
    target_ = home_->root() + "/Shared In/1_big.csv";
    std::filesystem::create_directories(home_->root() + "/Shared In");
  }
  static constexpr std::int64_t kModified = 1'600'000'000;
  std::string content_, bob_, alice_, target_;
  AsyncSharedDownloader downloader_;
};

TEST_F(SharedDownloadTest, WhoGetsWhat) {
  const std::string local = home_->root() + "/Shared In/x";
  struct Case {
    std::string token, id;
    bool sharedIn;
    std::optional<std::string> path;
    std::int64_t reason;
    std::string content;
  } cases[] = {
      {bob_, "2", true, "in.txt", AsyncSharedDownloader::kReasonSuccess, "inside"},
      {bob_, "2", true, "..\\secret.txt", AsyncSharedDownloader::kReasonBadStatus, ""},
      {bob_, "2", true, "in.txt/../../secret.txt", AsyncSharedDownloader::kReasonBadStatus, ""},
      {bob_, "1", false, std::nullopt, AsyncSharedDownloader::kReasonBadStatus, ""},  // not bob's own share
      {alice_, "2", false, "in.txt", AsyncSharedDownloader::kReasonSuccess, "inside"},
      {alice_, "1", true, std::nullopt, AsyncSharedDownloader::kReasonBadStatus, ""},
      {"bad", "1", true, std::nullopt, AsyncSharedDownloader::kReasonNotAuthorized, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id + " " + c.path.value_or("") + (c.sharedIn ? " in" : " out"));
    std::filesystem::remove(local);
    const bool done = downloader_.DownloadSharingWithPath(local, c.id, c.sharedIn, c.path, c.token);
    EXPECT_EQ(done, c.reason == AsyncSharedDownloader::kReasonSuccess);
    EXPECT_EQ(downloader_.downloadCancelReason(), c.reason);
    EXPECT_EQ(std::filesystem::exists(local) ? ReadAll(local) : "", c.content);
    EXPECT_FALSE(std::filesystem::exists(home_->root() + "/Shared In/.x.cvtemp"));
    EXPECT_EQ(server_->LastRequest(c.sharedIn ? "GetFile.ashx" : "GetMyFile.ashx")->Header("Range"), "0-");
  }
}

TEST_F(SharedDownloadTest, BrokenDownloadResumesOnlyWhileTheFileIsTheSame) {
  const AsyncSharedDownloader::Expected expected{static_cast<std::int64_t>(content_.size()), kModified};
  struct Case {
    AsyncSharedDownloader::Expected expected;
    std::string range;  // of the second request
  } cases[] = {
      {expected, "100000-"},
      {{expected.size, kModified + 1}, "0-"},  // changed on the server since: starts over
  };
  for (const auto& c : cases) {
    std::filesystem::remove(target_);
    server_->FailNext("GetFile.ashx", devserver::Fault::Drop(100000));
    EXPECT_FALSE(downloader_.DownloadSharing(target_, "1", true, bob_, expected));
    EXPECT_FALSE(std::filesystem::exists(target_));
    EXPECT_EQ(std::filesystem::file_size(home_->root() + "/Shared In/.1_big.csv.cvtemp"), 100000u);
    EXPECT_TRUE(downloader_.DownloadSharing(target_, "1", true, bob_, c.expected));
    EXPECT_EQ(server_->LastRequest("GetFile.ashx")->Header("Range"), c.range);
    EXPECT_EQ(ReadAll(target_), content_);
    struct stat info {};
    ASSERT_EQ(::stat(target_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mtim.tv_sec, *c.expected.modified);
  }
  // A size other than the listing's leaves the copy in place as it was.
  std::ofstream(target_) << "old";
  EXPECT_FALSE(downloader_.DownloadSharing(target_, "1", true, bob_, {42, kModified}));
  EXPECT_EQ(downloader_.downloadCancelReason(), AsyncSharedDownloader::kReasonSizeMismatch);
  EXPECT_EQ(ReadAll(target_), "old");
  EXPECT_FALSE(std::filesystem::exists(home_->root() + "/Shared In/.1_big.csv.cvtemp"));
}
