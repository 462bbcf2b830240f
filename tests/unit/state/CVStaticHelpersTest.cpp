#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>
#include <sstream>
#include <string>
#include <vector>

#include "CVConfiguration.h"
#include "CVStaticHelpers.h"
#include "Clock.h"
#include "FreedesktopTrash.h"
#include "MachineIdentity.h"
#include "ServerXMLParser.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

void AddSite(const std::string& name, const std::string& url, const std::string& type) {
  auto site = std::make_shared<CVSharepoint>();
  site->Name = name;
  site->Url = url;
  site->StorageType = type;
  CVConfiguration::Instance().fSpSites.push_back(site);
}

void WriteFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// Counts the sleeps instead of sleeping, and lets a test act at a given one.
class CountingClock : public Clock {
 public:
  void Sleep(std::chrono::nanoseconds duration) const override {
    ++sleeps;
    EXPECT_EQ(duration, std::chrono::milliseconds(100));
    if (onSleep) onSleep(sleeps);
  }
  std::chrono::system_clock::time_point WallNow() const override {
    return std::chrono::system_clock::now() + wallOffset;
  }
  mutable int sleeps = 0;
  std::function<void(int)> onSleep;
  std::chrono::seconds wallOffset{0};
};

class FixedIdentity : public MachineIdentity {
 public:
  explicit FixedIdentity(std::string identity) : identity_(std::move(identity)) {}
  std::string DeviceIdentity() const override { return identity_; }

 private:
  std::string identity_;
};

class RecordingTrash : public Trash {
 public:
  bool MoveToTrash(const std::string& path, std::string& error) override {
    paths.push_back(path);
    if (!succeed) error = "the disk said no";
    return succeed;
  }
  std::vector<std::string> paths;
  bool succeed = true;
};

}  // namespace

TEST(CVStaticHelpers, PathsOfTheStorages) {
  TempHome home;
  AddSite("Docs", "https://devserver/Docs/", "SharePoint");
  AddSite("Team", "\\\\devserver\\Team\\", "CIFS");
  std::string root = home.root();

  EXPECT_EQ(CVStaticHelpers::GenerateDownloadedXMLPath(), home.settings() + "/DownloadedFiles.xml");
  EXPECT_EQ(CVStaticHelpers::GeneratePathToSite("Docs"), root + "/Docs");
  EXPECT_EQ(CVStaticHelpers::GetLocalPathForSiteName("Docs"), root + "/Docs/");
  EXPECT_EQ(CVStaticHelpers::GetLocalPathForSiteName(""), "");
  EXPECT_EQ(CVStaticHelpers::GetLocalPathForSite(1), root + "/Team/");
  EXPECT_EQ(CVStaticHelpers::GetLocalPathForSite(2), "");
  EXPECT_EQ(CVStaticHelpers::GetSiteNameByIndex(0), "Docs");
  EXPECT_EQ(CVStaticHelpers::GetSiteNameByIndex(7), "");
}

TEST(CVStaticHelpers, TheStorageOfALocalPathIsTheFirstFolderBelowTheRoot) {
  TempHome home;
  AddSite("Docs", "https://devserver/Docs/", "SharePoint");
  std::string root = home.root();
  struct Case {
    std::string path;
    std::string name;
  };
  const std::vector<Case> cases = {
      {root + "/Docs/sub/a.txt", "Docs"},
      {root + "/Docs", "Docs"},
      {root + "/docs/", "docs"},
      {root + "/Other/x", "Other"},
      {root, ""},
      {root + "/", ""},
      {home.path() + "/Corvalink2/Docs/a.txt", ""},  // a sibling of the root is outside it
      {"/elsewhere/Docs/a.txt", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CVStaticHelpers::GetSiteNameForLocalPath(c.path), c.name) << c.path;
  }
  EXPECT_NE(home.ReadLog("CVExceptionLogs")
                .find("CVStaticHelpers - GetSiteNameForLocalPath -|*Exception: "),
            std::string::npos);

  auto site = CVStaticHelpers::GetSpSiteForLocalPath(root + "/DOCS/a.txt");
  ASSERT_NE(site, nullptr);
  EXPECT_EQ(site->Name, "Docs");
  EXPECT_EQ(CVStaticHelpers::GetSpSiteForLocalPath(root + "/Other/a.txt"), nullptr);
  EXPECT_EQ(CVStaticHelpers::GetSpSiteForLocalPath(root), nullptr);
}

TEST(CVStaticHelpers, ServerPathsUseTheSeparatorOfTheirStorage) {
  TempHome home;
  AddSite("Team", "\\\\devserver\\Team\\", "CIFS");
  AddSite("Docs", "https://devserver/Docs", "SharePoint");  // no final "/" yet
  AddSite("Share", "\\\\host\\share%20x", "S3");            // not CIFS, but holds a backslash
  AddSite("Enc", "https://devserver/My%20Docs/", "Azure");
  AddSite("Odd", "https://devserver/Odd/", "CIFS");  // CIFS decides, whatever the URL
  std::string root = home.root();
  struct Case {
    std::string local;
    std::string server;
  };
  const std::vector<Case> cases = {
      {root + "/Team/sub/a.txt", "\\\\devserver\\Team\\sub\\a.txt"},
      {root + "/Team/a.txt", "\\\\devserver\\Team\\a.txt"},
      {root + "/Docs/sub/a.txt", "https://devserver/Docs/sub/a.txt"},
      {root + "/Docs/we\\ird.txt", "https://devserver/Docs/we/ird.txt"},
      {root + "/Share/sub/a b.txt", "\\\\host\\share x\\sub\\a b.txt"},
      {root + "/Enc/x y/z.txt", "https://devserver/My Docs/x y/z.txt"},
      {root + "/Odd/a/b.txt", "https://devserver/Odd/\\a\\b.txt"},
      // The storage is found regardless of case, but its folder is not in the
      // path: the whole local path follows the location.
      {root + "/docs/a.txt", "https://devserver/Docs/" + root + "/docs/a.txt"},
      {root + "/Docs", "https://devserver/Docs/"},
      {root + "/Missing/a.txt", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CVStaticHelpers::serverPathFromLocalPath(c.local), c.server) << c.local;
  }
}

TEST(CVStaticHelpers, LocalCopyNames) {
  TempHome home;
  std::string f = home.path() + "/v1.2";  // a dot in a folder plays no part
  struct Case {
    std::string name;
    std::vector<std::string> existing;
    std::string copy;
  };
  const std::vector<Case> cases = {
      {"report.txt", {}, "report - localcopy.txt"},
      {"report.txt", {"report - localcopy.txt"}, "report - localcopy (2).txt"},
      {"report.txt",
       {"report - localcopy.txt", "report - localcopy (2).txt"},
       "report - localcopy (3).txt"},
      {"report - localcopy (3).txt", {}, "report - localcopy.txt"},
      {"report - localcopy.txt",
       {},
       "report - localcopy (2).txt"},  // the file itself holds the first name
      {"report - localcopy (14).txt", {}, "report - localcopy.txt"},
      {"report - localcopy (15).txt", {}, "report - localcopy (15) - localcopy.txt"},
      {"archive.tar.gz", {}, "archive.tar - localcopy.gz"},
      {"README", {}, "README - localcopy"},
      {"README - localcopy (7)", {}, "README - localcopy"},
      {".hidden", {}, ".hidden - localcopy"},
      {"Grüße.txt", {"Grüße - localcopy.txt"}, "Grüße - localcopy (2).txt"},
      {"Docs - localcopy/report.txt", {}, "Docs - localcopy/report - localcopy.txt"},
  };
  for (const auto& c : cases) {
    fs::remove_all(f);
    std::string path = f + "/" + c.name;
    WriteFile(path, "x");
    for (const auto& name : c.existing) WriteFile(f + "/" + name, "y");
    EXPECT_EQ(CVStaticHelpers::getLocalCopyName(path), f + "/" + c.copy) << c.name;
  }
}

TEST(CVStaticHelpers, LocalCopyNamesNeverReturnAnExistingFile) {
  TempHome home;
  std::string folder = home.path() + "/docs";
  WriteFile(folder + "/report.txt", "x");
  WriteFile(folder + "/report - localcopy.txt", "1");
  for (int i = 2; i <= 15; ++i) {
    if (i != 9) WriteFile(folder + "/report - localcopy (" + std::to_string(i) + ").txt", "n");
  }
  EXPECT_EQ(CVStaticHelpers::getLocalCopyName(folder + "/report.txt"),
            folder + "/report - localcopy (9).txt");
  WriteFile(folder + "/report - localcopy (9).txt", "n");
  // All fifteen are taken: counting goes on instead of naming a file that exists.
  EXPECT_EQ(CVStaticHelpers::getLocalCopyName(folder + "/report.txt"),
            folder + "/report - localcopy (16).txt");
  // A dangling link holds its name as well.
  fs::create_symlink(folder + "/nowhere", folder + "/report - localcopy (16).txt");
  EXPECT_EQ(CVStaticHelpers::getLocalCopyName(folder + "/report.txt"),
            folder + "/report - localcopy (17).txt");
}

TEST(CVStaticHelpers, ByteCountsReadAsUnits) {
  struct Case {
    std::int64_t bytes;
    std::string text;
  };
  const std::int64_t Ki = 1024;
  const std::vector<Case> cases = {
      {0, "0 bytes"},
      {-5, "-5 bytes"},
      {1023, "1023 bytes"},
      {1024, "1 Kb"},
      {1048575, "1023 Kb"},
      {1048576, "1024 Kb"},  // the next unit begins at 1025 times 1024
      {1049599, "1024 Kb"},
      {1049600, "1 Mb"},
      {Ki * Ki * Ki, "1024 Mb"},
      {1025 * Ki * Ki, "1 Gb"},  // past 1024 of a unit, the next one
      {1025 * Ki * Ki * Ki, "1 Tb"},
      {Ki * Ki * Ki * Ki * Ki, "1024 Tb"},
      {1025 * Ki * Ki * Ki * Ki, "1 Pb"},
      {1025 * Ki * Ki * Ki * Ki * Ki, "1025 Pb"},             // five divisions at most
      {std::numeric_limits<std::int64_t>::max(), "8191 Pb"},  // Pb is the last unit
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CVStaticHelpers::ConvertBytesToReadableFromat(c.bytes), c.text) << c.bytes;
  }
}

TEST(CVStaticHelpers, ListsReadAsText) {
  using List = std::vector<std::string>;
  EXPECT_EQ(CVStaticHelpers::humanReadableListFromArray(List{}, true), "");
  EXPECT_EQ(CVStaticHelpers::humanReadableListFromArray(List{"a"}, true), "a");
  EXPECT_EQ(CVStaticHelpers::humanReadableListFromArray(List{"a", "b"}, true), "a and b");
  EXPECT_EQ(CVStaticHelpers::humanReadableListFromArray(List{"a", "b", "c"}, false), "a, b and c");
  EXPECT_EQ(CVStaticHelpers::humanReadableListFromArray(List{"a", "b", "c"}, true), "a, b, and c");
  EXPECT_EQ(CVStaticHelpers::humanReadableListFromArray(List{"a", "b", "c", "d"}, false),
            "a, b, c and d");
}

TEST(CVStaticHelpers, StorageUrlsGetTheirFinalSeparator) {
  struct Case {
    std::string url;
    bool cifs;
    std::string checked;
  };
  const std::vector<Case> cases = {
      {"\\\\srv\\share", true, "\\\\srv\\share\\"},  {"\\\\srv\\share\\", true, "\\\\srv\\share\\"},
      {"\\\\srv\\share", false, "\\\\srv\\share\\"},  // a backslash decides as CIFS does
      {"https://h/a", false, "https://h/a/"},        {"https://h/a/", false, "https://h/a/"},
      {"\\\\srv\\a\\/b\\", true, "\\\\srv\\a\\b\\"},  // "\/" collapses to one backslash
      {"\\\\srv\\a/", true, "\\\\srv\\a/\\"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(CVStaticHelpers::SpSiteURLCheck(c.url, c.cifs), c.checked) << c.url;
}

TEST(CVStaticHelpers, Md5OfFilesInAnyPieceSize) {
  TempHome home;
  std::string abc = home.path() + "/abc";
  std::string empty = home.path() + "/empty";
  std::string big = home.path() + "/big";
  WriteFile(abc, "abc");
  WriteFile(empty, "");
  std::string content;
  for (int i = 0; i < 10007; ++i) content += static_cast<char>(i * 31 % 251);
  WriteFile(big, content);

  for (std::size_t chunk : {0, 1, 2, 3, 4096}) {
    EXPECT_EQ(CVStaticHelpers::FileMD5HashCreateWithPath(abc, chunk),
              "900150983cd24fb0d6963f7d28e17f72")
        << chunk;
  }
  EXPECT_EQ(CVStaticHelpers::FileMD5HashCreateWithPath(empty, 0),
            "d41d8cd98f00b204e9800998ecf8427e");
  auto whole = CVStaticHelpers::FileMD5HashCreateWithPath(big, 1 << 20);
  ASSERT_TRUE(whole);
  EXPECT_TRUE(std::regex_match(*whole, std::regex("[0-9a-f]{32}")));
  EXPECT_EQ(CVStaticHelpers::FileMD5HashCreateWithPath(big, 7), whole);
  EXPECT_EQ(CVStaticHelpers::FileMD5HashCreateWithPath(big, 4096), whole);
  EXPECT_EQ(CVStaticHelpers::FileMD5HashCreateWithPath(home.path() + "/missing", 0), std::nullopt);
  EXPECT_EQ(CVStaticHelpers::FileMD5HashCreateWithPath(home.path(), 0), std::nullopt);  // a folder
}

TEST(CVStaticHelpers, FilesAreTheSameOnlyWhenBothHashesAreKnownAndEqual) {
  TempHome home;
  std::string a = home.path() + "/a", b = home.path() + "/b", c = home.path() + "/c";
  WriteFile(a, "same bytes");
  WriteFile(b, "same bytes");
  WriteFile(c, "other bytes");
  EXPECT_TRUE(CVStaticHelpers::FileSame(a, b));
  EXPECT_FALSE(CVStaticHelpers::FileSame(a, c));
  EXPECT_FALSE(CVStaticHelpers::FileSame(a, home.path() + "/missing"));
  // Two unreadable files are not "the same": folding them would drop a copy.
  EXPECT_FALSE(CVStaticHelpers::FileSame(home.path() + "/gone1", home.path() + "/gone2"));
  EXPECT_NE(home.ReadLog("CVMainLogs")
                .find("comparing hash for local copy (" + a +
                      "):\nold file hash:b7c7a19ff9841101a57b7867181d267e"),
            std::string::npos)
      << home.ReadLog("CVMainLogs");
}

TEST(CVStaticHelpers, GuidsAreNewEachTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {
    std::string id = CVStaticHelpers::uuid();
    EXPECT_TRUE(std::regex_match(
        id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}")))
        << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 50u);
}

TEST(CVStaticHelpers, AFileIsLockedWhileItsSizeChangesWithinTwentyRounds) {
  TempHome home;
  std::string file = home.path() + "/growing.bin";
  WriteFile(file, "start");

  CountingClock quiet;
  EXPECT_FALSE(CVStaticHelpers::isFileLockedPreUploadCheck(file, quiet));
  EXPECT_EQ(quiet.sleeps, 20);

  for (int growAt : {1, 5, 20}) {  // the twentieth round still counts
    CountingClock clock;
    clock.onSleep = [&](int sleep) {
      if (sleep == growAt) std::ofstream(file, std::ios::app) << "more";
    };
    EXPECT_TRUE(CVStaticHelpers::isFileLockedPreUploadCheck(file, clock)) << growAt;
    EXPECT_EQ(clock.sleeps, growAt);
  }

  // A file nobody has changed for longer than the rounds would watch needs no round.
  CountingClock later;
  later.wallOffset = std::chrono::seconds(3);
  EXPECT_FALSE(CVStaticHelpers::isFileLockedPreUploadCheck(file, later));
  EXPECT_EQ(later.sleeps, 0);

  CountingClock missing;
  EXPECT_FALSE(CVStaticHelpers::isFileLockedPreUploadCheck(home.path() + "/missing", missing));
  EXPECT_EQ(missing.sleeps, 0);
  EXPECT_NE(home.ReadLog("CVExceptionLogs").find("CVStaticHelpers_isFileLockedPreUploadCheck: "),
            std::string::npos);
}

TEST(CVStaticHelpers, TheDeviceIdComesFromTheMachineIdentity) {
  CVStaticHelpers::SetMachineIdentity(std::make_shared<FixedIdentity>("0A1B2C3D4E5F"));
  EXPECT_EQ(CVStaticHelpers::GetUniqueDeviceID(), "0A1B2C3D4E5F");
  CVStaticHelpers::SetMachineIdentity(nullptr);
  EXPECT_EQ(CVStaticHelpers::GetUniqueDeviceID(), FileMachineIdentity().DeviceIdentity());
}

TEST(CVStaticHelpers, MoveFileToTrashReportsWhatTheTrashDid) {
  TempHome home;
  auto fake = std::make_shared<RecordingTrash>();
  CVStaticHelpers::SetTrash(fake);
  EXPECT_FALSE(CVStaticHelpers::MoveFileToTrash(""));
  EXPECT_TRUE(fake->paths.empty());
  EXPECT_TRUE(CVStaticHelpers::MoveFileToTrash("/some/file.txt"));
  fake->succeed = false;
  EXPECT_FALSE(CVStaticHelpers::MoveFileToTrash("/some/other.txt"));
  EXPECT_EQ(fake->paths, (std::vector<std::string>{"/some/file.txt", "/some/other.txt"}));
  EXPECT_NE(home.ReadLog("CVMainLogs").find("MoveFileToTrash ->\n the disk said no"),
            std::string::npos);

  // The machine's own Trash, under the desktop's data folder.
  CVStaticHelpers::SetTrash(nullptr);
  const char* oldData = std::getenv("XDG_DATA_HOME");
  std::string savedData = oldData ? oldData : "";
  setenv("XDG_DATA_HOME", (home.path() + "/data").c_str(), 1);
  std::string file = home.root() + "/Docs/old notes.txt";
  WriteFile(file, "notes");
  EXPECT_TRUE(CVStaticHelpers::MoveFileToTrash(file));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(ReadFile(home.path() + "/data/Trash/files/old notes.txt"), "notes");
  if (oldData) {
    setenv("XDG_DATA_HOME", savedData.c_str(), 1);
  } else {
    unsetenv("XDG_DATA_HOME");
  }
}

TEST(CVStaticHelpers, WriteFileAtomicallyReplacesWholeWithTheGivenMode) {
  TempHome home;
  std::string folder = home.path() + "/state";
  std::string file = folder + "/State.xml";
  fs::create_directories(folder);

  ASSERT_TRUE(CVStaticHelpers::WriteFileAtomically(file, "first", 0600));
  WriteFile(file, "old");
  chmod(file.c_str(), 0644);
  ASSERT_TRUE(CVStaticHelpers::WriteFileAtomically(file, std::string("new\0bytes", 9), 0600));
  EXPECT_EQ(ReadFile(file), std::string("new\0bytes", 9));
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_TRUE(CVStaticHelpers::WriteFileAtomically(folder + "/empty", "", 0640));
  ASSERT_EQ(stat((folder + "/empty").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640u);
  EXPECT_EQ(info.st_size, 0);

  EXPECT_FALSE(CVStaticHelpers::WriteFileAtomically(home.path() + "/no/such/folder/x", "x", 0600));
  EXPECT_FALSE(fs::exists(home.path() + "/no"));
  // A folder in the way stays, and no temporary file is left behind.
  fs::create_directories(folder + "/busy");
  EXPECT_FALSE(CVStaticHelpers::WriteFileAtomically(folder + "/busy", "x", 0600));
  EXPECT_TRUE(fs::is_directory(folder + "/busy"));
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"State.xml", "empty", "busy"}));

  // Streamed content: pieces land in order; a producer that gives up half way
  // (or throws) leaves the old file and no temporary one.
  auto pieces = [](const CVStaticHelpers::AppendBytes& append) {
    return append("one ") && append("") && append("two");
  };
  ASSERT_TRUE(CVStaticHelpers::WriteFileAtomically(file, pieces, 0600));
  EXPECT_EQ(ReadFile(file), "one two");
  auto givesUp = [](const CVStaticHelpers::AppendBytes& append) { return append("half") && false; };
  EXPECT_FALSE(CVStaticHelpers::WriteFileAtomically(file, givesUp, 0600));
  auto throws = [](const CVStaticHelpers::AppendBytes& append) -> bool {
    append("half");
    throw std::runtime_error("no more");
  };
  EXPECT_THROW((void)CVStaticHelpers::WriteFileAtomically(file, throws, 0600), std::runtime_error);
  EXPECT_EQ(ReadFile(file), "one two");
  names.clear();
  for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"State.xml", "empty", "busy"}));
}

TEST(CVStaticHelpersRenameSite, MovesTheFolderAndOnlyItsRecordsAndPutsThemBackOnFailure) {
  TempHome home;
  std::string root = home.root();
  std::filesystem::create_directories(root + "/Docs/sub");
  std::filesystem::create_directories(root + "/Docs2");
  auto record = [](const std::string& path) {
    CVFileForCompare r;
    r.localPath = path;
    r.size = 1;
    return r;
  };
  ASSERT_TRUE(ServerXMLParser::saveDownloadedXML(
      {record(root + "/Docs/sub/a.txt"), record(root + "/Docs2/b.txt"), record(root + "/Docs")}));

  ASSERT_TRUE(CVStaticHelpers::RenameSite("Docs", "Papers"));
  EXPECT_TRUE(std::filesystem::exists(root + "/Papers/sub"));
  EXPECT_FALSE(std::filesystem::exists(root + "/Docs"));
  auto records = ServerXMLParser().readDownloadedFiles();
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 3u);
  EXPECT_EQ((*records)[0].localPath, root + "/Papers/sub/a.txt");
  EXPECT_EQ((*records)[1].localPath, root + "/Docs2/b.txt");  // "Docs" is not a prefix of "Docs2"
  EXPECT_EQ((*records)[2].localPath, root + "/Papers");

  // The target exists: nothing moves and the records read as before.
  EXPECT_FALSE(CVStaticHelpers::RenameSite("Papers", "Docs2"));
  EXPECT_TRUE(std::filesystem::exists(root + "/Papers/sub"));
  auto again = ServerXMLParser().readDownloadedFiles();
  ASSERT_TRUE(again);
  EXPECT_EQ((*again)[0].localPath, root + "/Papers/sub/a.txt");
  EXPECT_EQ((*again)[1].localPath, root + "/Docs2/b.txt");
}

TEST(CVStaticHelpersForms, TheFormThatStandsOnTheDiskIsFoundWhicheverFormIsAsked) {
  TempHome home;
  const std::string composed = home.path() + "/caf\xC3\xA9.txt";
  const std::string decomposed = home.path() + "/cafe\xCC\x81.txt";
  std::ofstream(decomposed) << "x";
  EXPECT_TRUE(CVStaticHelpers::ExistsInAnyForm(composed));
  EXPECT_EQ(CVStaticHelpers::ExistingForm(composed), decomposed);
  EXPECT_EQ(CVStaticHelpers::ExistingForm(decomposed), decomposed);
  const std::string missing = home.path() + "/na\xC3\xAFve.txt";
  EXPECT_FALSE(CVStaticHelpers::ExistsInAnyForm(missing));
  EXPECT_EQ(CVStaticHelpers::ExistingForm(missing), missing);
}
