#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

#include "AsyncFileCommonPart.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "DownloadedXMLStaticMethods.h"
#include "ServerXMLParser.h"
#include "StateFileSupport.h"
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

std::string XMLPath() { return CVStaticHelpers::GenerateDownloadedXMLPath(); }

std::vector<CVFileForCompare> Records() {
  ServerXMLParser parser;
  return parser.readDownloadedFiles().value_or(std::vector<CVFileForCompare>{});
}

std::vector<std::string> Paths() {
  std::vector<std::string> paths;
  for (const auto& record : Records()) paths.push_back(record.localPath);
  return paths;
}

const CVFileForCompare* Find(const std::vector<CVFileForCompare>& records, const std::string& path) {
  for (const auto& record : records) {
    if (record.localPath == path) return &record;
  }
  return nullptr;
}

CVFileForCompare Record(const std::string& path, bool isFolder = false) {
  CVFileForCompare record;
  record.localPath = path;
  record.isFolder = isFolder;
  record.size = isFolder ? 0 : 10;
  record.modifiedTime = 1600000000;
  return record;
}

CVFileWithAction Item(const std::string& path, bool isFolder = false, std::int64_t size = 5,
                      std::int64_t dateModified = 1700000000) {
  CVFileWithAction item;
  item.nFilePath = path;
  item.isFolder = isFolder;
  item.fileSize = size;
  item.dateModified = dateModified;
  return item;
}

// The fields the file keeps.
auto Stored(const CVFileForCompare& r) {
  return std::tuple(r.localPath, r.modifiedTime, r.statusChangeTime, r.size, r.brokeDownload, r.isFolder,
                    r.fileStatus);
}

// A storage's path under the root of the test's home.
std::string P(const std::string& below) { return CVStaticHelpers::GenerateRootPath() + "/" + below; }

}  // namespace

TEST(DownloadedFiles, DocumentHasItsElementsInOrderAndRoundTrips) {
  TempHome home;
  CVFileForCompare file = Record(P("Docs/a&b <c>.txt"));
  file.modifiedTime = 1700000000;
  file.statusChangeTime = 1700000100;
  file.size = 42;
  file.brokeDownload = true;
  file.fileStatus = 1;
  file.wasProcessed = true;
  CVFileForCompare folder = Record(P("Docs/Folder"), true);
  folder.fileStatus = -1;
  CVFileForCompare gone = Record(P("Docs/gone.txt"));
  gone.deleted = true;
  ASSERT_TRUE(ServerXMLParser::saveDownloadedXML({file, folder, gone}));

  std::string root = CVStaticHelpers::GenerateRootPath();
  EXPECT_EQ(ReadFile(XMLPath()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<DownloadedFiles xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
            "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">\n"
            "  <DownloadedFile>\n"
            "    <localPath>" + root + "/Docs/a&amp;b &lt;c&gt;.txt</localPath>\n"
            "    <modifiedTime>1700000000</modifiedTime>\n"
            "    <statusChangeTime>1700000100</statusChangeTime>\n"
            "    <size>42</size>\n"
            "    <brokenDownload>YES</brokenDownload>\n"
            "    <isFolder>NO</isFolder>\n"
            "    <fileStatus>1</fileStatus>\n"
            "  </DownloadedFile>\n"
            "  <DownloadedFile>\n"
            "    <localPath>" + root + "/Docs/Folder</localPath>\n"
            "    <modifiedTime>1600000000</modifiedTime>\n"
            "    <statusChangeTime>0</statusChangeTime>\n"
            "    <size>0</size>\n"
            "    <brokenDownload>NO</brokenDownload>\n"
            "    <isFolder>YES</isFolder>\n"
            "    <fileStatus>-1</fileStatus>\n"
            "  </DownloadedFile>\n"
            "</DownloadedFiles>\n");

  auto records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(Stored(records[0]), Stored(file));
  EXPECT_EQ(Stored(records[1]), Stored(folder));
  EXPECT_FALSE(records[0].wasProcessed);
  EXPECT_EQ(records[0].site, "Docs");

  // The state stays with its owner alone, and the folder too.
  struct stat info {};
  ASSERT_EQ(stat(XMLPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(stat(home.settings().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST(DownloadedFiles, PathsWithAnyCharacterComeBackByteForByte) {
  TempHome home;
  const std::vector<std::string> names = {
      "Docs/a&b <c>.txt",  "Docs/Überweisung €.pdf", "Docs/日本語/ファイル.txt", "Docs/\"quoted\" 'single'",
      "Docs/ends in space ", "Docs/tab\there",          "Docs/]]>&amp;.txt",      "Docs/line\nbreak"};
  std::vector<CVFileForCompare> records;
  for (const auto& name : names) records.push_back(Record(P(name)));
  ASSERT_TRUE(DownloadedXMLStaticMethods::SaveDownloadedXMLFile(records));
  auto paths = Paths();
  ASSERT_EQ(paths.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(paths[i], P(names[i])) << i;
}

TEST(DownloadedFiles, ANameXMLCannotHoldIsLeftOutAndTheRestStaysReadable) {
  TempHome home;
  ASSERT_TRUE(ServerXMLParser::saveDownloadedXML(
      {Record(P("Docs/before")), Record(P("Docs/latin1-\xE9t\xE9")), Record(P("Docs/bell\x07")),
       Record(P("Docs/after"))}));
  EXPECT_EQ(Paths(), (std::vector<std::string>{P("Docs/before"), P("Docs/after")}));
  EXPECT_NE(home.ReadLog("CVExceptionLogs").find("Docs/latin1-\\xE9t\\xE9"), std::string::npos);
}

TEST(DownloadedFiles, SiteIsTheFirstFolderBelowTheRoot) {
  TempHome home;
  const std::string root = CVStaticHelpers::GenerateRootPath();
  const struct {
    std::string path;
    std::string site;
  } cases[] = {
      {root + "/Docs/a/b.txt", "Docs"}, {root + "/Docs", "Docs"}, {root, ""},
      {root + "/", ""},                 {root + "2/Docs/a", ""},  {"/elsewhere/Docs/a", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(ServerXMLParser::SiteForLocalPath(c.path), c.site) << c.path;
}

TEST(DownloadedFiles, HandEditedFileReadsLeniently) {
  TempHome home;
  WriteFile(XMLPath(),
            "<?xml version=\"1.0\"?>\n<DownloadedFiles>\n"
            "<DownloadedFile>\n  <localPath>\n     " + P("Docs/a.txt") + "\n  </localPath>\n"
            "  <size> 12 </size><isFolder>yes</isFolder><brokenDownload>YES</brokenDownload>\n"
            "  <wasProcessed>YES</wasProcessed><colour>blue</colour><modifiedTime/>\n"
            "</DownloadedFile>\n"
            "<DownloadedFile><localPath>" + P("Docs/b") + "</localPath><isFolder>YES</isFolder></DownloadedFile>\n"
            "</DownloadedFiles>");
  auto records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].localPath, P("Docs/a.txt"));
  EXPECT_EQ(records[0].size, 12);
  EXPECT_FALSE(records[0].isFolder);  // only "YES" is true
  EXPECT_TRUE(records[0].brokeDownload);
  EXPECT_FALSE(records[0].wasProcessed);
  EXPECT_EQ(records[0].modifiedTime, 0);
  EXPECT_TRUE(records[1].isFolder);
}

TEST(DownloadedFiles, MissingFileReadsAsNothingAndTheFirstWriteCreatesIt) {
  TempHome home;
  ServerXMLParser parser;
  EXPECT_FALSE(parser.readDownloadedFiles().has_value());
  EXPECT_EQ(parser.lastRead(), StateFileRead::Missing);
  EXPECT_TRUE(fs::is_directory(home.settings()));  // reading prepares the folders
  EXPECT_FALSE(AsyncFileCommonPart::FileExistInDownloadFile(Item(P("Docs/a.txt"))));

  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/a.txt")), false));
  EXPECT_EQ(Paths(), std::vector<std::string>{P("Docs/a.txt")});
  EXPECT_TRUE(AsyncFileCommonPart::FileExistInDownloadFile(Item(P("Docs/a.txt"))));
}

TEST(DownloadedFiles, WriteCreatesThenUpdatesWithStatusAndTime) {
  TempHome home;
  ServerXMLParser::saveDownloadedXML({Record(P("Docs/first"))});
  std::int64_t before = StateFileSupport::NowSeconds();
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/a.txt"), false, 5, 1700000000), false));
  auto records = Records();
  ASSERT_EQ(records.size(), 2u);
  const CVFileForCompare& created = records[1];  // a new record goes to the end
  EXPECT_EQ(created.localPath, P("Docs/a.txt"));
  EXPECT_EQ(created.fileStatus, 0);
  EXPECT_EQ(created.size, 5);
  EXPECT_EQ(created.modifiedTime, 1700000000);
  EXPECT_GE(created.statusChangeTime, before);
  EXPECT_LE(created.statusChangeTime, StateFileSupport::NowSeconds());

  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/a.txt"), false, 9, 1700000500), false));
  records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].fileStatus, 1);
  EXPECT_EQ(records[1].size, 9);
  EXPECT_EQ(records[1].modifiedTime, 1700000500);

  ASSERT_TRUE(AsyncFileCommonPart::SetNothingStatusForFile(P("Docs/a.txt")));
  records = Records();
  EXPECT_EQ(records[1].fileStatus, -1);
  EXPECT_EQ(records[0].fileStatus, 0);
}

TEST(DownloadedFiles, BrokenDownloadTurnsWholeUnderItsFinalPath) {
  TempHome home;
  // Started: a broken record under the final path.
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/big.bin"), false, 100), true));
  auto records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(records[0].brokeDownload);
  ASSERT_TRUE(DownloadedFilesStore::Instance().Fold());
  EXPECT_NE(ReadFile(XMLPath()).find("<brokenDownload>YES</brokenDownload>"), std::string::npos);
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/big.bin"), false, 100), false));
  records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_FALSE(records[0].brokeDownload);
  EXPECT_EQ(records[0].fileStatus, 1);

  // A record kept under the temporary name is found and moved to the final path.
  CVFileForCompare temporary = Record(P("Docs/sub/.c.txt.cvtemp"));
  temporary.brokeDownload = true;
  ServerXMLParser::saveDownloadedXML({temporary});
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/sub/c.txt"), false, 7), false));
  records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].localPath, P("Docs/sub/c.txt"));
  EXPECT_EQ(records[0].fileStatus, 1);
  EXPECT_FALSE(records[0].brokeDownload);

  // And a failed download drops the record however it is named.
  ServerXMLParser::saveDownloadedXML({temporary});
  ASSERT_TRUE(AsyncFileCommonPart::RemoveFromDownloadedFiles(Item(P("Docs/sub/c.txt"))));
  EXPECT_TRUE(Paths().empty());
}

TEST(DownloadedFiles, TemporaryNameIsTheHiddenCvtempBesideTheFile) {
  EXPECT_EQ(AsyncFileCommonPart::TemporaryNameForPath("/a/b/c.txt"), "/a/b/.c.txt.cvtemp");
  EXPECT_EQ(AsyncFileCommonPart::TemporaryNameForPath("/a/b/.c.txt.cvtemp"), "/a/b/.c.txt.cvtemp");
  EXPECT_EQ(AsyncFileCommonPart::TemporaryNameForPath("/a/.hidden"), "/a/.hidden.cvtemp");
  EXPECT_EQ(AsyncFileCommonPart::TemporaryNameForPath("/c.txt"), "/.c.txt.cvtemp");
}

TEST(DownloadedFiles, RemovingAFolderTakesWhatIsBelowItAndNothingElse) {
  TempHome home;
  const std::vector<CVFileForCompare> start = {
      Record(P("Docs/Folder"), true), Record(P("Docs/Folder/a.txt")), Record(P("Docs/Folder/Sub"), true),
      Record(P("Docs/Folder/Sub/b.txt")), Record(P("Docs/Folder2/c.txt")), Record(P("Docs/Folder.txt"))};
  ServerXMLParser::saveDownloadedXML(start);
  ASSERT_TRUE(AsyncFileCommonPart::RemoveFromDownloadedFiles(Item(P("Docs/Folder"), true)));
  EXPECT_EQ(Paths(), (std::vector<std::string>{P("Docs/Folder2/c.txt"), P("Docs/Folder.txt")}));

  // A folder without a record of its own removes nothing below it.
  ServerXMLParser::saveDownloadedXML({Record(P("Docs/Loose/a.txt"))});
  ASSERT_TRUE(AsyncFileCommonPart::RemoveFromDownloadedFiles(Item(P("Docs/Loose"), true)));
  EXPECT_EQ(Paths(), std::vector<std::string>{P("Docs/Loose/a.txt")});

  // A file's removal leaves its namesakes alone.
  ServerXMLParser::saveDownloadedXML({Record(P("Docs/x")), Record(P("Docs/x/y"))});
  ASSERT_TRUE(AsyncFileCommonPart::RemoveFromDownloadedFiles(Item(P("Docs/x"))));
  EXPECT_EQ(Paths(), std::vector<std::string>{P("Docs/x/y")});
}

TEST(DownloadedFiles, DownloadForAnUploadRequestLeavesTheFileUntouched) {
  TempHome home;
  CVFileWithAction item = Item(P("Docs/a.txt"));
  item.fileAction = FWA_DownloadForUploadRequest;
  EXPECT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(item, false));
  EXPECT_FALSE(fs::exists(XMLPath()));

  ServerXMLParser::saveDownloadedXML({Record(P("Docs/a.txt"))});
  std::string before = ReadFile(XMLPath());
  AsyncFileCommonPart::RemoveFromDownloadedFiles(item);
  EXPECT_EQ(ReadFile(XMLPath()), before);
}

TEST(DownloadedFiles, RenameMovesTheRecordAndAFoldersChildren) {
  TempHome home;
  CVFileForCompare seen = Record(P("Docs/Old/a.txt"));
  seen.fileStatus = -1;
  seen.statusChangeTime = 1234;
  ServerXMLParser::saveDownloadedXML({Record(P("Docs/Old"), true), seen, Record(P("Docs/Old/Sub/b.txt")),
                                      Record(P("Docs/Older/c.txt")), Record(P("Docs/file.txt"))});
  CVFileWithAction folder = Item(P("Docs/New"), true);
  folder.oldFilePath = P("Docs/Old");
  ASSERT_TRUE(AsyncFileCommonPart::WriteRenameOperationToDownloadedFiles(folder));
  auto records = Records();
  std::vector<std::string> paths;
  for (const auto& record : records) paths.push_back(record.localPath);
  EXPECT_EQ(paths, (std::vector<std::string>{P("Docs/New"), P("Docs/New/a.txt"), P("Docs/New/Sub/b.txt"),
                                             P("Docs/Older/c.txt"), P("Docs/file.txt")}));
  EXPECT_EQ(records[1].fileStatus, -1);  // a rename is no new state
  EXPECT_EQ(records[1].statusChangeTime, 1234);

  // A file through the general writer, action 2.
  CVFileWithAction file = Item(P("Docs/renamed.txt"));
  file.oldFilePath = P("Docs/file.txt");
  ASSERT_TRUE(AsyncFileCommonPart::ChangeDownloadedFiles(file, false, 2));
  EXPECT_NE(Find(Records(), P("Docs/renamed.txt")), nullptr);
  EXPECT_EQ(Find(Records(), P("Docs/file.txt")), nullptr);

  // No record of the old path: the file is rewritten as it was.
  auto unchanged = Paths();
  CVFileWithAction unknown = Item(P("Docs/to"));
  unknown.oldFilePath = P("Docs/from");
  ASSERT_TRUE(AsyncFileCommonPart::WriteRenameOperationToDownloadedFiles(unknown));
  EXPECT_EQ(Paths(), unchanged);
}

TEST(DownloadedFiles, CleaningAStorageLeavesStoragesWithLongerNames) {
  TempHome home;
  const std::vector<CVFileForCompare> start = {Record(P("Docs"), true), Record(P("Docs/a.txt")),
                                               Record(P("Docs/Sub/b.txt")), Record(P("Docs2/c.txt")),
                                               Record(P("Team/d.txt"))};
  const std::string root = CVStaticHelpers::GenerateRootPath();
  for (const std::string& given : {root + "/Docs", root + "/Docs/"}) {
    SCOPED_TRACE(given);
    ServerXMLParser::saveDownloadedXML(start);
    ASSERT_TRUE(DownloadedXMLStaticMethods::CleanXMLFromSite(given));
    EXPECT_EQ(Paths(), (std::vector<std::string>{P("Docs2/c.txt"), P("Team/d.txt")}));
  }
  // Never everything at once.
  ServerXMLParser::saveDownloadedXML(start);
  for (const std::string& given : {std::string(), std::string("/"), root, root + "/"}) {
    EXPECT_FALSE(DownloadedXMLStaticMethods::CleanXMLFromSite(given)) << given;
  }
  EXPECT_EQ(Records().size(), start.size());
}

TEST(DownloadedFiles, BrokenFileIsLoggedKeptAsideAndLosesNoWholeRecord) {
  const std::string good = "<DownloadedFile><localPath>/r/Docs/one</localPath><size>1</size></DownloadedFile>";
  const struct {
    const char* name;
    std::string text;
    std::size_t records;  // whole records before the fault
    bool parseError;
  } cases[] = {
      {"truncated in a record", "<?xml version=\"1.0\"?><DownloadedFiles>" + good +
                                    "<DownloadedFile><localPath>/r/Docs/two</localPath><size>2",
       1, true},
      {"truncated after a record", "<DownloadedFiles>" + good, 1, true},
      {"mismatched tags", "<DownloadedFiles>" + good + "<DownloadedFile><size>3</sise></DownloadedFile>", 1, true},
      {"not XML", "this is not xml at all", 0, true},
      {"empty", "", 0, true},
      {"binary", std::string("\0\x01\x02<Down", 8), 0, true},
      {"wrong number", "<DownloadedFiles>" + good +
                           "<DownloadedFile><localPath>/r/Docs/two</localPath><size>12abc</size></DownloadedFile>"
                           "</DownloadedFiles>",
       2, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempHome home;
    WriteFile(XMLPath(), c.text);
    ServerXMLParser parser;
    auto records = parser.readDownloadedFiles();
    ASSERT_TRUE(records.has_value());
    EXPECT_EQ(records->size(), c.records);
    EXPECT_EQ(parser.lastRead(), StateFileRead::Broken);
    std::string log = home.ReadLog("CVExceptionLogs");
    if (c.parseError) {
      EXPECT_NE(log.find("ServerXMLParser - readDownloadedFiles -|*Exception: (Server XML parser) Error "),
                std::string::npos)
          << log;
      EXPECT_NE(log.find(", Line: "), std::string::npos);
    } else {
      EXPECT_NE(log.find("element size holds \"12abc\""), std::string::npos) << log;
    }

    // The next change keeps the whole records; the bytes as they were stay
    // beside the file, once, though the broken file was read twice.
    ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/new.txt")), false));
    EXPECT_EQ(Records().size(), c.records + 1);
    std::vector<std::string> copies;
    for (const auto& entry : fs::directory_iterator(home.settings())) {
      if (entry.path().filename().string().rfind("DownloadedFiles.xml.broken-", 0) == 0) {
        copies.push_back(entry.path().string());
      }
    }
    if (c.text.empty()) {
      EXPECT_TRUE(copies.empty());
    } else {
      ASSERT_EQ(copies.size(), 1u);
      EXPECT_EQ(ReadFile(copies[0]), c.text);
    }
  }
}

TEST(DownloadedFiles, AFileThatCannotBeReadIsNeverReplaced) {
  TempHome home;
  // A folder in the file's place: there, but its bytes cannot be read.
  fs::create_directories(XMLPath());
  ServerXMLParser parser;
  EXPECT_FALSE(parser.readDownloadedFiles().has_value());
  EXPECT_EQ(parser.lastRead(), StateFileRead::Unreadable);
  EXPECT_FALSE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/a.txt")), false));
  EXPECT_FALSE(DownloadedXMLStaticMethods::CleanXMLFromSite(P("Docs")));
  EXPECT_TRUE(AsyncFileCommonPart::FileExistInDownloadFile(Item(P("Docs/a.txt"))));
  EXPECT_TRUE(fs::is_directory(XMLPath()));
  EXPECT_NE(home.ReadLog("CVExceptionLogs").find("cannot read " + XMLPath()), std::string::npos);
}

TEST(DownloadedFiles, AFailedWriteLeavesTheOldFileWhole) {
  TempHome home;
  ASSERT_TRUE(ServerXMLParser::saveDownloadedXML({Record(P("Docs/a.txt")), Record(P("Docs/b.txt"))}));
  const std::string before = ReadFile(XMLPath());
  std::vector<CVFileForCompare> many;
  for (int i = 0; i < 200; ++i) many.push_back(Record(P("Docs/file-" + std::to_string(i) + ".txt")));

  // The new document is larger than a file may grow: the write fails halfway.
  struct rlimit saved {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = saved;
  small.rlim_cur = 8192;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  bool saved200 = ServerXMLParser::saveDownloadedXML(many);
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);

  EXPECT_FALSE(saved200);
  EXPECT_EQ(ReadFile(XMLPath()), before);
  EXPECT_NE(home.ReadLog("CVExceptionLogs").find("DownloadedFiles.xml could not be written; the old file stays"),
            std::string::npos);
  for (const auto& entry : fs::directory_iterator(home.settings())) {
    EXPECT_EQ(entry.path().filename().string().rfind(".DownloadedFiles.xml", 0), std::string::npos)
        << "temporary file left: " << entry.path();
  }

  if (geteuid() != 0) {  // the superuser writes into read-only folders
    fs::permissions(home.settings(), fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_FALSE(AsyncFileCommonPart::WriteToDownloadedFiles(Item(P("Docs/c.txt")), false));
    fs::permissions(home.settings(), fs::perms::owner_all);
    EXPECT_EQ(ReadFile(XMLPath()), before);
  }
}

TEST(DownloadedFiles, ConcurrentWritersLoseNoChange) {
  TempHome home;
  constexpr int kThreads = 8;
  constexpr int kChanges = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kChanges; ++i) {
        std::string path = P("Docs/t" + std::to_string(t) + "/f" + std::to_string(i));
        AsyncFileCommonPart::WriteToDownloadedFiles(Item(path, false, i), i % 2 == 0);
        if (i % 10 == 9) AsyncFileCommonPart::SetNothingStatusForFile(path);
      }
    });
  }
  for (auto& thread : threads) thread.join();

  auto records = Records();
  std::set<std::string> paths;
  for (const auto& record : records) paths.insert(record.localPath);
  EXPECT_EQ(records.size(), static_cast<std::size_t>(kThreads * kChanges));
  EXPECT_EQ(paths.size(), static_cast<std::size_t>(kThreads * kChanges));
  for (int t = 0; t < kThreads; ++t) {
    const CVFileForCompare* marked = Find(records, P("Docs/t" + std::to_string(t) + "/f9"));
    ASSERT_NE(marked, nullptr);
    EXPECT_EQ(marked->fileStatus, -1);
  }
}
