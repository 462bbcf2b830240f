// The rules of the settings that need no server: storage names, account
// identity, the kinds of storage URLs, and the merge of the server's storages.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "AccountIdentity.h"
#include "CVStaticHelpers.h"
#include "CVStorageNames.h"
#include "StorageController.h"
#include "SyncManagerSettings.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

TEST(SettingsRulesTest, StorageNames) {
  struct Case {
    std::string name;
    bool valid;
  };
  const Case cases[] = {
      {"Docs", true},        {"Shared Inn", true},   {"R&D 2026", true},      {"Été", true},
      {"", false},           {".x", false},          {".", false},            {"..", false},
      {"a/b", false},        {"Shared In", false},   {"SHARED OUT", false},   {"external user uploads", false},
      {std::string(255, 'a'), true},                 {std::string(256, 'a'), false},
      {std::string("a\0b", 3), false},
  };
  for (const auto& c : cases) EXPECT_EQ(CVStorageNames::IsValid(c.name), c.valid) << "\"" << c.name << "\"";
}

TEST(SettingsRulesTest, OnlyAStorageFolderLeavesAndNothingIsLost) {
  TempHome home;
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  fs::create_directories(root + "/Docs/sub");
  std::ofstream(root + "/Docs/sub/a.txt") << "a";
  fs::create_directories(home.path() + "/elsewhere");
  fs::create_symlink(home.path() + "/elsewhere", root + "/Link");

  EXPECT_TRUE(CVStorageNames::RemoveStorageFolder("Docs"));
  EXPECT_FALSE(fs::exists(root + "/Docs"));
  bool inTrash = false;
  for (const auto& entry : fs::recursive_directory_iterator(home.path() + "/.local/share/Trash/files")) {
    inTrash = inTrash || entry.path().filename() == "a.txt";
  }
  EXPECT_TRUE(inTrash);
  EXPECT_TRUE(CVStorageNames::RemoveStorageFolder("Gone"));  // nothing there
  EXPECT_FALSE(CVStorageNames::RemoveStorageFolder("Link"));  // a link is not a storage folder
  EXPECT_FALSE(CVStorageNames::RemoveStorageFolder(".."));
  EXPECT_TRUE(fs::exists(home.path() + "/elsewhere"));
}

TEST(SettingsRulesTest, AccountIdentity) {
  struct Case {
    const char* urlA;
    const char* userA;
    const char* urlB;
    const char* userB;
    bool same;
  };
  const Case cases[] = {
      {"https://files.example.com", "alice", "https://files.example.com/", "Alice", true},
      {"HTTPS://Files.Example.COM:443/", "alice", "https://files.example.com", "ALICE", true},
      {"http://host:80/cv", "bob", "http://host/cv/", "bob", true},
      {"http://host/CV", "bob", "http://host/cv", "bob", false},  // the path keeps its case
      {"http://host:8080", "bob", "http://host", "bob", false},
      {"https://a.example", "alice", "https://b.example", "alice", false},
      {"https://a.example", "alice", "https://a.example", "alice2", false},
      {"https://a.example", "ÉLODIE", "https://a.example", "élodie", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AccountIdentity::Of(c.urlA, c.userA) == AccountIdentity::Of(c.urlB, c.userB), c.same)
        << c.urlA << " " << c.userA << " / " << c.urlB << " " << c.userB;
  }
}

TEST(SettingsRulesTest, StorageKindsAndTheirUrls) {
  struct Case {
    const char* type;
    const char* url;
    bool radio;
    const char* result;
    const char* message;
    const char* stored;
  };
  const Case cases[] = {
      {"CIFS", "\\\\server\\share", false, "CIFS", "", "\\\\server\\share\\"},
      {"SP", "\\\\server\\share", false, "-1", "Your URL is not correct for Sharepoint Storage.", ""},
      {"O365", "https://x.sharepoint.com/s", false, "O365", "", "https://x.sharepoint.com/s/"},
      {"CIFS", "https://x/s", true, "-1", "Your URL is not correct for CIFS Storage.", ""},
      {"S3", "//bucket", false, "S3", "", "s3://bucket/"},
      {"S3", "s3://bucket/", false, "S3", "", "s3://bucket/"},
      {"S3", "https://bucket", false, "-1", "Your URL is not correct for Amazone S3 Storage.", ""},
      {"AZURE", "//acct/c", false, "AZURE", "", "azure://acct/c/"},
      {"AZURE", "\\\\a", false, "-1", "Your URL is not correct for Azure Storage.", ""},
      {"S3", "//bucket", true, "-1", "", ""},  // the radio group has three kinds
  };
  for (const auto& c : cases) {
    std::string message;
    EXPECT_EQ(StorageController::getStorageType(c.type, c.url, c.radio, message), c.result) << c.type << " " << c.url;
    EXPECT_EQ(message, c.message) << c.type << " " << c.url;
    if (*c.stored) {
      EXPECT_EQ(StorageController::StoredUrl(c.type, c.url), c.stored);
    }
  }
  EXPECT_EQ(StorageController::ShownUrl("azure://acct/c/"), "//acct/c/");
  EXPECT_EQ(StorageController::ShownUrl("S3://b/"), "//b/");
}

CVSharepoint Site(const std::string& name, const std::string& url, const std::string& type = "CIFS",
                  bool manual = false) {
  CVSharepoint site;
  site.Name = name;
  site.Url = url;
  site.StorageType = type;
  site.isManually = manual;
  return site;
}

TEST(SettingsRulesTest, MergeOfTheServersStorages) {
  using Renames = std::vector<std::pair<std::string, std::string>>;
  struct Case {
    const char* name;
    std::vector<CVSharepoint> local, server;
    Renames renames;
    std::vector<std::string> added;
  };
  const Case cases[] = {
      {"a storage whose location moved keeps its name and data",
       {Site("Docs", "\\\\a\\Docs\\")}, {Site("Docs", "\\\\b\\Docs\\")}, {}, {}},
      {"a new name at the same location renames",
       {Site("Docs", "\\\\a\\Docs\\")}, {Site("Documents", "\\\\A\\docs\\")}, {{"Docs", "Documents"}}, {}},
      {"another kind at the same location is another storage",
       {Site("Docs", "\\\\a\\Docs\\")}, {Site("Docs2", "\\\\a\\Docs\\", "SP")}, {}, {"Docs2"}},
      {"names of storages added by hand are not taken",
       {Site("Docs", "\\\\m\\", "CIFS", true), Site("Docs2", "\\\\n\\", "CIFS", true)},
       {Site("Docs", "\\\\a\\Docs\\"), Site("docs2", "\\\\b\\"), Site("New", "\\\\c\\")},
       {},
       {"(1) Docs", "(2) docs2", "New"}},
      {"the counter skips names in use",
       {Site("A", "\\\\m\\", "CIFS", true), Site("(1) A", "\\\\n\\", "CIFS", true)},
       {Site("A", "\\\\a\\")},
       {},
       {"(2) A"}},
      {"a change of case only is a rename", {Site("docs", "\\\\a\\d\\")}, {Site("Docs", "\\\\a\\x\\")},
       {{"docs", "Docs"}}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto plan = SyncManagerSettings::PlanStorageMerge(c.local, c.server);
    EXPECT_EQ(plan.renames, c.renames);
    std::vector<std::string> added;
    for (const auto& site : plan.added) added.push_back(site.Name);
    EXPECT_EQ(added, c.added);
  }
}

}  // namespace
