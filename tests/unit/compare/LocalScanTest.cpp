#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "CompareSupport.h"
#include "SmartSync.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kComposed = "caf\xC3\xA9";
const std::string kDecomposed = "cafe\xCC\x81";

class LocalScanTest : public CompareTest {
 protected:
  std::vector<std::string> Paths(const std::vector<CVFileForCompare>& files) {
    std::vector<std::string> paths;
    for (const auto& file : files) paths.push_back(file.localPath);
    return paths;
  }
};

TEST_F(LocalScanTest, ReadLocalFilesIsDepthFirstAndSkipsWhatIsNotTheUsers) {
  WriteFile(Path("Docs/a.txt"), "aa", 100);
  WriteFile(Path("Docs/sub/b.txt"), "bbb", 200);
  WriteFile(Path("Docs/sub/deep/c.txt"), "c", 300);
  WriteFile(Path("Docs/sub2/d.txt"), "d", 300);
  WriteFile(Path("Docs/.hidden"), "h", 1);
  WriteFile(Path("Docs/sub/.git/config"), "g", 1);
  WriteFile(Path("Docs/x.DS_Store"), "ds", 1);
  WriteFile(Path("Outside/secret.txt"), "s", 1);
  ASSERT_EQ(::symlink(Path("Outside").c_str(), Path("Docs/sub/outside").c_str()), 0);
  ASSERT_EQ(::symlink(Path("Docs").c_str(), Path("Docs/loop").c_str()), 0);
  ASSERT_EQ(::mkfifo(Path("Docs/pipe").c_str(), 0600), 0);

  auto files = SmartSync::readLocalFiles(Path("Docs"));
  auto paths = Paths(files);
  std::set<std::string> all(paths.begin(), paths.end());
  EXPECT_EQ(all, (std::set<std::string>{Path("Docs/a.txt"), Path("Docs/sub"), Path("Docs/sub/b.txt"),
                                        Path("Docs/sub/deep"), Path("Docs/sub/deep/c.txt"), Path("Docs/sub2"),
                                        Path("Docs/sub2/d.txt")}));
  EXPECT_EQ(all.size(), paths.size());

  // Each folder is followed right away by everything below it.
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!files[i].isFolder) continue;
    const std::string prefix = files[i].localPath + "/";
    std::size_t below = std::count_if(paths.begin(), paths.end(),
                                      [&](const std::string& p) { return p.rfind(prefix, 0) == 0; });
    for (std::size_t j = i + 1; j <= i + below; ++j) {
      ASSERT_LT(j, paths.size());
      EXPECT_EQ(paths[j].rfind(prefix, 0), 0u) << paths[j] << " should follow " << files[i].localPath;
    }
  }

  auto b = std::find(paths.begin(), paths.end(), Path("Docs/sub/b.txt")) - paths.begin();
  EXPECT_EQ(files[b].size, 3);
  EXPECT_EQ(files[b].modifiedTime, 200);
  EXPECT_EQ(files[b].site, "Docs");
  auto sub = std::find(paths.begin(), paths.end(), Path("Docs/sub")) - paths.begin();
  EXPECT_TRUE(files[sub].isFolder);
  EXPECT_EQ(files[sub].size, 0);

  const std::string log = MainLog();
  EXPECT_THAT(log, HasSubstr("Symbolic link skipped: " + Path("Docs/sub/outside")));
  EXPECT_THAT(log, HasSubstr("Symbolic link skipped: " + Path("Docs/loop")));
  EXPECT_TRUE(SmartSync::readLocalFiles(Path("NoSuchFolder")).empty());
}

TEST_F(LocalScanTest, CreateWithOrigPathTakesTheSiteFromTheFolder) {
  auto gone = SmartSync::CreateCVFileForCompare(Path("Docs/gone.txt"), Path("Docs"));
  EXPECT_EQ(gone.localPath, Path("Docs/gone.txt"));
  EXPECT_EQ(gone.site, "Docs");
  EXPECT_EQ(gone.size, 0);
  EXPECT_FALSE(gone.isFolder);
}

TEST_F(LocalScanTest, ChildRecordsComeLevelByLevelFoldersBeforeFiles) {
  WriteFile(Path("Docs/top.txt"), "t", 1);
  WriteFile(Path("Docs/A/a.txt"), "a", 1);
  WriteFile(Path("Docs/A/A1/x.txt"), "x", 1);
  WriteFile(Path("Docs/B/b.txt"), "b", 1);
  WriteFile(Path("Docs/.swp"), "s", 1);
  ASSERT_EQ(::symlink(Path("Docs/A").c_str(), Path("Docs/B/toA").c_str()), 0);

  auto records = SmartSync::GetChildFilesAndFoldersNFQ(Path("Docs"), true);
  std::vector<std::string> paths;
  for (const auto& record : records) {
    paths.push_back(record.nFilePath);
    EXPECT_EQ(record.fileAction, NFQ_Created);
    EXPECT_TRUE(record.oldFilePath.empty());
    EXPECT_EQ(record.isFolder, record.nFilePath == Path("Docs/A") || record.nFilePath == Path("Docs/B") ||
                                   record.nFilePath == Path("Docs/A/A1"));
  }
  ASSERT_EQ(paths.size(), 7u);
  // The two folders of the top level come in the file system's order.
  const bool aFirst = paths[0] == Path("Docs/A");
  const std::string first = aFirst ? "A" : "B";
  const std::string second = aFirst ? "B" : "A";
  EXPECT_EQ(paths[1], Path("Docs/" + second));
  EXPECT_EQ(paths[2], Path("Docs/top.txt"));
  std::vector<std::string> underA = {Path("Docs/A/A1"), Path("Docs/A/a.txt"), Path("Docs/A/A1/x.txt")};
  std::vector<std::string> underB = {Path("Docs/B/b.txt")};
  std::vector<std::string> rest(paths.begin() + 3, paths.end());
  std::vector<std::string> expected = aFirst ? underA : underB;
  expected.insert(expected.end(), (aFirst ? underB : underA).begin(), (aFirst ? underB : underA).end());
  EXPECT_EQ(rest, expected);
}

TEST_F(LocalScanTest, NameStateTellsTheStoredForm) {
  EXPECT_EQ(SmartSync::CheckFileNameStringState(Path("Docs/" + kComposed)), -1) << "no record file";
  SaveRecords({Record("Docs/a.txt", 1, 1), Record("Docs/" + kComposed, 1, 1)});
  EXPECT_EQ(SmartSync::CheckFileNameStringState(Path("Docs/" + kComposed)), 0);
  EXPECT_EQ(SmartSync::CheckFileNameStringState(Path("Docs/" + kDecomposed)), 1);
  EXPECT_THAT(MainLog(), HasSubstr("precomposed! " + Path("Docs/" + kComposed)));
  EXPECT_EQ(SmartSync::CheckFileNameStringState(Path("Docs/A.txt")), -1);
  EXPECT_EQ(SmartSync::CheckFileNameStringState(Path("Docs2/a.txt")), -1);
}

TEST_F(LocalScanTest, DebugInformationOnlyForNoOperation) {
  for (std::int32_t action : {0, 3, 8, 99}) SERVER_Queues::WriteDebugInformation(action, "/p" + std::to_string(action), "pre");
  EXPECT_THAT(MainLog(), Not(HasSubstr("pre:/p")));
  SERVER_Queues::WriteDebugInformation(-1, "/p-1", "pre");
  SERVER_Queues::WriteDebugInformation(9, "/p9", "pre");
  EXPECT_THAT(MainLog(), HasSubstr("pre:/p-1:FWA_Nothing"));
  EXPECT_THAT(MainLog(), HasSubstr("pre:/p9:FWA_Nothing"));
}

}  // namespace
