#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FreedesktopTrash.h"

namespace fs = std::filesystem;

namespace {

std::string MakeTempFolder(const fs::path& parent, const std::string& prefix) {
  std::string pattern = (parent / (prefix + "-XXXXXX")).string();
  if (!mkdtemp(pattern.data())) return "";
  return pattern;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void WriteFile(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::set<std::string> Names(const fs::path& folder) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error))
    names.insert(entry.path().filename());
  return names;
}

std::string InfoPattern(const std::string& escapedPath) {
  return "\\[Trash Info\\]\nPath=" + escapedPath +
         "\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n";
}

// Temporary folders never hold characters that need escaping or regex quoting.
class TrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = MakeTempFolder(fs::temp_directory_path(), "cvtrash");
    ASSERT_FALSE(base_.empty());
    items_ = base_ + "/items";
    trash_ = base_ + "/data/Trash";
    fs::create_directories(items_);
  }
  void TearDown() override { fs::remove_all(base_); }

  std::string base_, items_, trash_;
};

// Puts the per-mount trash of other devices into a folder of the test's own.
class FixedTopTrash : public FreedesktopTrash {
 public:
  FixedTopTrash(std::string homeTrash, std::string top)
      : FreedesktopTrash(std::move(homeTrash)), top_(std::move(top)) {}

 protected:
  std::string TopDirectoryOf(const std::string&) const override { return top_; }

 private:
  std::string top_;
};

}  // namespace

TEST_F(TrashTest, NamesThatNeedEscapingKeepTheirOriginalPath) {
  struct Case {
    std::string name;
    std::string escaped;
  };
  const std::vector<Case> cases = {
      {"with space.txt", "with%20space.txt"},
      {"100%.txt", "100%25.txt"},
      {"Grüße ünd.txt", "Gr%C3%BC%C3%9Fe%20%C3%BCnd.txt"},
      {"a#b?c&d=e+f.txt", "a%23b%3Fc%26d%3De%2Bf.txt"},
      {"plain-name_1.0~", "plain-name_1.0~"},
  };
  FreedesktopTrash trash(trash_);
  for (const auto& c : cases) {
    std::string item = items_ + "/" + c.name;
    WriteFile(item, "content of " + c.name);
    std::string error;
    ASSERT_TRUE(trash.MoveToTrash(item, error)) << c.name << ": " << error;
    EXPECT_FALSE(fs::exists(item)) << c.name;
    EXPECT_EQ(ReadFile(trash_ + "/files/" + c.name), "content of " + c.name);
    std::string info = ReadFile(trash_ + "/info/" + c.name + ".trashinfo");
    EXPECT_TRUE(std::regex_match(info, std::regex(InfoPattern(items_ + "/" + c.escaped)))) << info;
  }
  struct stat info {};
  ASSERT_EQ(stat(trash_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(TrashTest, TheSameNameTwiceKeepsBothAndOverwritesNothing) {
  FreedesktopTrash trash(trash_);
  std::string error;
  WriteFile(items_ + "/a/report.txt", "one");
  WriteFile(items_ + "/b/report.txt", "two");
  WriteFile(items_ + "/c/report.txt", "three");
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/a/report.txt", error)) << error;
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/b/report.txt", error)) << error;
  // A stray entry with no info of its own still holds its name.
  WriteFile(trash_ + "/files/report.3.txt", "stray");
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/c/report.txt", error)) << error;

  EXPECT_EQ(ReadFile(trash_ + "/files/report.txt"), "one");
  EXPECT_EQ(ReadFile(trash_ + "/files/report.2.txt"), "two");
  EXPECT_EQ(ReadFile(trash_ + "/files/report.3.txt"), "stray");
  EXPECT_EQ(ReadFile(trash_ + "/files/report.4.txt"), "three");
  EXPECT_EQ(Names(trash_ + "/info"),
            (std::set<std::string>{"report.txt.trashinfo", "report.2.txt.trashinfo",
                                   "report.4.txt.trashinfo"}));
  std::string second = ReadFile(trash_ + "/info/report.2.txt.trashinfo");
  EXPECT_TRUE(std::regex_match(second, std::regex(InfoPattern(items_ + "/b/report.txt"))))
      << second;
}

TEST_F(TrashTest, AFolderGoesWholeAndALinkGoesAsALink) {
  FreedesktopTrash trash(trash_);
  std::string error;
  WriteFile(items_ + "/My Folder/sub/deep.txt", "deep");
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/My Folder/", error)) << error;  // a final "/" is fine
  EXPECT_FALSE(fs::exists(items_ + "/My Folder"));
  EXPECT_EQ(ReadFile(trash_ + "/files/My Folder/sub/deep.txt"), "deep");

  // Folders take no extension: "v1.0" again becomes "v1.0.2", not "v1.2.0".
  fs::create_directories(items_ + "/x/v1.0");
  fs::create_directories(items_ + "/y/v1.0");
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/x/v1.0", error)) << error;
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/y/v1.0", error)) << error;
  EXPECT_TRUE(fs::is_directory(trash_ + "/files/v1.0.2"));

  WriteFile(items_ + "/target.txt", "kept");
  fs::create_symlink(items_ + "/target.txt", items_ + "/link");
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/link", error)) << error;
  EXPECT_TRUE(fs::is_symlink(trash_ + "/files/link"));
  EXPECT_EQ(ReadFile(items_ + "/target.txt"), "kept");
}

TEST_F(TrashTest, ALongNameIsShortenedInTheTrashButKeptInItsPath) {
  FreedesktopTrash trash(trash_);
  std::string name = std::string(240, 'n') + "ü.txt";  // 247 bytes: no room for ".trashinfo"
  WriteFile(items_ + "/" + name, "long");
  std::string error;
  ASSERT_TRUE(trash.MoveToTrash(items_ + "/" + name, error)) << error;
  auto infos = Names(trash_ + "/info");
  ASSERT_EQ(infos.size(), 1u);
  std::string infoName = *infos.begin();
  EXPECT_LE(infoName.size(), 255u);
  std::string trashName = infoName.substr(0, infoName.size() - std::string(".trashinfo").size());
  EXPECT_EQ(ReadFile(trash_ + "/files/" + trashName), "long");
  std::string info = ReadFile(trash_ + "/info/" + infoName);
  EXPECT_NE(info.find(std::string(240, 'n') + "%C3%BC.txt\n"), std::string::npos) << info;
}

TEST_F(TrashTest, AnItemThatCannotMoveStaysAndLeavesNoInfo) {
  std::string error;
  FreedesktopTrash trash(trash_);
  EXPECT_FALSE(trash.MoveToTrash(items_ + "/missing.txt", error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(trash.MoveToTrash("", error));
  EXPECT_FALSE(trash.MoveToTrash("/", error));

  // A folder cannot go into a trash that lies inside it; the move fails after
  // the info was written, so the info must go again.
  std::string box = items_ + "/box";
  WriteFile(box + "/keep.txt", "keep");
  FreedesktopTrash inner(box + "/data/Trash");
  EXPECT_FALSE(inner.MoveToTrash(box, error));
  EXPECT_NE(error.find("cannot move"), std::string::npos) << error;
  EXPECT_EQ(ReadFile(box + "/keep.txt"), "keep");
  EXPECT_TRUE(Names(box + "/data/Trash/info").empty());
  EXPECT_TRUE(Names(box + "/data/Trash/files").empty());
}

TEST_F(TrashTest, AnItemOnAnotherMountGoesToThatMountsTrash) {
  std::string top = MakeTempFolder("/dev/shm", "cvtop");
  struct stat topInfo {
  }, baseInfo{};
  if (top.empty() || stat(top.c_str(), &topInfo) != 0 || stat(base_.c_str(), &baseInfo) != 0 ||
      topInfo.st_dev == baseInfo.st_dev) {
    if (!top.empty()) fs::remove_all(top);
    GTEST_SKIP() << "needs /dev/shm on another device than the temporary folder";
  }
  std::string uid = std::to_string(geteuid());
  FixedTopTrash trash(trash_, top);
  std::string error;

  WriteFile(top + "/docs/a b.txt", "on the other mount");
  ASSERT_TRUE(trash.MoveToTrash(top + "/docs/a b.txt", error)) << error;
  std::string own = top + "/.Trash-" + uid;
  EXPECT_EQ(ReadFile(own + "/files/a b.txt"), "on the other mount");
  std::string info = ReadFile(own + "/info/a b.txt.trashinfo");
  EXPECT_TRUE(std::regex_match(info, std::regex(InfoPattern("docs/a%20b.txt")))) << info;
  struct stat ownInfo {};
  ASSERT_EQ(stat(own.c_str(), &ownInfo), 0);
  EXPECT_EQ(ownInfo.st_mode & 0777, 0700u);
  EXPECT_FALSE(fs::exists(trash_)) << "the home trash is not for other mounts";

  // A shared .Trash without the sticky bit is not to be trusted...
  fs::create_directories(top + "/.Trash");
  chmod((top + "/.Trash").c_str(), 0777);
  WriteFile(top + "/b.txt", "b");
  ASSERT_TRUE(trash.MoveToTrash(top + "/b.txt", error)) << error;
  EXPECT_TRUE(fs::exists(own + "/files/b.txt"));
  // ...with it, each user has a folder of their own inside.
  chmod((top + "/.Trash").c_str(), 01777);
  WriteFile(top + "/c.txt", "c");
  ASSERT_TRUE(trash.MoveToTrash(top + "/c.txt", error)) << error;
  EXPECT_EQ(ReadFile(top + "/.Trash/" + uid + "/files/c.txt"), "c");

  // The real lookup finds the mount itself.
  struct stat devInfo {};
  if (stat("/dev", &devInfo) == 0 && devInfo.st_dev != topInfo.st_dev) {
    WriteFile(top + "/d.txt", "d");
    EXPECT_EQ(FreedesktopTrash::MountTopDirectory(top + "/d.txt"), "/dev/shm");
  }
  fs::remove_all(top);
}

TEST(FreedesktopTrash, TheHomeTrashFollowsXdgDataHome) {
  const char* oldData = std::getenv("XDG_DATA_HOME");
  std::string savedData = oldData ? oldData : "";
  std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";

  FreedesktopTrash trash;
  setenv("XDG_DATA_HOME", "/data/of/user", 1);
  EXPECT_EQ(trash.HomeTrashPath(), "/data/of/user/Trash");
  setenv("XDG_DATA_HOME", "relative/data", 1);  // not absolute: ignored
  EXPECT_EQ(trash.HomeTrashPath(), home + "/.local/share/Trash");
  unsetenv("XDG_DATA_HOME");
  EXPECT_EQ(trash.HomeTrashPath(), home + "/.local/share/Trash");
  EXPECT_EQ(FreedesktopTrash("/given/Trash").HomeTrashPath(), "/given/Trash");

  if (oldData) setenv("XDG_DATA_HOME", savedData.c_str(), 1);
}
