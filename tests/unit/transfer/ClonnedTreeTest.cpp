// The cloned state tree under ".Settings/.Hash" and the pending redraws.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "IconOverlayInFinderStaticMethods.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

using Tree = IconOverlayInFinderStaticMethods;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

class ClonnedTreeTest : public ::testing::Test {
 protected:
  void SetUp() override { Tree::ResetForTests(); }
  void TearDown() override { Tree::ResetForTests(); }

  std::string Storage(const std::string& relative) const { return home_.root() + "/" + relative; }
  std::string Clone(const std::string& relative) const { return home_.settings() + "/.Hash/" + relative; }

  TempHome home_;
};

TEST_F(ClonnedTreeTest, ClonePathsLieUnderTheHashFolder) {
  EXPECT_EQ(Tree::ClonnedTreeRoot(), home_.settings() + "/.Hash");
  EXPECT_EQ(Tree::GetClonnedFilePath(Storage("Storage A/Folder/file.txt")),
            Clone("Storage A/Folder/file.txt"));
  EXPECT_EQ(Tree::GetClonnedFilePath(Storage("Docs/sub/")), Clone("Docs/sub"));

  // Paths without a clone come back as they are, and nothing is written for them.
  const std::string outside[] = {
      home_.path() + "/elsewhere/file.txt",
      home_.root() + "2/Docs/file.txt",  // a sibling that merely begins like the root
      home_.root(),
      home_.root() + "/",
      home_.settings() + "/DownloadedFiles.xml",
      home_.root() + "/Docs/../../escape.txt",
      home_.root() + "/Docs/./file.txt",
  };
  for (const auto& path : outside) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Tree::GetClonnedFilePath(path), path);
    Tree::WriteFileStateToClonnedTreeForPath(path, "2", false);
    Tree::CreateClonnedFolder(path);
    EXPECT_FALSE(Tree::CheckClonnedFileExistence(path));
  }
  EXPECT_FALSE(fs::exists(Clone("")));
  EXPECT_FALSE(fs::exists(home_.path() + "/escape.txt"));
}

TEST_F(ClonnedTreeTest, StatesAreWrittenWholeAndZeroIsEmpty) {
  const std::string file = Storage("Docs/a/b.txt");
  EXPECT_FALSE(Tree::CheckClonnedFileExistence(file));

  Tree::WriteFileStateToClonnedTreeForPath(file, "1", false);
  EXPECT_TRUE(Tree::CheckClonnedFileExistence(file));
  EXPECT_EQ(ReadFile(Clone("Docs/a/b.txt")), "1");

  struct stat first {}, later {};
  ::stat(Clone("Docs/a/b.txt").c_str(), &first);
  Tree::WriteFileStateToClonnedTreeForPath(file, "2", false);  // replaced, not appended
  EXPECT_EQ(ReadFile(Clone("Docs/a/b.txt")), "2");
  ::stat(Clone("Docs/a/b.txt").c_str(), &later);
  EXPECT_EQ(later.st_ino, first.st_ino) << "a state of one byte is written in place";

  Tree::WriteFileStateToClonnedTreeForPath(file, "0", false);
  EXPECT_TRUE(fs::is_regular_file(Clone("Docs/a/b.txt")));
  EXPECT_EQ(fs::file_size(Clone("Docs/a/b.txt")), 0u);
  Tree::WriteFileStateToClonnedTreeForPath(file, "", false);
  EXPECT_EQ(fs::file_size(Clone("Docs/a/b.txt")), 0u);

  // Names as the storages hold them.
  const std::string unicode = Storage("Docs/Ünïcødé/файл €.txt");
  Tree::WriteFileStateToClonnedTreeForPath(unicode, "1", false);
  EXPECT_EQ(ReadFile(Clone("Docs/Ünïcødé/файл €.txt")), "1");
}

TEST_F(ClonnedTreeTest, FoldersKeepWhatIsBelowThemAndAreRemovedWhole) {
  const std::string folder = Storage("Docs/a");
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/a/b.txt"), "1", false);
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/a/c/d.txt"), "2", false);

  // A folder's state leaves the states below it alone: no badge flickers.
  Tree::WriteFileStateToClonnedTreeForPath(folder, "1", true);
  EXPECT_EQ(ReadFile(Clone("Docs/a/b.txt")), "1");
  EXPECT_EQ(ReadFile(Clone("Docs/a/c/d.txt")), "2");

  // An item that changed its kind: the clone of the other kind gives way, also
  // when it stands on the way to a clone below.
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/x"), "1", false);
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/x"), "", true);
  EXPECT_TRUE(fs::is_directory(Clone("Docs/x")));
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/x"), "2", false);
  EXPECT_EQ(ReadFile(Clone("Docs/x")), "2");
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/x/inner/y.txt"), "1", false);
  EXPECT_EQ(ReadFile(Clone("Docs/x/inner/y.txt")), "1");
  EXPECT_EQ(home_.ReadLog("CVMainLogs").find("(ERROR)"), std::string::npos);

  // CreateClonnedFolder leaves what stands there alone.
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/a/keep.txt"), "2", false);
  Tree::CreateClonnedFolder(folder);
  EXPECT_EQ(ReadFile(Clone("Docs/a/keep.txt")), "2");
  Tree::CreateClonnedFolder(Storage("Docs/new/deep"));
  EXPECT_TRUE(Tree::CheckClonnedFileExistence(Storage("Docs/new/deep")));

  Tree::RemoveFromClonnedPathsTree(folder);
  EXPECT_FALSE(fs::exists(Clone("Docs/a")));
  EXPECT_TRUE(fs::exists(Clone("Docs/x")));

  // Nothing to remove: nothing happens and nothing is logged.
  const std::string before = home_.ReadLog("CVMainLogs");
  Tree::RemoveFromClonnedPathsTree(Storage("Docs/never/met.txt"));
  EXPECT_EQ(home_.ReadLog("CVMainLogs"), before);
}

TEST_F(ClonnedTreeTest, ASettingsFolderMadeForTheTreeIsPrivate) {
  Tree::WriteFileStateToClonnedTreeForPath(Storage("Docs/f.txt"), "1", false);
  EXPECT_EQ(fs::status(home_.settings()).permissions() & fs::perms::all, fs::perms::owner_all);
}

TEST_F(ClonnedTreeTest, RedrawsMergeUntilTakenAndTheWaitIsLoggedOnce) {
  EXPECT_EQ(Tree::PendingRedrawCount(), 0u);
  Tree::RefreshFinderUsingScriptBridge("/p/one");
  Tree::RefreshFinderUsingScriptBridge("/p/one");
  Tree::RefreshFinderUsingScriptBridge("/p/two");
  EXPECT_EQ(Tree::PendingRedrawCount(), 2u);

  const std::string log = home_.ReadLog("CVMainLogs");
  const std::string line = "nothing takes them yet";
  ASSERT_NE(log.find(line), std::string::npos);
  EXPECT_EQ(log.find(line), log.rfind(line));

  auto taken = Tree::TakePendingRedraws();
  EXPECT_EQ(taken, (std::set<std::string>{"/p/one", "/p/two"}));
  EXPECT_EQ(Tree::PendingRedrawCount(), 0u);
  EXPECT_TRUE(Tree::TakePendingRedraws().empty());
  Tree::RefreshFinderUsingScriptBridge("/p/three");
  EXPECT_EQ(Tree::TakePendingRedraws(), (std::set<std::string>{"/p/three"}));
}

}  // namespace
