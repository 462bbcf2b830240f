#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "AsyncFileCommonPart.h"
#include "CVStaticHelpers.h"
#include "NewFilesParser.h"
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

std::string P(const std::string& below) { return CVStaticHelpers::GenerateRootPath() + "/" + below; }

NFQ_File Change(const std::string& path, std::int32_t action = NFQ_Modified, const std::string& oldPath = "") {
  NFQ_File change;
  change.fileAction = action;
  change.nFilePath = path;
  change.oldFilePath = oldPath;
  return change;
}

std::vector<std::string> Paths() {
  std::vector<std::string> paths;
  for (const auto& record : AsyncFileCommonPart::GetAllFilesFromNewFiles()) paths.push_back(record.nFilePath);
  return paths;
}

}  // namespace

TEST(NewFiles, DocumentHasItsElementsInOrderAndRoundTrips) {
  TempHome home;
  NFQ_File rename = Change(P("Docs/a&b <c>.txt"), NFQ_Renamed, P("Docs/Ünïcödé 文件.txt"));
  rename.attemptCount = 2;
  NFQ_File folder = Change(P("Docs/New folder"), NFQ_Created);
  folder.isFolder = true;
  ASSERT_TRUE(NewFilesParser::saveNewFilesXML({rename, folder}));

  const std::string root = CVStaticHelpers::GenerateRootPath();
  EXPECT_EQ(ReadFile(NewFilesParser::NewFilesXMLPath()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<NewFiles xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
            "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">\n"
            "  <NewFile>\n"
            "    <fileAction>2</fileAction>\n"
            "    <isFolder>NO</isFolder>\n"
            "    <oldFilePath>" + root + "/Docs/Ünïcödé 文件.txt</oldFilePath>\n"
            "    <nFilePath>" + root + "/Docs/a&amp;b &lt;c&gt;.txt</nFilePath>\n"
            "    <attemptCount>2</attemptCount>\n"
            "  </NewFile>\n"
            "  <NewFile>\n"
            "    <fileAction>0</fileAction>\n"
            "    <isFolder>YES</isFolder>\n"
            "    <oldFilePath></oldFilePath>\n"
            "    <nFilePath>" + root + "/Docs/New folder</nFilePath>\n"
            "    <attemptCount>0</attemptCount>\n"
            "  </NewFile>\n"
            "</NewFiles>\n");

  NewFilesParser parser;
  auto records = parser.readNewFiles();
  ASSERT_TRUE(records.has_value());
  ASSERT_EQ(records->size(), 2u);
  EXPECT_EQ((*records)[0].fileAction, NFQ_Renamed);
  EXPECT_EQ((*records)[0].oldFilePath, rename.oldFilePath);
  EXPECT_EQ((*records)[0].nFilePath, rename.nFilePath);
  EXPECT_EQ((*records)[0].attemptCount, 2);
  EXPECT_FALSE((*records)[0].isFolder);
  EXPECT_TRUE((*records)[1].isFolder);
  EXPECT_EQ((*records)[1].oldFilePath, "");
}

TEST(NewFiles, NothingSavedAndNothingThereAreTwoStates) {
  TempHome home;
  NewFilesParser parser;
  EXPECT_FALSE(parser.readNewFiles().has_value());
  EXPECT_EQ(parser.lastRead(), StateFileRead::Missing);
  EXPECT_TRUE(fs::is_directory(home.settings()));
  EXPECT_TRUE(AsyncFileCommonPart::GetAllFilesFromNewFiles().empty());

  ASSERT_TRUE(NewFilesParser::saveNewFilesXML({}));
  EXPECT_NE(ReadFile(NewFilesParser::NewFilesXMLPath()).find("<NewFiles xmlns:xsd="), std::string::npos);
  auto records = parser.readNewFiles();
  ASSERT_TRUE(records.has_value());
  EXPECT_TRUE(records->empty());
  EXPECT_EQ(parser.lastRead(), StateFileRead::Whole);
}

TEST(NewFiles, AWorkItemWrittenAsNewFileReadsAsItsChange) {
  TempHome home;
  WriteFile(NewFilesParser::NewFilesXMLPath(),
            "<?xml version=\"1.0\"?><NewFiles><NewFile>"
            "<fileAction>3</fileAction><isFolder>NO</isFolder><isFSWAction>YES</isFSWAction>"
            "<oldFilePath/><nFilePath>\n    " + P("Docs/a.txt") + "\n  </nFilePath>"
            "<dateModified>2020-01-01</dateModified><size>12</size></NewFile></NewFiles>");
  auto records = AsyncFileCommonPart::GetAllFilesFromNewFiles();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].fileAction, NFQ_Modified);
  EXPECT_EQ(records[0].nFilePath, P("Docs/a.txt"));
  EXPECT_EQ(records[0].oldFilePath, "");
  EXPECT_EQ(records[0].attemptCount, 0);
}

TEST(NewFiles, ChangeRemovesOrEnsuresTheFirstRecordOfAPath) {
  TempHome home;
  NewFilesParser::saveNewFilesXML({Change(P("Docs/a")), Change(P("Docs/b")), Change(P("Docs/a"), NFQ_Deleted)});

  CVFileWithAction done;
  done.nFilePath = P("Docs/a");
  ASSERT_TRUE(AsyncFileCommonPart::RemoveFromNewFiles(done));
  auto records = AsyncFileCommonPart::GetAllFilesFromNewFiles();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].nFilePath, P("Docs/b"));
  EXPECT_EQ(records[1].fileAction, NFQ_Deleted);  // only the first record of the path went

  // A path without a record: rewritten unchanged.
  std::string before = ReadFile(NewFilesParser::NewFilesXMLPath());
  ASSERT_TRUE(AsyncFileCommonPart::RemoveFromNewFiles(Change(P("Docs/none"))));
  EXPECT_EQ(ReadFile(NewFilesParser::NewFilesXMLPath()), before);

  // Ensuring keeps an existing record and adds a bare one for a new path.
  NFQ_File folder = Change(P("Docs/F"), NFQ_Renamed, P("Docs/E"));
  folder.isFolder = true;
  ASSERT_TRUE(AsyncFileCommonPart::ChangeNewFiles(Change(P("Docs/b")), 0));
  ASSERT_TRUE(AsyncFileCommonPart::ChangeNewFiles(folder, 0));
  records = AsyncFileCommonPart::GetAllFilesFromNewFiles();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[2].nFilePath, P("Docs/F"));
  EXPECT_TRUE(records[2].isFolder);
  EXPECT_EQ(records[2].fileAction, NFQ_Created);
  EXPECT_EQ(records[2].oldFilePath, "");
}

TEST(NewFiles, StorageCleanUpAndRenameLeaveStoragesWithLongerNames) {
  TempHome home;
  const std::vector<NFQ_File> start = {Change(P("Docs/a.txt")), Change(P("Docs/Sub/b.txt")),
                                       Change(P("Docs2/c.txt")), Change(P("Team/d.txt"))};
  const std::string root = CVStaticHelpers::GenerateRootPath();
  for (const std::string& given : {std::string("Docs"), std::string("Docs/"), root + "/Docs", root + "/Docs/"}) {
    SCOPED_TRACE(given);
    NewFilesParser::saveNewFilesXML(start);
    ASSERT_TRUE(AsyncFileCommonPart::RemoveItemNewFilesForSite(given));
    EXPECT_EQ(Paths(), (std::vector<std::string>{P("Docs2/c.txt"), P("Team/d.txt")}));
  }
  NewFilesParser::saveNewFilesXML(start);
  for (const std::string& given : {std::string(), std::string("/"), root, root + "/"}) {
    EXPECT_FALSE(AsyncFileCommonPart::RemoveItemNewFilesForSite(given)) << given;
    EXPECT_FALSE(AsyncFileCommonPart::RenameSiteOld(given, "Other")) << given;
  }
  EXPECT_EQ(Paths().size(), start.size());

  for (const auto& names : {std::pair<std::string, std::string>{"Docs", "Archive"},
                            std::pair<std::string, std::string>{root + "/Docs", root + "/Archive/"}}) {
    SCOPED_TRACE(names.first);
    NewFilesParser::saveNewFilesXML(start);
    ASSERT_TRUE(AsyncFileCommonPart::RenameSiteOld(names.first, names.second));
    EXPECT_EQ(Paths(), (std::vector<std::string>{P("Archive/a.txt"), P("Archive/Sub/b.txt"), P("Docs2/c.txt"),
                                                 P("Team/d.txt")}));
  }
}

TEST(NewFiles, BuildPathComponentJoinsWithExactlyTheSlashBetween) {
  const struct {
    const char* base;
    const char* tail;
    const char* joined;
  } cases[] = {
      {"/a", "b", "/a/b"}, {"/a/", "", "/a"}, {"/a/", "b", "/a/b"}, {"/a", "/b", "/a/b"}, {"/a", "", "/a"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AsyncFileCommonPart::BuildPathComponent(c.base, c.tail), c.joined) << c.base << " + " << c.tail;
  }
}

TEST(NewFiles, BrokenFileIsLoggedAndKeepsWhatWasRead) {
  TempHome home;
  const std::string text = "<NewFiles><NewFile><fileAction>1</fileAction><nFilePath>" + P("Docs/a") +
                           "</nFilePath></NewFile><NewFile><fileAction>0</fileAction><nFilePath>" + P("Docs/b");
  WriteFile(NewFilesParser::NewFilesXMLPath(), text);
  NewFilesParser parser;
  auto records = parser.readNewFiles();
  ASSERT_TRUE(records.has_value());
  ASSERT_EQ(records->size(), 1u);
  EXPECT_EQ((*records)[0].nFilePath, P("Docs/a"));
  EXPECT_EQ(parser.lastRead(), StateFileRead::Broken);
  std::string log = home.ReadLog("CVExceptionLogs");
  EXPECT_NE(log.find("Error: (NewFilesParser XML parser) Error "), std::string::npos) << log;
  EXPECT_NE(log.find("the file as it was is kept in " + NewFilesParser::NewFilesXMLPath() + ".broken-"),
            std::string::npos)
      << log;

  // A number that is none keeps its default and says so.
  WriteFile(NewFilesParser::NewFilesXMLPath(),
            "<NewFiles><NewFile><attemptCount>many</attemptCount><nFilePath>/x</nFilePath></NewFile></NewFiles>");
  auto lenient = AsyncFileCommonPart::GetAllFilesFromNewFiles();
  ASSERT_EQ(lenient.size(), 1u);
  EXPECT_EQ(lenient[0].attemptCount, 0);
  EXPECT_NE(home.ReadLog("CVExceptionLogs").find("element attemptCount holds \"many\""), std::string::npos);
}

TEST(NewFiles, TheQueueWriterAndSingleRemovalsLoseNoChange) {
  TempHome home;
  constexpr int kRemovers = 4;
  constexpr int kAdders = 4;
  constexpr int kEach = 25;
  std::vector<NFQ_File> queued;
  for (int t = 0; t < kRemovers; ++t) {
    for (int i = 0; i < kEach; ++i) queued.push_back(Change(P("Docs/old" + std::to_string(t) + "-" + std::to_string(i))));
  }
  ASSERT_TRUE(NewFilesParser::saveNewFilesXML(queued));

  std::vector<std::thread> threads;
  for (int t = 0; t < kRemovers; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        AsyncFileCommonPart::RemoveFromNewFiles(Change(P("Docs/old" + std::to_string(t) + "-" + std::to_string(i))));
      }
    });
  }
  for (int t = 0; t < kAdders; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        std::string path = P("Docs/new" + std::to_string(t) + "-" + std::to_string(i));
        if (i % 2 == 0) {
          AsyncFileCommonPart::ChangeNewFiles(Change(path), 0);
        } else {
          // The filter's way: the whole queue, read and written under the one lock.
          std::lock_guard<std::recursive_mutex> lock(NewFilesParser::newFilesLock());
          auto all = AsyncFileCommonPart::GetAllFilesFromNewFiles();
          all.push_back(Change(path));
          NewFilesParser::saveNewFilesXML(all);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::set<std::string> expected;
  for (int t = 0; t < kAdders; ++t) {
    for (int i = 0; i < kEach; ++i) expected.insert(P("Docs/new" + std::to_string(t) + "-" + std::to_string(i)));
  }
  auto paths = Paths();
  EXPECT_EQ(paths.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()), expected);
}
