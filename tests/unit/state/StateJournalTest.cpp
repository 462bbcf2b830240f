// The journal of the state files: what it gives back after a crash, and what
// the record and the selective sync store make of it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "AsyncFileCommonPart.h"
#include "CVSelectiveSync.h"
#include "CVStateJournal.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "ServerXMLParser.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

std::string ReadFile(const std::string& path) { return CVStateXMLFile::ReadWholeFile(path).value_or(""); }

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

CVStateJournal::Entry Entry(const std::string& text) {
  CVStateJournal::Entry entry;
  entry.Number(static_cast<std::int64_t>(text.size())).Text(text);
  return entry;
}

std::vector<std::string> Texts(const std::vector<std::string>& entries) {
  std::vector<std::string> texts;
  for (const auto& bytes : entries) {
    CVStateJournal::Reader reader(bytes);
    reader.Number();
    texts.push_back(reader.Text());
  }
  return texts;
}

CVFileWithAction Item(const std::string& path, std::int64_t size, bool isFolder = false) {
  CVFileWithAction item;
  item.nFilePath = path;
  item.fileSize = size;
  item.dateModified = 1700000000 + size;
  item.isFolder = isFolder;
  return item;
}

}  // namespace

TEST(StateJournal, EntriesComeBackOnlyWholeAndOnlyOnTheirVersionOfTheFile) {
  TempHome home;
  const std::string state = home.path() + "/state.xml";
  const std::string journalPath = CVStateJournal::PathFor(state);
  struct Case {
    const char* what;
    std::function<void()> damage;
    std::vector<std::string> expected;
  } cases[] = {
      {"untouched", [] {}, {"one", "two", "three"}},
      {"the last entry torn by a crash inside its write",
       [&] { fs::resize_file(journalPath, fs::file_size(journalPath) - 2); },
       {"one", "two"}},
      {"a byte of the second entry changed",
       [&] {
         std::string bytes = ReadFile(journalPath);
         bytes[bytes.find("two")] = 'T';
         WriteFile(journalPath, bytes);
       },
       {"one"}},
      {"the file replaced after the journal began", [&] { WriteFile(state, "<other/>"); }, {}},
      {"the file gone", [&] { fs::remove(state); }, {}},
      {"no journal", [&] { fs::remove(journalPath); }, {}},
  };
  for (auto& c : cases) {
    WriteFile(state, "<state/>");
    {
      CVStateJournal journal(state);
      ASSERT_TRUE(journal.Restart(CVStateJournal::FileVersion::Of(state)));
      for (const char* text : {"one", "two", "three"}) ASSERT_TRUE(journal.Append(Entry(text)));
    }
    c.damage();
    CVStateJournal reader(state);
    EXPECT_EQ(Texts(reader.Read(CVStateJournal::FileVersion::Of(state))), c.expected) << c.what;
    // Started afresh, it holds nothing until new entries come.
    ASSERT_TRUE(reader.Restart(CVStateJournal::FileVersion::Of(state)));
    EXPECT_TRUE(reader.Read(CVStateJournal::FileVersion::Of(state)).empty()) << c.what;
  }
}

TEST(StateJournal, TheRecordsChangesSurviveACrashAndFoldIntoTheSameFileAWholeSaveWrites) {
  TempHome home;
  const std::string root = CVStaticHelpers::GenerateRootPath();
  const std::string xml = CVStaticHelpers::GenerateDownloadedXMLPath();
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(root + "/Docs/a.txt", 1), false));
  ASSERT_TRUE(DownloadedFilesStore::Instance().Fold());
  const std::string folded = ReadFile(xml);

  // Changes after the fold reach the journal only.
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(root + "/Docs/dir", 0, true), false));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(root + "/Docs/dir/b.txt", 2), true));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(root + "/Docs/a.txt", 3), false));
  CVFileWithAction moved = Item(root + "/Docs/moved", 0, true);
  moved.oldFilePath = root + "/Docs/dir";
  ASSERT_TRUE(AsyncFileCommonPart::WriteRenameOperationToDownloadedFiles(moved));
  ASSERT_TRUE(AsyncFileCommonPart::SetNothingStatusForFile(root + "/Docs/a.txt"));
  const auto before = *ServerXMLParser().readDownloadedFiles();
  EXPECT_EQ(ReadFile(xml), folded);

  // The next process finds them in the journal and folds them in.
  DownloadedFilesStore::Instance().Forget();
  const auto after = *ServerXMLParser().readDownloadedFiles();
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t i = 0; i < after.size(); ++i) {
    EXPECT_EQ(after[i].localPath, before[i].localPath);
    EXPECT_EQ(after[i].fileStatus, before[i].fileStatus);
    EXPECT_EQ(after[i].brokeDownload, before[i].brokeDownload);
    EXPECT_EQ(after[i].statusChangeTime, before[i].statusChangeTime);
  }
  const std::string recovered = ReadFile(xml);
  ASSERT_TRUE(ServerXMLParser::saveDownloadedXML(before));
  EXPECT_EQ(ReadFile(xml), recovered) << "the fold writes what a whole save writes";

  // A crash between a fold and the journal's new start: the old journal's
  // entries are in the file already and are not applied twice.
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(root + "/Docs/c.txt", 4), false));
  const std::string pending = ReadFile(CVStateJournal::PathFor(xml));
  ASSERT_TRUE(DownloadedFilesStore::Instance().Fold());
  WriteFile(CVStateJournal::PathFor(xml), pending);
  DownloadedFilesStore::Instance().Forget();
  auto c = DownloadedFilesStore::Instance().Find(root + "/Docs/c.txt");
  ASSERT_TRUE(c);
  EXPECT_EQ(c->fileStatus, 0) << "written once, not twice";
}

TEST(StateJournal, SelectiveSyncChangesNotYetSavedComeBackAfterACrash) {
  TempHome home;
  CVSelectiveSync::ResetForTests();
  const std::string root = CVStaticHelpers::GenerateRootPath();
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName("Docs", true);
  const std::string saved = ReadFile(CVSelectiveSync::SelectiveSyncXMLPath());
  site->addSyncItem(true, root + "/Docs/dir");
  site->addSyncItem(false, root + "/Docs/dir/a.txt");
  site->addSyncRule(CVSelectiveSyncRule::syncAll, root + "/Docs/dir/a.txt");
  site->addSyncItem(false, root + "/Docs/gone.txt");
  site->removeSyncItemAndRule(root + "/Docs/gone.txt");
  site->renameSyncItemAndRule(root + "/Docs/dir", root + "/Docs/folder", true);
  const std::string expected = CVSelectiveSync::Instance().GetInXML();
  EXPECT_EQ(ReadFile(CVSelectiveSync::SelectiveSyncXMLPath()), saved);

  CVSelectiveSync::ResetForTests();
  EXPECT_EQ(CVSelectiveSync::Instance().GetInXML(), expected);
  EXPECT_EQ(ReadFile(CVSelectiveSync::SelectiveSyncXMLPath()), expected);
  CVSelectiveSync::ResetForTests();
}
