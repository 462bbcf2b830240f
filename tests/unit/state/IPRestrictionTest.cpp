#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CVConfiguration.h"
#include "CVIPRestriction.h"
#include "CVStateXMLFile.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

std::string ReadFile(const std::string& path) { return CVStateXMLFile::ReadWholeFile(path).value_or(""); }

std::vector<std::string> Urls(const std::vector<CVIPRestrictionNode>& records) {
  std::vector<std::string> urls;
  for (const auto& record : records) urls.push_back(record.FolderUrl);
  return urls;
}

class IPRestrictionTest : public ::testing::Test {
 protected:
  IPRestrictionTest() { CVIPRestriction::RemoveAll(); }
  ~IPRestrictionTest() override { CVIPRestriction::RemoveAll(); }

  std::string StoreFile() const { return home_.settings() + "/RestrictedFolders.xml"; }

  TempHome home_;
};

TEST_F(IPRestrictionTest, WithoutAFileAnEmptyOneIsWritten) {
  EXPECT_TRUE(CVIPRestriction::Instance().arrayRestriction().empty());
  EXPECT_EQ(ReadFile(StoreFile()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ALLRestriction/>\n");
  struct stat info {};
  ASSERT_EQ(stat(StoreFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("File RestrictionFolders.xml not found!"), std::string::npos);
}

TEST_F(IPRestrictionTest, RecordsAreAddedOnceRemovedAndReadBack) {
  auto& store = CVIPRestriction::Instance();
  store.AddNodeIfNoSuchWitServerPathFile("\\\\devserver\\Docs\\Secret", "");
  store.AddNodeIfNoSuchWitServerPathFile("/home/u/Corvalink/Docs/a&b.txt", "1970-01-01 00:00:00");
  store.AddNodeIfNoSuchWitServerPathFile("\\\\devserver\\Docs\\Secret", "2024-05-01 10:00:00");

  auto records = store.arrayRestriction();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].LastSyncTime, "") << "a second add changes nothing";
  EXPECT_EQ(ReadFile(StoreFile()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<ALLRestriction>\n"
            "  <IPRestricted>\n"
            "    <FolderUrl>\\\\devserver\\Docs\\Secret</FolderUrl>\n"
            "    <LastSyncTime>0001-01-01 00:00:00</LastSyncTime>\n"
            "  </IPRestricted>\n"
            "  <IPRestricted>\n"
            "    <FolderUrl>/home/u/Corvalink/Docs/a&amp;b.txt</FolderUrl>\n"
            "    <LastSyncTime>1970-01-01 00:00:00</LastSyncTime>\n"
            "  </IPRestricted>\n"
            "</ALLRestriction>\n");

  // An unknown path leaves the file alone: not even rewritten.
  struct stat before {};
  ASSERT_EQ(stat(StoreFile().c_str(), &before), 0);
  store.RemoveNodeWithURL("\\\\devserver\\Docs\\Other");
  struct stat after {};
  ASSERT_EQ(stat(StoreFile().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);

  CVIPRestriction::RemoveAll();
  records = CVIPRestriction::Instance().arrayRestriction();
  EXPECT_EQ(Urls(records),
            (std::vector<std::string>{"\\\\devserver\\Docs\\Secret", "/home/u/Corvalink/Docs/a&b.txt"}));
  EXPECT_EQ(records[0].LastSyncTime, "0001-01-01 00:00:00");

  CVIPRestriction::Instance().RemoveNodeWithURL("\\\\devserver\\Docs\\Secret");
  CVIPRestriction::RemoveAll();
  EXPECT_EQ(Urls(CVIPRestriction::Instance().arrayRestriction()),
            std::vector<std::string>{"/home/u/Corvalink/Docs/a&b.txt"});
}

TEST_F(IPRestrictionTest, ALocalPathContainsTheRestrictionsAtOrBelowIt) {
  auto storage = std::make_shared<CVSharepoint>();
  storage->Name = "Docs";
  storage->Url = "\\\\devserver\\Docs\\";
  CVConfiguration::Instance().fSpSites.push_back(storage);
  const std::string docs = home_.root() + "/Docs";

  auto& store = CVIPRestriction::Instance();
  store.AddNodeIfNoSuchWitServerPathFile("\\\\devserver\\Docs\\a\\secret", "");
  store.AddNodeIfNoSuchWitServerPathFile("\\\\devserver\\Docs\\abc", "");
  store.AddNodeIfNoSuchWitServerPathFile(docs + "/local/file.txt", "1970-01-01 00:00:00");

  struct Case {
    std::string path;
    bool restricted;
  } cases[] = {
      {docs, true},         // the storage holds restricted items
      {docs + "/a", true},  // a folder whose restricted child is recorded
      {docs + "/a/secret", true},
      {docs + "/a/secret/deeper", false},  // the record is the longer side, never the path
      {docs + "/ab", false},               // "abc" is not inside "ab"
      {docs + "/b", false},
      {docs + "/local", true},             // recorded by its local path
      {home_.root() + "/Other/a", false},  // no storage
  };
  for (const auto& c : cases) EXPECT_EQ(store.FileContainsItem(c.path), c.restricted) << c.path;
}

TEST_F(IPRestrictionTest, ADamagedFileKeepsTheRecordsReadBeforeTheDamage) {
  const std::string damaged =
      "<ALLRestriction>\n"
      "<IPRestricted><FolderUrl>\\\\s\\D\\one</FolderUrl><LastSyncTime>t1</LastSyncTime></IPRestricted>\n"
      "<IPRestricted><FolderUrl>\\\\s\\D\\two</FolderUrl><LastSyncTime>t2</LastSyncTime></IPRestricted>\n"
      "<IPRestricted><FolderUrl>\\\\s\\D\\three</FolderUrl><LastSyncTime>";
  fs::create_directories(home_.settings());
  std::ofstream(StoreFile(), std::ios::binary) << damaged;

  EXPECT_EQ(Urls(CVIPRestriction::Instance().arrayRestriction()),
            (std::vector<std::string>{"\\\\s\\D\\one", "\\\\s\\D\\two", "\\\\s\\D\\three"}));
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("Error: (MyParser XML parser) Error "), std::string::npos);

  bool keptAside = false;
  for (const auto& entry : fs::directory_iterator(home_.settings())) {
    if (entry.path().filename().string().rfind("RestrictedFolders.xml.broken-", 0) == 0) {
      keptAside = ReadFile(entry.path().string()) == damaged;
    }
  }
  EXPECT_TRUE(keptAside);
  CVIPRestriction::RemoveAll();
  EXPECT_EQ(CVIPRestriction::Instance().arrayRestriction().size(), 3u) << "written back whole";
}

TEST_F(IPRestrictionTest, AddsFromSeveralThreadsAreAllSaved) {
  auto& store = CVIPRestriction::Instance();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < 6; ++i) {
        store.AddNodeIfNoSuchWitServerPathFile("\\\\s\\D\\t" + std::to_string(t) + "\\" + std::to_string(i),
                                               "");
        store.AddNodeIfNoSuchWitServerPathFile("\\\\s\\D\\shared", "");
        store.FileContainsItem("/nowhere");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store.arrayRestriction().size(), 25u);
  CVIPRestriction::RemoveAll();
  EXPECT_EQ(CVIPRestriction::Instance().arrayRestriction().size(), 25u);
}

}  // namespace
