// DownloadStorageFile.ashx: raw ranges, gzip, status codes, versions, dropped
// connections; and hostile paths against every call that takes a path.

#include <filesystem>
#include <fstream>

#include "DevServerFixture.h"

namespace fs = std::filesystem;

namespace {

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
  return bytes;
}

class DownloadTest : public DevServerTest {
 protected:
  void SetUp() override {
    DevServerTest::SetUp();
    token_ = StorageToken("Docs");
    content_ = Pattern(1000);
    PutFile("Docs", "data.bin", content_);
  }
  const std::string path_ = "\\\\devserver\\Docs\\data.bin";
  std::string token_;
  std::string content_;
};

TEST_F(DownloadTest, RawRangeFormsSelectFromAndLength) {
  struct Case {
    const char* range;  // nullptr: no header
    int status;
    std::size_t from, length;
  };
  const Case cases[] = {
      {nullptr, 200, 0, 1000},    {"0-", 200, 0, 1000},     {"100-", 200, 100, 900},
      {"100-150", 200, 100, 150}, {"990-50", 200, 990, 10}, {"999-", 200, 999, 1},
      {"1000-", 200, 0, 0},       {"5000-10", 200, 0, 0},   {"10-0", 200, 0, 0},
      {"bytes=0-", 400, 0, 0},    {"-5", 400, 0, 0},        {"abc", 400, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.range ? c.range : "(none)");
    httplib::Headers headers;
    if (c.range) headers.emplace("Range", c.range);
    auto res = Download(token_, path_, headers);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    if (c.status == 200) {
      EXPECT_EQ(res->body, content_.substr(c.from, c.length));
      EXPECT_EQ(res->get_header_value("Content-Length"), std::to_string(c.length));
    }
    // The header reaches the recorder as it was sent.
    const auto sent = server_->LastRequest("DownloadStorageFile.ashx");
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->HasHeader("Range"), c.range != nullptr);
    if (c.range) {
      EXPECT_EQ(sent->Header("Range"), c.range);
    }
    EXPECT_EQ(sent->Field("path"), path_);
  }
}

TEST_F(DownloadTest, AnEmptyRangeIsTheWholeFile) {
  const std::string body = "token=" + token_ + "&path=%5C%5Cdevserver%5CDocs%5Cdata.bin";
  const auto answer =
      RawPost("/DownloadStorageFile.ashx",
              "Range:\r\nContent-Type: application/x-www-form-urlencoded\r\n", body);
  ASSERT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u) << answer.substr(0, 200);
  const auto headerEnd = answer.find("\r\n\r\n");
  ASSERT_NE(headerEnd, std::string::npos);
  EXPECT_EQ(answer.substr(headerEnd + 4), content_);
  const auto sent = server_->LastRequest("DownloadStorageFile.ashx");
  ASSERT_TRUE(sent && sent->HasHeader("Range"));
  EXPECT_EQ(sent->Header("Range"), "");
}

TEST_F(DownloadTest, EveryRequestOfAKeptAliveConnectionHasItsOwnRange) {
  // Three requests written at once on one connection: each Range must be read
  // as a header of its own request, never as body bytes of the one before.
  const std::string form = "token=" + token_ + "&path=%5C%5Cdevserver%5CDocs%5Cdata.bin";
  const std::string type = "Content-Type: application/x-www-form-urlencoded\r\n";
  const auto answer =
      RawExchange(RawRequest("/DownloadStorageFile.ashx", "Range: 10-5\r\n" + type, form, false) +
                  RawRequest("/DownloadStorageFile.ashx", "range:\r\n" + type, form, false) +
                  RawRequest("/DownloadStorageFile.ashx", "RANGE: 995-\r\n" + type, form, true));
  std::vector<std::string> bodies;
  std::size_t at = 0;
  while ((at = answer.find("HTTP/1.1 200 OK\r\n", at)) != std::string::npos) {
    const auto lengthAt = answer.find("Content-Length: ", at) + 16;
    const auto length =
        std::stoul(answer.substr(lengthAt, answer.find("\r\n", lengthAt) - lengthAt));
    const auto bodyAt = answer.find("\r\n\r\n", at) + 4;
    bodies.push_back(answer.substr(bodyAt, length));
    at = bodyAt + length;
  }
  ASSERT_EQ(bodies.size(), 3u) << answer.substr(0, 300);
  EXPECT_EQ(bodies[0], content_.substr(10, 5));
  EXPECT_EQ(bodies[1], content_);
  EXPECT_EQ(bodies[2], content_.substr(995));
  EXPECT_EQ(server_->CallCount("DownloadStorageFile.ashx"), 3);

  // httplib's own client on a kept-alive connection, SOAP calls in between.
  client_->set_keep_alive(true);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Download(token_, path_, {{"Range", std::to_string(i) + "-2"}})->body,
              content_.substr(i, 2));
    EXPECT_EQ(Call("/CorvalinkWS.asmx", "GetVersion", {}), "6.1.0.0");
  }
}

TEST_F(DownloadTest, GzipIsOneMemberOfTheSelectedBytesWithItsLength) {
  const std::string text = std::string(5000, 'a') + Pattern(3000);
  PutFile("Docs", "text.txt", text);
  struct Case {
    const char* range;
    std::size_t from, length;
  };
  for (const Case& c : {Case{"", 0, 8000}, Case{"100-", 100, 7900}, Case{"4000-2000", 4000, 2000},
                        Case{"7999-", 7999, 1}}) {
    SCOPED_TRACE(c.range);
    httplib::Headers headers{{"Accept-Encoding", "gzip"}};
    if (*c.range) headers.emplace("Range", c.range);
    auto res = Download(token_, "\\\\devserver\\Docs\\text.txt", headers);
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200);
    EXPECT_EQ(res->get_header_value("Content-Encoding"), "gzip");
    EXPECT_EQ(res->get_header_value("Content-Length"), std::to_string(res->body.size()));
    EXPECT_FALSE(res->has_header("Transfer-Encoding"));
    bool single = false;
    EXPECT_EQ(Inflate(res->body, &single), text.substr(c.from, c.length));
    EXPECT_TRUE(single);
  }
  // q=0 refuses gzip.
  auto plain = Download(token_, path_, {{"Accept-Encoding", "gzip;q=0, identity"}});
  ASSERT_TRUE(plain);
  EXPECT_FALSE(plain->has_header("Content-Encoding"));
  EXPECT_EQ(plain->body, content_);
}

TEST_F(DownloadTest, BadTokenIs401AndAnythingMissingIs404) {
  auto status = [&](const std::string& token, const std::string& path,
                    const std::string& version = {}) {
    auto res = Download(token, path, {}, version);
    return res ? res->status : -1;
  };
  EXPECT_EQ(status("00000000-0000-0000-0000-000000000000", path_), 401);
  EXPECT_EQ(status("", path_), 401);
  EXPECT_EQ(status(token_, "\\\\devserver\\Docs\\missing.bin"), 404);
  EXPECT_EQ(status(token_, "\\\\devserver\\Docs\\"), 404);
  EXPECT_EQ(status(token_, path_, "1"), 404);
  EXPECT_EQ(status(token_, path_, "x"), 404);
  // Multipart forms are read too.
  httplib::MultipartFormDataItems items{{"token", token_, "", ""}, {"path", path_, "", ""}};
  auto res = client_->Post("/DownloadStorageFile.ashx", items);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, content_);
}

TEST_F(DownloadTest, OverwritesAndDeletesKeepVersionsOutsideTheStorage) {
  server_->WriteFile("Docs", "notes/v.txt", "one", "alice");
  server_->WriteFile("Docs", "notes/v.txt", "two!", "alice");
  server_->WriteFile("Docs", "notes/v.txt", "three", "bob", 1'700'000'000);
  const std::string path = "\\\\devserver\\Docs\\notes\\v.txt";

  const auto versions = server_->Versions("Docs", "notes/v.txt");
  ASSERT_EQ(versions.size(), 2u);
  EXPECT_EQ(versions[0].version, 1);
  EXPECT_EQ(versions[0].size, 3);
  EXPECT_EQ(versions[1].size, 4);
  EXPECT_EQ(versions[1].owner, "bob");
  EXPECT_EQ(Download(token_, path, {}, "1")->body, "one");
  EXPECT_EQ(Download(token_, path, {{"Range", "1-2"}}, "2")->body, "wo");
  EXPECT_EQ(Download(token_, path)->body, "three");
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token_}, {"Path", path}}),
            "0;F;5;1700000000");

  ASSERT_TRUE(server_->RemovePath("Docs", "notes", "alice"));
  EXPECT_EQ(Download(token_, path)->status, 404);
  EXPECT_EQ(Download(token_, path, {}, "3")->body, "three");

  // Nothing of the version store shows in the storage's folder.
  std::vector<std::string> inFolder;
  for (const auto& entry : fs::recursive_directory_iterator(Folder("Docs"))) {
    inFolder.push_back(fs::relative(entry.path(), Folder("Docs")).string());
  }
  EXPECT_EQ(inFolder, std::vector<std::string>{"data.bin"});
}

TEST_F(DownloadTest, DropCutsTheBodyAfterItsByteCountThenServesAgain) {
  const auto big = Pattern(100'000);
  PutFile("Docs", "big.bin", big);
  server_->FailNext("DownloadStorageFile.ashx", devserver::Fault::Drop(1024));
  const std::string body = "token=" + token_ + "&path=%5C%5Cdevserver%5CDocs%5Cbig.bin";
  const auto answer = RawPost("/DownloadStorageFile.ashx",
                              "Content-Type: application/x-www-form-urlencoded\r\n", body);
  const auto headerEnd = answer.find("\r\n\r\n");
  ASSERT_NE(headerEnd, std::string::npos) << answer;
  EXPECT_NE(answer.find("Content-Length: 100000"), std::string::npos);
  EXPECT_EQ(answer.substr(headerEnd + 4), big.substr(0, 1024));

  // The resumed request, and the fault is used up.
  auto rest = Download(token_, "\\\\devserver\\Docs\\big.bin", {{"Range", "1024-"}});
  ASSERT_TRUE(rest);
  EXPECT_EQ(rest->body, big.substr(1024));
  EXPECT_EQ(server_->LastRequest("DownloadStorageFile.ashx")->Header("Range"), "1024-");

  server_->FailNext("DownloadStorageFile.ashx", devserver::Fault::DropBeforeReply());
  EXPECT_FALSE(Download(token_, path_));
}

TEST_F(DownloadTest, InjectedStatusAndDelay) {
  server_->FailNext("downloadstoragefile.ashx", devserver::Fault::Status(503));
  server_->FailNext("DownloadStorageFile.ashx",
                    devserver::Fault::Delay(std::chrono::milliseconds(30)));
  EXPECT_EQ(Download(token_, path_)->status, 503);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Download(token_, path_)->body, content_);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST_F(DownloadTest, HostilePathsNeverReachOutsideTheStorage) {
  // Targets beside the storage's folder: a file, and the storage's own state.
  std::ofstream(root_ / "srv" / "secret.txt") << "secret";
  server_->WriteFile("Docs", "data.bin", "new");  // puts a version into the state folder
  const auto outside = (root_ / "srv" / "secret.txt").string();
  const std::vector<std::string> paths = {
      "\\\\devserver\\Docs\\..\\secret.txt",
      "\\\\devserver\\Docs\\sub\\..\\..\\secret.txt",
      "\\\\devserver\\Docs/../secret.txt",
      "//devserver/Docs/./../secret.txt",
      "\\\\devserver\\Docs\\..",
      "\\\\devserver\\Docs\\%2e%2e\\secret.txt",
      "\\\\devserver\\Docs\\..%5csecret.txt",
      "\\\\devserver\\Docs.devserver-state\\versions",
      "\\\\devserver\\Docs\\" + outside,
      outside,
      "file://" + outside,
      "\\\\devserver\\Docs\\data.bin\\..\\..\\secret.txt",
  };
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token_}, {"Path", path}}),
              "-6;File/Folder not found;");
    EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFiles",
                   {{"Token", token_}, {"Path", path}, {"IsRecursive", "true"}}),
              "-6;File/Folder not found;");
    auto res = Download(token_, path);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 404);
  }
  // ".." written as character references is still "..".
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token_}},
                 {{"Path", "\\\\devserver\\Docs\\&#46;&#46;\\secret.txt"}}),
            "-6;File/Folder not found;");
  // A NUL in a form field cuts nothing short: the path is refused.
  const auto answer =
      RawPost("/DownloadStorageFile.ashx", "Content-Type: application/x-www-form-urlencoded\r\n",
              "token=" + token_ + "&path=%5C%5Cdevserver%5CDocs%5Cdata.bin%00.txt");
  EXPECT_EQ(answer.rfind("HTTP/1.1 404", 0), 0u) << answer.substr(0, 100);
  // A NUL cannot be written in XML at all.
  EXPECT_EQ(Post("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token_}},
                 {{"Path", "\\\\devserver\\Docs\\data.bin&#0;"}})
                .status,
            500);
}

}  // namespace
