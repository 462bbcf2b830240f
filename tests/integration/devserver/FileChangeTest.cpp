// MoveFile, DeleteFile, DeleteFolder, CreateFolder, GetVersions and
// SwitchToVersion: what each changes in the storage's folder, its refusals,
// and the versions that deletes and switches keep.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "DevServerFixture.h"
#include "WireFormats.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kNotFound = "-6;File/Folder not found;";
constexpr const char* kExists =
    "-6;Error Code - 183 Cannot create a file when that file already exists;";
constexpr const char* kRestricted = "-7;Access denied by IP restriction";

class FileChangeTest : public DevServerTest {
 protected:
  void SetUp() override {
    DevServerTest::SetUp();
    token_ = StorageToken("Docs");
    PutFile("Docs", "a.txt", "alpha", 1'600'000'001);
    PutFile("Docs", "dir/b.txt", "bravo", 1'600'000'002);
    PutFile("Docs", "dir/sub/c.txt", "charlie", 1'600'000'003);
    server_->MarkRestricted("Docs", "closed");
    PutFile("Docs", "open/closed-not/x.txt", "x");
    PutFile("Docs", "closed/y.txt", "y");
  }

  static std::string At(std::string relative) {
    for (auto& c : relative) {
      if (c == '/') c = '\\';
    }
    return "\\\\devserver\\Docs\\" + relative;
  }

  std::string Mobile(const std::string& method, const Params& params) {
    Params all = {{"Token", token_}};
    all.insert(all.end(), params.begin(), params.end());
    return Call("/CorvalinkMobile.asmx", method, all);
  }
  std::string Move(const std::string& from, const std::string& to) {
    return Mobile("MoveFile", {{"CurrentFileName", At(from)}, {"NewFileName", At(to)}});
  }
  std::string OnPath(const std::string& method, const std::string& relative) {
    return Mobile(method, {{"Path", At(relative)}});
  }

  std::string Read(const std::string& relative) {
    std::ifstream in(Folder("Docs") / relative, std::ios::binary);
    if (!in) return "<none>";
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  std::int64_t Modified(const std::string& relative) {
    struct stat st {};
    return ::stat((Folder("Docs") / relative).c_str(), &st) == 0 ? st.st_mtim.tv_sec : -1;
  }

  std::string token_;
};

TEST_F(FileChangeTest, MoveFileRenamesFilesAndFoldersIntoNewParents) {
  EXPECT_EQ(Move("a.txt", "renamed.txt"), "0;");
  EXPECT_EQ(Read("a.txt"), "<none>");
  EXPECT_EQ(Read("renamed.txt"), "alpha");
  // A rename is no change of content: the time stays.
  EXPECT_EQ(Modified("renamed.txt"), 1'600'000'001);

  EXPECT_EQ(Move("dir", "moved/deeper/dir2"), "0;");
  EXPECT_EQ(Read("moved/deeper/dir2/sub/c.txt"), "charlie");
  EXPECT_FALSE(fs::exists(Folder("Docs") / "dir"));

  // The client renames with its own separator, any letter case in the location.
  EXPECT_EQ(Mobile("MoveFile", {{"CurrentFileName", "\\\\DEVSERVER\\docs\\renamed.txt"},
                                {"NewFileName", "//devserver/Docs/R&D [1].txt"}}),
            "0;");
  EXPECT_EQ(Read("R&D [1].txt"), "alpha");
}

TEST_F(FileChangeTest, MoveFileRefusals) {
  PutFile("Team", "t.txt", "team");
  struct Case {
    const char* what;
    std::string from, to, reply;
  };
  const std::vector<Case> cases = {
      {"target exists", At("a.txt"), At("dir/b.txt"), kExists},
      {"target folder exists", At("dir/b.txt"), At("dir/sub"), kExists},
      {"source missing", At("nothing.txt"), At("new.txt"), kNotFound},
      {"folder into itself", At("dir"), At("dir/sub/dir"), "-5;A folder cannot move into itself"},
      {"out of the storage", At("a.txt"), At("../a.txt"), kNotFound},
      {"into another storage", At("a.txt"), "https://devserver/Team/a.txt", kNotFound},
      {"the storage's root", "\\\\devserver\\Docs\\", At("root"),
       "-5;The storage's root cannot be changed"},
      {"out of a restricted folder", At("closed/y.txt"), At("y.txt"), kRestricted},
      {"into a restricted folder", At("a.txt"), At("closed/a.txt"), kRestricted},
      {"a folder holding a restricted one", At("open"), At("elsewhere"), "0;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Mobile("MoveFile", {{"CurrentFileName", c.from}, {"NewFileName", c.to}}), c.reply);
  }
  server_->MarkRestricted("Docs", "dir/sub");
  EXPECT_EQ(Move("dir", "dir3"), kRestricted);
  EXPECT_EQ(Read("a.txt"), "alpha");
  EXPECT_EQ(Read("dir/b.txt"), "bravo");
  EXPECT_EQ(Read("closed/y.txt"), "y");
}

TEST_F(FileChangeTest, DeletesKeepWhatTheyRemoveAsVersions) {
  EXPECT_EQ(OnPath("DeleteFile", "a.txt"), "0;");
  EXPECT_EQ(Read("a.txt"), "<none>");
  EXPECT_EQ(Download(token_, At("a.txt"), {}, "1")->body, "alpha");

  EXPECT_EQ(OnPath("DeleteFolder", "dir"), "0;");
  EXPECT_FALSE(fs::exists(Folder("Docs") / "dir"));
  ASSERT_EQ(server_->Versions("Docs", "dir/sub/c.txt").size(), 1u);
  EXPECT_EQ(Download(token_, At("dir/sub/c.txt"), {}, "1")->body, "charlie");

  // Gone already: "-6;", which the client counts as done.
  EXPECT_EQ(OnPath("DeleteFile", "a.txt"), kNotFound);
  EXPECT_EQ(OnPath("DeleteFolder", "dir"), kNotFound);
}

TEST_F(FileChangeTest, DeleteRefusals) {
  server_->MarkRestricted("Docs", "dir/sub");
  struct Case {
    const char* method;
    std::string path, reply;
  };
  const std::vector<Case> cases = {
      {"DeleteFile", At("dir"), "-5;The path is a folder"},
      {"DeleteFolder", At("a.txt"), "-5;The path is a file"},
      {"DeleteFile", At("closed/y.txt"), kRestricted},
      {"DeleteFolder", At("closed"), kRestricted},
      // The folder holds a restricted one, which a delete must not reach.
      {"DeleteFolder", At("dir"), kRestricted},
      {"DeleteFolder", "\\\\devserver\\Docs\\", "-5;The storage's root cannot be changed"},
      {"DeleteFile", At("../srv/docs/a.txt"), kNotFound},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.path);
    EXPECT_EQ(Mobile(c.method, {{"Path", c.path}}), c.reply);
  }
  EXPECT_EQ(Read("a.txt"), "alpha");
  EXPECT_EQ(Read("dir/sub/c.txt"), "charlie");
  EXPECT_EQ(Read("closed/y.txt"), "y");
  EXPECT_TRUE(server_->Versions("Docs", "a.txt").empty());
}

TEST_F(FileChangeTest, CreateFolderMakesParentsAndAcceptsAnExistingFolder) {
  EXPECT_EQ(OnPath("CreateFolder", "new/deeper/leaf"), "0;");
  EXPECT_TRUE(fs::is_directory(Folder("Docs") / "new/deeper/leaf"));
  EXPECT_EQ(OnPath("CreateFolder", "new/deeper/leaf"), "0;");
  EXPECT_EQ(OnPath("CreateFolder", "dir"), "0;");
  EXPECT_EQ(Read("dir/b.txt"), "bravo");
  EXPECT_EQ(Mobile("GetFileInfo", {{"Path", At("new/deeper/leaf")}}).substr(0, 6), "0;D;0;");

  EXPECT_EQ(OnPath("CreateFolder", "a.txt"), kExists);
  EXPECT_EQ(OnPath("CreateFolder", "a.txt/below"), kNotFound);
  EXPECT_EQ(OnPath("CreateFolder", "closed/new"), kRestricted);
  EXPECT_EQ(OnPath("CreateFolder", "../escape"), kNotFound);
  EXPECT_FALSE(fs::exists(Folder("Docs") / "closed/new"));
  EXPECT_FALSE(fs::exists(root_ / "srv" / "escape"));
}

TEST_F(FileChangeTest, VersionsAreListedAndCanBeSwitchedTo) {
  server_->WriteFile("Docs", "a.txt", "second", "alice");
  server_->WriteFile("Docs", "a.txt", "third!", "bob");
  const auto reply =
      Post("/CorvalinkMobile.asmx", "GetVersions", {{"Token", token_}, {"Path", At("a.txt")}});
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(ElementTexts(reply.body, "Version"), (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(ElementTexts(reply.body, "Size"), (std::vector<std::string>{"5", "6"}));
  EXPECT_EQ(ElementTexts(reply.body, "Owner"), (std::vector<std::string>{"alice", "bob"}));
  EXPECT_EQ(ElementText(reply.body, "FullPath"), "\\\\devserver\\Docs\\a.txt");
  const auto created = ElementText(reply.body, "Created");
  EXPECT_TRUE(std::regex_match(created, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)")))
      << created;

  EXPECT_EQ(Mobile("SwitchToVersion", {{"Path", At("a.txt")}, {"Version", "1"}}), "0;");
  EXPECT_EQ(Read("a.txt"), "alpha");
  // The content it replaced is a version of its own.
  ASSERT_EQ(server_->Versions("Docs", "a.txt").size(), 3u);
  EXPECT_EQ(Download(token_, At("a.txt"), {}, "3")->body, "third!");
  EXPECT_EQ(Mobile("SwitchToVersion", {{"Path", At("a.txt")}, {"Version", "9"}}), "2");
  EXPECT_EQ(Mobile("SwitchToVersion", {{"Path", At("a.txt")}, {"Version", "x"}}), "2");
  EXPECT_TRUE(ElementTexts(Post("/CorvalinkMobile.asmx", "GetVersions",
                                {{"Token", token_}, {"Path", At("dir/b.txt")}})
                               .body,
                           "StorageVersionInfo")
                  .empty());
}

TEST_F(FileChangeTest, EveryNewCallRefusesABadTokenAndAPathOutOfTheStorage) {
  const std::vector<std::pair<std::string, Params>> calls = {
      {"MoveFile", {{"NewFileName", At("z.txt")}}},
      {"DeleteFile", {}},
      {"DeleteFolder", {}},
      {"CreateFolder", {}},
      {"FinishPartialUpload", {{"PartSize", "1024"}}},
      {"CancelPartialUpload", {}},
      {"SwitchToVersion", {{"Version", "1"}}},
  };
  for (const auto& [method, extra] : calls) {
    SCOPED_TRACE(method);
    auto call = [&, method = method, extra = extra](const std::string& token,
                                                    const std::string& path) {
      Params params = {{"Token", token}, {method == "MoveFile" ? "CurrentFileName" : "Path", path}};
      params.insert(params.end(), extra.begin(), extra.end());
      return Call("/CorvalinkMobile.asmx", method, params);
    };
    EXPECT_EQ(call("00000000-0000-0000-0000-000000000000", At("a.txt")), "-1;Invalid token");
    EXPECT_EQ(call("", At("a.txt")), "-1;Invalid token");
    EXPECT_EQ(call(token_, "\\\\devserver\\Docs\\..\\srv\\docs\\a.txt"), kNotFound);
    // Another user's storage is no place of this user's.
    EXPECT_EQ(call(token_, "\\\\devserver\\Bobs\\a.txt"), kNotFound);
  }
  EXPECT_EQ(Read("a.txt"), "alpha");
  EXPECT_EQ(Read("dir/b.txt"), "bravo");
}

}  // namespace

namespace {

constexpr const char* kNameRefused =
    "-5;Error Code - 123 The filename, directory name, or volume label syntax is incorrect.;";

class ShareNamesTest : public FileChangeTest {
 protected:
  int Upload(const std::string& relative, const std::string& body) {
    const std::string target = "/UploadStorageFile.ashx?token=" + devserver::PercentEncode(token_, '\0') +
                               "&path=" + devserver::PercentEncode(At(relative), '\0') +
                               "&Length=" + std::to_string(body.size());
    auto res = client_->Post(target.c_str(), body, "application/octet-stream");
    return res ? res->status : -1;
  }
  std::set<std::string> Names(const std::string& relative) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(Folder("Docs") / relative)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }
};

}  // namespace

TEST_F(ShareNamesTest, AShareTakesNamesWithoutCaseAndKeepsTheCaseTheyWereMadeWith) {
  EXPECT_EQ(OnPath("GetFileInfo", "A.TXT"), "0;F;5;1600000001");
  EXPECT_EQ(OnPath("CreateFolder", "DIR/Sub"), "0;");
  EXPECT_EQ(Upload("DIR/SUB/New.txt", "new"), 200);
  EXPECT_EQ(Upload("dir/B.TXT", "bravo, again"), 200);
  EXPECT_EQ(Names("dir"), (std::set<std::string>{"b.txt", "sub"}));
  EXPECT_EQ(Read("dir/b.txt"), "bravo, again");
  EXPECT_EQ(Read("dir/sub/New.txt"), "new");
  EXPECT_EQ(Move("dir/sub/NEW.TXT", "dir/b.txt"), kExists);

  // A change of case alone is a rename of the same item; its time stays.
  EXPECT_EQ(Move("a.txt", "A.txt"), "0;");
  EXPECT_EQ(Names("").count("A.txt"), 1u);
  EXPECT_EQ(Names("").count("a.txt"), 0u);
  EXPECT_EQ(Modified("A.txt"), 1'600'000'001);
  EXPECT_EQ(Move("DIR", "Dir"), "0;");
  EXPECT_EQ(Read("Dir/sub/c.txt"), "charlie");
}

TEST_F(ShareNamesTest, AShareRefusesWhatWindowsRefusesUnlessLinuxNamesAreAsked) {
  const char* refused[] = {"a:b.txt", "why?", "st*r", "q\"uote", "<x>", "p|pe", "dot.", "space ",
                           "CON", "con.txt", "Nul.tar.gz", "COM1", "lpt9.log"};
  for (const char* name : refused) {
    SCOPED_TRACE(name);
    EXPECT_EQ(OnPath("CreateFolder", std::string("dir/") + name), kNameRefused);
    EXPECT_EQ(Move("a.txt", name), kNameRefused);
    EXPECT_EQ(Upload(std::string("new/") + name, "x"), 500);
  }
  EXPECT_EQ(Names(""), (std::set<std::string>{"a.txt", "closed", "dir", "open"})) << "nothing was made";
  EXPECT_EQ(OnPath("CreateFolder", "COM10/CONSOLE"), "0;");

  auto options = DefaultOptions();
  options.linuxNames = true;
  Restart(options);
  token_ = StorageToken("Docs");
  EXPECT_EQ(OnPath("CreateFolder", "con"), "0;");
  EXPECT_EQ(Upload("A.TXT", "another file"), 200);
  EXPECT_EQ(Read("a.txt"), "alpha");
  EXPECT_EQ(Read("A.TXT"), "another file");
}

// Every action that succeeds is a row of the caller's usage history, newest
// first, twenty a page from page 0; refusals and resumed downloads are none.
TEST_F(FileChangeTest, UsageHistoryPagesTheCallersActions) {
  ASSERT_EQ(Move("a.txt", "a2.txt"), "0;");
  ASSERT_EQ(OnPath("DeleteFile", "gone.txt"), kNotFound);
  ASSERT_EQ(OnPath("CreateFolder", "new"), "0;");
  ASSERT_EQ(Download(token_, At("dir/b.txt"), {{"Range", "2-"}})->status, 200);
  for (int i = 0; i < 19; ++i) ASSERT_EQ(Download(token_, At("dir/b.txt"))->status, 200);
  ASSERT_EQ(OnPath("DeleteFolder", "dir/sub"), "0;");
  const std::string alice = MainToken(), bob = MainToken("bob", "hunter2");
  auto page = [&](const std::string& token, const std::string& number) {
    return Post("/CorvalinkWS.asmx", "GetUsageHistory", {{"Token", token}, {"pageNum", number}}).body;
  };
  const auto first = page(alice, "0");
  const auto actions = ElementTexts(first, "Action");
  ASSERT_EQ(actions.size(), 20u) << first;
  EXPECT_EQ(actions[0], "Deleted");
  EXPECT_EQ(ElementTexts(first, "FileUrl")[0], At("dir/sub"));
  EXPECT_EQ(std::count(actions.begin(), actions.end(), "Downloaded"), 19);
  const auto second = page(alice, "1");
  EXPECT_EQ(ElementTexts(second, "Action"), (std::vector<std::string>{"Folder created", "Renamed"})) << second;
  EXPECT_EQ(ElementTexts(second, "Subject")[1], At("a.txt"));
  EXPECT_EQ(ElementTexts(second, "UserBy")[1], "alice@devserver");
  for (const auto& empty : {page(alice, "2"), page(alice, "x"), page(bob, "0")}) {
    EXPECT_TRUE(ElementTexts(empty, "UsageHistory").empty()) << empty;
  }
  EXPECT_EQ(ElementText(page("bad", "0"), "GetUsageHistoryResult"), "-1;Invalid token");
}
