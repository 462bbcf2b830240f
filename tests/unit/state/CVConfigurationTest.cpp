#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "CVConfiguration.h"
#include "CVStaticHelpers.h"
#include "TempHome.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {
std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void Write(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// The names of the leaf elements of a block, in document order.
std::vector<std::string> ElementNames(const std::string& xml, const std::string& block) {
  auto start = xml.find("<" + block + ">");
  auto end = xml.find("</" + block + ">");
  std::vector<std::string> names;
  if (start == std::string::npos || end == std::string::npos) return names;
  std::string inner = xml.substr(start, end - start);
  std::regex tag("<([A-Za-z]+)(?:>|/>)");
  for (auto it = std::sregex_iterator(inner.begin() + static_cast<long>(block.size()) + 2, inner.end(), tag);
       it != std::sregex_iterator(); ++it) {
    names.push_back((*it)[1]);
  }
  return names;
}

const std::vector<std::string> kUrElements = {
    "URExpireRequired", "UROtpRequired", "URNumberOfUploadRequired", "URNumberOfUpload",
    "URFileSizeRequired", "URFileSize", "URFileSizeMeasure", "URFileExtensionRequired",
    "URFileExtensions", "URUploadPath", "URUploadPathType"};

std::vector<std::string> WithUr(std::vector<std::string> head) {
  head.insert(head.end(), kUrElements.begin(), kUrElements.end());
  return head;
}

// A file in clear as an older client or a person would write it.
std::string ClearFile(const std::string& account, const std::string& sites) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<Configuration xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
         "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">\n"
         "  <Corvalink>" + account + "</Corvalink>\n  <SpSites>" + sites + "</SpSites>\n"
         "</Configuration>\n";
}

struct ConfigTest : ::testing::Test {
  TempHome home;
  std::string file = home.settings() + "/Configuration.xml";
  std::string side = home.settings() + "/.Hash/.AddStoragesInfo";
  CVConfiguration& Fresh() {
    CVConfiguration::ResetForTests();
    return CVConfiguration::Instance();
  }
};
}  // namespace

TEST_F(ConfigTest, FirstStartWritesTheNewFileInClearWithoutAskingTheServer) {
  int partSizeCalls = 0;
  auto& config = CVConfiguration::Instance();
  config.SetPartSizeSource([&] { ++partSizeCalls; return std::int64_t{2048}; });
  config.ReadConfigFromFile();

  std::string text = Read(file);
  EXPECT_NE(text.find("<Configuration xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
                      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"),
            std::string::npos);
  EXPECT_THAT(ElementNames(text, "Corvalink"),
              ElementsAreArray(WithUr({"Url", "UserName", "Password", "IsFirstRun", "SyncCV",
                                       "StorageType", "StoragesFolderPath", "EditableWS",
                                       "EditableStorages", "ExternalSharing", "InternalSharing",
                                       "iOSOpenIn", "OTPRequired", "EnableSMS", "NotificationTray",
                                       "LastSync", "PartSize", "ExpireRequired", "EmailDocument",
                                       "isUsingAD"})));
  EXPECT_NE(text.find("<IsFirstRun>true</IsFirstRun>"), std::string::npos);
  EXPECT_NE(text.find("<SyncCV>5</SyncCV>"), std::string::npos);
  EXPECT_NE(text.find("<StorageType>-1</StorageType>"), std::string::npos);
  EXPECT_NE(text.find("<PartSize>0</PartSize>"), std::string::npos);
  EXPECT_NE(text.find("<EditableStorages>true</EditableStorages>"), std::string::npos);
  EXPECT_TRUE(std::regex_search(text, std::regex("<SpSites(/>|></SpSites>)")));
  EXPECT_EQ(partSizeCalls, 0);
  EXPECT_EQ(config.Corvalink.PartSize, 1024);  // the object keeps its own values
  EXPECT_TRUE(fs::is_directory(side));

  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(stat(home.settings().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(ConfigTest, SecondStartEnciphersTheFileAndReadsItBackWhole) {
  Write(file, ClearFile("<Url>https://cv.example/</Url><UserName>alice</UserName>"
                        "<Password>p&amp;ss wörd</Password><IsFirstRun>false</IsFirstRun>"
                        "<SyncCV>7</SyncCV><LastSync>1700000000</LastSync>"
                        "<URNumberOfUpload>3</URNumberOfUpload><URFileExtensions>pdf,doc</URFileExtensions>"
                        "<DefaultURDuration>9</DefaultURDuration><IsValid>true</IsValid>",
                        "<CVSharepoint><Url>\\\\srv\\docs</Url><Name>Docs</Name>"
                        "<StorageType>CIFS</StorageType><UseAlterAuth>true</UseAlterAuth></CVSharepoint>"
                        "<CVSharepoint><Url>https://srv/team</Url><Name>Team</Name>"
                        "<StorageType>SharePoint</StorageType><SyncDelay>11</SyncDelay></CVSharepoint>"));
  auto& config = CVConfiguration::Instance();
  config.SetPartSizeSource([] { return std::int64_t{4096}; });
  config.ReadConfigFromFile();

  EXPECT_EQ(Read(file).find("Configuration xmlns"), std::string::npos);
  EXPECT_EQ(Read(file).size() % 16, 0u);
  EXPECT_EQ(config.Corvalink.Url, "https://cv.example/");
  EXPECT_EQ(config.Corvalink.UserName, "alice");
  EXPECT_EQ(config.Corvalink.Password, "p&ss wörd");
  EXPECT_FALSE(config.Corvalink.IsFirstRun);
  EXPECT_EQ(config.Corvalink.SyncCV, 7);
  EXPECT_EQ(config.Corvalink.LastSync, 1700000000);
  EXPECT_EQ(config.Corvalink.PartSize, 4096);
  EXPECT_EQ(config.Corvalink.RequestFileUpload.NumberOfUpload, 3);
  EXPECT_EQ(config.Corvalink.RequestFileUpload.FileExtensions, "pdf,doc");
  EXPECT_EQ(config.Corvalink.RequestFileUpload.DefaultURDuration, 9);
  ASSERT_EQ(config.fSpSites.size(), 2u);
  EXPECT_EQ(config.fSpSites[0]->Url, "\\\\srv\\docs\\");
  EXPECT_TRUE(config.fSpSites[0]->UseAlterAuth);
  EXPECT_EQ(config.fSpSites[1]->Url, "https://srv/team/");
  EXPECT_EQ(config.fSpSites[1]->SyncDelay, 11);
  EXPECT_EQ(Read(side + "/sharing_restricted_storages"), "Docs");
  EXPECT_EQ(Read(side + "/versions_enabled_storages"), "Docs");

  // A third start reads the enciphered file as it is.
  auto& again = Fresh();
  again.ReadConfigFromFile();
  EXPECT_EQ(again.Corvalink.Password, "p&ss wörd");
  ASSERT_EQ(again.fSpSites.size(), 2u);
  EXPECT_EQ(again.fSpSites[1]->Name, "Team");
}

TEST_F(ConfigTest, SaveWritesTheElementOrderAndEverythingReadsBack) {
  auto& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  config.Corvalink.Url = "https://cv.example/";
  config.Corvalink.UserName = "bob <admin>";
  config.Corvalink.Password = "s3cret\"'";
  config.Corvalink.IsFirstRun = false;
  config.Corvalink.EmailDocument = true;
  config.Corvalink.OTPRequiredShare = true;
  config.Corvalink.LastSync = 1234567890;
  config.Corvalink.ExternalSharing = false;
  config.Corvalink.RequestFileUpload.FileSizeMeasure = "MB";
  for (auto [name, url, type] : {std::tuple{"Docs", "\\\\srv\\docs\\", "CIFS"},
                                 std::tuple{"Cloud", "https://s3/bucket/", "AmazonS3"}}) {
    auto site = std::make_shared<CVSharepoint>();
    site->Name = name;
    site->Url = url;
    site->StorageType = type;
    site->isManually = true;
    config.fSpSites.push_back(site);
  }
  std::string text = config.SaveConfigXML();

  EXPECT_THAT(ElementNames(text, "Corvalink"),
              ElementsAreArray(WithUr({"Url", "UserName", "Password", "IsFirstRun", "SyncCV",
                                       "StorageType", "StoragesFolderPath", "EditableWS",
                                       "EditableStorages", "ExternalSharing", "InternalSharing",
                                       "EmailDocument", "iOSOpenIn", "OTPRequired", "EnableSMS",
                                       "NotificationTray", "LastSync", "PartSize", "ExpireRequired",
                                       "isUsingAD"})));
  EXPECT_THAT(ElementNames(text, "CVSharepoint"),
              ElementsAre("UseAlterAuth", "Url", "UserName", "Password", "Name", "SyncDelay",
                          "StorageType", "isInFavorites", "isManually"));
  EXPECT_EQ(Read(file).find("Configuration xmlns"), std::string::npos);
  EXPECT_FALSE(fs::exists(side + "/ext_sh"));
  EXPECT_EQ(Read(side + "/versions_enabled_storages"), "Docs");
  EXPECT_EQ(Read(side + "/sharing_restricted_storages"), "");

  // The key accepted for a server of its own authority comes last, when there is one.
  config.Corvalink.ServerKeyPin = "sha256//n4bQgYhMfWWaL+qgxVrQFaO/TxsrC4Is0V1sFbDwCgg=";
  EXPECT_EQ(ElementNames(config.SaveConfigXML(), "Corvalink").back(), "ServerKeyPin");

  auto& again = Fresh();
  again.ReadConfigFromFile();
  EXPECT_EQ(again.Corvalink.ServerKeyPin, "sha256//n4bQgYhMfWWaL+qgxVrQFaO/TxsrC4Is0V1sFbDwCgg=");
  EXPECT_EQ(again.Corvalink.UserName, "bob <admin>");
  EXPECT_EQ(again.Corvalink.Password, "s3cret\"'");
  EXPECT_TRUE(again.Corvalink.EmailDocument);
  EXPECT_TRUE(again.Corvalink.OTPRequiredShare);
  EXPECT_FALSE(again.Corvalink.ExternalSharing);
  EXPECT_EQ(again.Corvalink.LastSync, 1234567890);
  EXPECT_EQ(again.Corvalink.RequestFileUpload.FileSizeMeasure, "MB");
  ASSERT_EQ(again.fSpSites.size(), 2u);
  EXPECT_EQ(again.fSpSites[1]->StorageType, "AmazonS3");
  EXPECT_TRUE(again.fSpSites[1]->isManually);

  again.Corvalink.ExternalSharing = true;
  again.SaveConfigXML();
  EXPECT_TRUE(fs::exists(side + "/ext_sh"));
}

TEST_F(ConfigTest, OnlyTheWordTrueIsTrueAndUrlsGetTheirSeparator) {
  Write(file, ClearFile("<NotificationTray>TRUE</NotificationTray><EditableWS>yes</EditableWS>"
                        "<InternalSharing> true </InternalSharing><SyncCV>x</SyncCV>",
                        "<CVSharepoint><Url>\\\\srv\\a</Url><Name>A</Name></CVSharepoint>"
                        "<CVSharepoint><Url>https://srv/b</Url><Name>B</Name></CVSharepoint>"
                        "<CVSharepoint><Url>plain</Url><Name>C</Name><isInFavorites>true</isInFavorites></CVSharepoint>"
                        "<CVSharepoint><Url>https://srv\\mixed</Url><Name>D</Name></CVSharepoint>"));
  auto& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  EXPECT_FALSE(config.Corvalink.NotificationTray);
  EXPECT_FALSE(config.Corvalink.EditableWS);
  EXPECT_TRUE(config.Corvalink.InternalSharing);  // white space is cut first
  EXPECT_EQ(config.Corvalink.SyncCV, 0);
  ASSERT_EQ(config.fSpSites.size(), 4u);
  EXPECT_EQ(config.fSpSites[0]->Url, "\\\\srv\\a\\");
  EXPECT_EQ(config.fSpSites[1]->Url, "https://srv/b/");
  EXPECT_EQ(config.fSpSites[2]->Url, "plain");
  EXPECT_EQ(config.fSpSites[3]->Url, "https://srv\\mixed\\");
  // Favourites are looked up again at each read: no bookmark, no favourite.
  EXPECT_FALSE(config.fSpSites[2]->isInFavorites);
}

TEST_F(ConfigTest, NamesAreFoundInAnyCase) {
  auto& config = CVConfiguration::Instance();
  EXPECT_FALSE(config.isNameExists("docs"));
  auto site = std::make_shared<CVSharepoint>();
  site->Name = "Docs";
  config.fSpSites.push_back(site);
  auto request = std::make_shared<CVSharepoint>();
  request->Name = "Request 1";
  config.fSpSitestUploadRequest.push_back(request);
  EXPECT_EQ(config.GetSiteByName("dOCS"), site);
  EXPECT_TRUE(config.isNameExists("DOCS"));
  EXPECT_EQ(config.GetSiteByName("request 1"), request);  // searched after the storages
  EXPECT_FALSE(config.isNameExists("Request 1"));
  EXPECT_EQ(config.GetSiteByName("Docs2"), nullptr);
}

TEST_F(ConfigTest, OlderLayoutIsTakenOverAndStaleHashEntriesGo) {
  std::string old = home.root() + "/Settings";
  Write(old + "/Configuration.xml",
        ClearFile("<UserName>carol</UserName>", "<CVSharepoint><Name>Keep</Name></CVSharepoint>"));
  Write(old + "/.Hash/Removed/state", "x");
  Write(old + "/.Hash/Keep/state", "x");
  Write(old + "/.Hash/.private", "x");
  auto& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  EXPECT_FALSE(fs::exists(old));
  EXPECT_EQ(config.Corvalink.UserName, "carol");
  EXPECT_FALSE(fs::exists(home.settings() + "/.Hash/Removed"));
  EXPECT_TRUE(fs::exists(home.settings() + "/.Hash/Keep"));
  EXPECT_TRUE(fs::exists(home.settings() + "/.Hash/.private"));
  EXPECT_TRUE(fs::exists(side + "/versions_enabled_storages"));
}

TEST_F(ConfigTest, BrokenFileKeepsWhatWasReadAndNothingCrashes) {
  Write(file, "<?xml version=\"1.0\"?>\n<Configuration xmlns:xsd=\"x\"><Corvalink>"
              "<UserName>dave</UserName><SyncCV>9</Sync");
  auto& config = CVConfiguration::Instance();
  config.ReadConfigFromFile();
  EXPECT_EQ(config.Corvalink.UserName, "dave");
  EXPECT_TRUE(fs::exists(file));  // nothing is lost: the bytes stay for a later look

  // Bytes that decipher to nothing useful leave the object as it was.
  Write(file, std::string(64, '\x7f'));
  auto& fresh = Fresh();
  fresh.ReadConfigFromFile();
  EXPECT_EQ(fresh.Corvalink.UserName, "");
  EXPECT_EQ(fresh.Corvalink.SyncCV, 5);
}
