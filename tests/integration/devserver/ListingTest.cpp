// GetFiles and GetFileInfo: entry form, encoding, separators, restricted paths,
// injected codes, and agreement with the download handler.

#include <fcntl.h>
#include <sys/stat.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>

#include "DevServerFixture.h"

namespace fs = std::filesystem;

namespace {

class ListingTest : public DevServerTest {
 protected:
  void SetUp() override {
    DevServerTest::SetUp();
    token_ = StorageToken("Docs");
  }
  std::string List(const std::string& path, bool recursive) {
    return Call("/CorvalinkMobile.asmx", "GetFiles",
                {{"Token", token_}, {"Path", path}, {"IsRecursive", recursive ? "true" : "false"}});
  }
  std::string Info(const std::string& path) {
    return Call("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token_}, {"Path", path}});
  }
  std::string token_;
};

TEST_F(ListingTest, RecursiveAndOneLevelListingsOfACifsStorage) {
  PutFile("Docs", "a.txt", "hello", 1'600'000'001);
  PutFile("Docs", "sub/b.bin", std::string(300, 'b'), 1'600'000'002);
  PutFile("Docs", "sub/deeper/c", "", 1'600'000'003);
  fs::create_directories(Folder("Docs") / "empty");
  const timespec times[2] = {{0, UTIME_OMIT}, {1'600'000'009, 0}};
  for (const auto* folder : {"sub", "sub/deeper", "empty"}) {
    ASSERT_EQ(::utimensat(AT_FDCWD, (Folder("Docs") / folder).c_str(), times, 0), 0);
  }

  // Every descendant, folders included, parents before their content, no root.
  EXPECT_EQ(List("\\\\devserver\\Docs\\", true),
            "0;0:5:1600000001:F:0:\\\\devserver\\Docs\\a.txt"
            ";0:0:1600000009:D:0:\\\\devserver\\Docs\\empty"
            ";0:0:1600000009:D:0:\\\\devserver\\Docs\\sub"
            ";0:300:1600000002:F:0:\\\\devserver\\Docs\\sub\\b.bin"
            ";0:0:1600000009:D:0:\\\\devserver\\Docs\\sub\\deeper"
            ";0:0:1600000003:F:0:\\\\devserver\\Docs\\sub\\deeper\\c");
  EXPECT_EQ(List("\\\\devserver\\Docs", false),
            "0;0:5:1600000001:F:0:\\\\devserver\\Docs\\a.txt"
            ";0:0:1600000009:D:0:\\\\devserver\\Docs\\empty"
            ";0:0:1600000009:D:0:\\\\devserver\\Docs\\sub");
  // The Path as sent, in its own letter case, leads every entry; the location
  // matches without case, and on a share the folders below it too.
  EXPECT_EQ(List("\\\\DEVSERVER\\docs\\sub\\", false),
            "0;0:300:1600000002:F:0:\\\\DEVSERVER\\docs\\sub\\b.bin"
            ";0:0:1600000009:D:0:\\\\DEVSERVER\\docs\\sub\\deeper");
  EXPECT_EQ(List("\\\\devserver\\Docs\\SUB\\", false),
            "0;0:300:1600000002:F:0:\\\\devserver\\Docs\\SUB\\b.bin"
            ";0:0:1600000009:D:0:\\\\devserver\\Docs\\SUB\\deeper");
  EXPECT_EQ(List("\\\\devserver\\Docs\\empty\\", true), "0;");
  EXPECT_EQ(List("\\\\devserver\\Docs\\nothing\\", true), "-6;File/Folder not found;");
  EXPECT_EQ(List("\\\\devserver\\Docs\\a.txt", true), "-6;File/Folder not found;");
  EXPECT_EQ(List("\\\\devserver\\Docs2\\", true), "-6;File/Folder not found;");
}

TEST_F(ListingTest, UrlStoragesUseSlashesAndEncodeTheScheme) {
  PutFile("Team", "plan/q1.txt", "q1");
  const auto result = List("https://devserver/Team/", true);
  const auto entries = ListingEntries(result);
  ASSERT_EQ(entries.size(), 2u) << result;
  // ":" stays encoded, so that an entry always splits into six fields.
  EXPECT_EQ(SplitOn(entries[1], ':').size(), 6u) << entries[1];
  EXPECT_EQ(SplitOn(entries[1], ':')[5], "https%3A//devserver/Team/plan/q1.txt");
  EXPECT_EQ(EntryPath(entries[0]), "https://devserver/Team/plan");
  EXPECT_EQ(EntryPath(ListingEntries(List("HTTPS://DevServer/team/plan", false))[0]),
            "HTTPS://DevServer/team/plan/q1.txt");
}

TEST_F(ListingTest, NamesAreEncodedSoThatEveryEntryParses) {
  const std::vector<std::string> names = {"100% sure;ok.txt", "a:b:",        "Grüße – plan.txt",
                                          "space name",       "x+y=z&w.txt", "~tilde-_."};
  for (const auto& name : names) PutFile("Docs", "f/" + name, name);
  const auto entries = ListingEntries(List("\\\\devserver\\Docs\\f\\", true));
  ASSERT_EQ(entries.size(), names.size());
  std::set<std::string> listed;
  for (const auto& entry : entries) {
    EXPECT_EQ(SplitOn(entry, ':').size(), 6u) << entry;
    const auto fields = SplitOn(entry, ':');
    for (char c : fields[5]) {
      EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) ||
                  std::string("-._~%\\").find(c) != std::string::npos)
          << "'" << c << "' unencoded in " << entry;
    }
    listed.insert(EntryPath(entry));
  }
  for (const auto& name : names) {
    EXPECT_EQ(listed.count("\\\\devserver\\Docs\\f\\" + name), 1u) << name;
  }
  EXPECT_NE(List("\\\\devserver\\Docs\\f\\", false).find("Gr%C3%BC%C3%9Fe%20%E2%80%93%20plan.txt"),
            std::string::npos);
}

TEST_F(ListingTest, FileInfoAgreesWithTheListingAndTheDownload) {
  PutFile("Docs", "sub/report.pdf", std::string(1234, 'r'), 1'650'000'000);
  EXPECT_EQ(Info("\\\\devserver\\Docs\\sub\\report.pdf"), "0;F;1234;1650000000");
  EXPECT_EQ(Info("//devserver/Docs/sub/report.pdf"), "0;F;1234;1650000000");
  EXPECT_EQ(Info("\\\\devserver\\Docs\\sub\\missing.pdf"), "-6;File/Folder not found;");
  EXPECT_EQ(Info("\\\\devserver\\Docs\\sub").rfind("0;D;0;", 0), 0u);
  EXPECT_EQ(Info("\\\\devserver\\Docs\\").rfind("0;D;0;", 0), 0u);

  for (const auto& entry : ListingEntries(List("\\\\devserver\\Docs\\", true))) {
    const auto fields = SplitOn(entry, ':');
    const auto info = SplitOn(Info(EntryPath(entry)), ';');
    ASSERT_EQ(info.size(), 4u);
    EXPECT_EQ(info[1], fields[3]);
    EXPECT_EQ(info[2], fields[1]);
    EXPECT_EQ(info[3], fields[2]);
    if (fields[3] == "F") {
      auto download = Download(token_, EntryPath(entry));
      ASSERT_TRUE(download);
      EXPECT_EQ(std::to_string(download->body.size()), fields[1]);
    }
  }
}

TEST_F(ListingTest, RestrictedPathsAnswerMinusSevenAndAreNeverLeftOut) {
  PutFile("Docs", "open.txt", "o");
  PutFile("Docs", "Secret/plan.txt", "p");
  server_->MarkRestricted("Docs", "Secret");

  EXPECT_EQ(List("\\\\devserver\\Docs\\Secret\\", true).rfind("-7;", 0), 0u);
  EXPECT_EQ(List("\\\\devserver\\Docs\\Secret\\", false).rfind("-7;", 0), 0u);
  // A whole listing would have to leave the folder out: refused whole.
  EXPECT_EQ(List("\\\\devserver\\Docs\\", true).rfind("-7;", 0), 0u);
  // One level shows the folder itself.
  const auto level = ListingEntries(List("\\\\devserver\\Docs\\", false));
  ASSERT_EQ(level.size(), 2u);
  EXPECT_EQ(EntryPath(level[0]), "\\\\devserver\\Docs\\Secret");
  EXPECT_EQ(Info("\\\\devserver\\Docs\\Secret\\plan.txt").rfind("-7;", 0), 0u);
  auto download = Download(token_, "\\\\devserver\\Docs\\Secret\\plan.txt");
  ASSERT_TRUE(download);
  EXPECT_EQ(download->status, 403);

  server_->ClearRestricted();
  EXPECT_EQ(ListingEntries(List("\\\\devserver\\Docs\\", true)).size(), 3u);
}

TEST_F(ListingTest, InjectedCodesComeForTheirCountThenTheListing) {
  PutFile("Docs", "a.txt", "a");
  server_->FailNext("GetFiles", devserver::Fault::Result("-100;Storage busy"), 2);
  server_->FailNext("CorvalinkMobile.asmx/GetFiles",
                    devserver::Fault::Result("-10000;Storage error"));
  // The qualified fault is taken first.
  EXPECT_EQ(List("\\\\devserver\\Docs\\", true), "-10000;Storage error");
  EXPECT_EQ(List("\\\\devserver\\Docs\\", true), "-100;Storage busy");
  EXPECT_EQ(Info("\\\\devserver\\Docs\\a.txt"), "0;F;1;1600000000");
  EXPECT_EQ(List("\\\\devserver\\Docs\\", true), "-100;Storage busy");
  EXPECT_EQ(ListingEntries(List("\\\\devserver\\Docs\\", true)).size(), 1u);
  EXPECT_EQ(server_->CallCount("GetFiles"), 4);
}

TEST_F(ListingTest, LinksAndSpecialFilesAreNotPartOfAStorage) {
  PutFile("Docs", "real.txt", "r");
  std::ofstream(root_ / "outside.txt") << "outside";
  fs::create_directories(root_ / "outside-dir");
  std::ofstream(root_ / "outside-dir" / "inner.txt") << "inner";
  fs::create_symlink(root_ / "outside.txt", Folder("Docs") / "link.txt");
  fs::create_directory_symlink(root_ / "outside-dir", Folder("Docs") / "linkdir");
  ASSERT_EQ(::mkfifo((Folder("Docs") / "pipe").c_str(), 0600), 0);

  const auto entries = ListingEntries(List("\\\\devserver\\Docs\\", true));
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(EntryPath(entries[0]), "\\\\devserver\\Docs\\real.txt");
  EXPECT_EQ(Info("\\\\devserver\\Docs\\link.txt"), "-6;File/Folder not found;");
  EXPECT_EQ(Info("\\\\devserver\\Docs\\linkdir\\inner.txt"), "-6;File/Folder not found;");
  EXPECT_EQ(List("\\\\devserver\\Docs\\linkdir\\", true), "-6;File/Folder not found;");
  auto download = Download(token_, "\\\\devserver\\Docs\\linkdir\\inner.txt");
  ASSERT_TRUE(download);
  EXPECT_EQ(download->status, 404);
}

TEST_F(ListingTest, IsRecursiveMustBeABoolean) {
  const auto answer =
      Post("/CorvalinkMobile.asmx", "GetFiles",
           {{"Token", token_}, {"Path", "\\\\devserver\\Docs\\"}, {"IsRecursive", "yes"}});
  EXPECT_EQ(answer.status, 500);
  EXPECT_NE(answer.body.find("soap:Client"), std::string::npos);
}

}  // namespace
