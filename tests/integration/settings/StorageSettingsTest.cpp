// Storages changed by hand and by the server's policy, and the selective sync
// tree filled from the server, against the local server.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "AsyncFileCommonPart.h"
#include "CVConfiguration.h"
#include "CVSelectiveSync.h"
#include "ClientServerFixture.h"
#include "LoginController.h"
#include "RecordFiles.h"
#include "SelectiveSyncTree.h"
#include "SettingsContext.h"
#include "StorageController.h"
#include "SyncManagerSettings.h"

namespace fs = std::filesystem;

namespace {

class StorageSettingsTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    policyFile_ = serverRoot_ / "alice.policy";
    auto options = DefaultOptions();
    options.policies.push_back({"alice", policyFile_});
    StartServer(options);
    WritePolicy("<Storage><Type>CIFS</Type><Name>Docs</Name><Path>" + server_->LocationOf("Docs") + "</Path></Storage>");
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
    auto result = login_.LoginMethodRun({server_->BaseUrl(), "alice", "secret", ""}, nullptr);
    ASSERT_EQ(result.outcome, LoginController::Outcome::SignedIn) << result.message;
  }
  void WritePolicy(const std::string& storages, const char* editable = "true") {
    WritePolicyFile(policyFile_, storages, editable);
  }
  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const auto& site : CVConfiguration::Instance().SitesCopy()) names.push_back(site->Name);
    return names;
  }
  StorageController::Form Form(const std::string& name, const std::string& url, const std::string& type) {
    StorageController::Form form;
    form.name = name;
    form.url = url;
    form.type = type;
    return form;
  }
  bool InTrash(const std::string& name) {
    const std::string trash = home_->path() + "/.local/share/Trash/files";
    if (!fs::exists(trash)) return false;
    for (const auto& entry : fs::recursive_directory_iterator(trash)) {
      if (entry.path().filename() == name) return true;
    }
    return false;
  }

  fs::path policyFile_;
  SettingsContext settings_{SyncControl::FilesOnly()};
  LoginController login_{settings_};
  StorageController storages_{settings_};
};

TEST_F(StorageSettingsTest, AStorageIsTestedBeforeItIsAdded) {
  const std::string team = server_->LocationOf("Team");
  struct Case {
    StorageController::Form form;
    const char* message;
  };
  StorageController::Form ownWithoutPassword = Form("Own", team, "SP");
  ownWithoutPassword.useAlterAuth = true;
  ownWithoutPassword.user = "alice";
  const Case cases[] = {
      {Form("Shared in", team, "SP"), StorageController::kReservedName},
      {Form(".hidden", team, "SP"), StorageController::kReservedName},
      {Form("docs", team, "SP"), StorageController::kNameExists},
      {Form("Extra", "\\\\devserver\\Team\\", "SP"), "Your URL is not correct for Sharepoint Storage."},
      {Form("Extra", "\\\\devserver\\Nope\\", "CIFS"), StorageController::kInvalidConnection},
      {Form("Extra", "", "SP"), StorageController::kEmptyField},
      {ownWithoutPassword, StorageController::kEmptyField},
  };
  for (const auto& c : cases) {
    auto result = storages_.saveChanges(c.form);
    EXPECT_FALSE(result.ok) << c.form.name;
    EXPECT_EQ(result.message, c.message) << c.form.name;
  }
  EXPECT_EQ(Names(), std::vector<std::string>{"Docs"});
  EXPECT_FALSE(CVSelectiveSync::Instance().GetSiteRulesByName("Extra"));

  ASSERT_TRUE(storages_.saveChanges(Form("Extra", team, "SP")).ok);
  auto extra = CVConfiguration::Instance().GetSiteByName("Extra");
  ASSERT_TRUE(extra);
  EXPECT_TRUE(extra->isManually);
  EXPECT_EQ(extra->Url, team);
  EXPECT_EQ(extra->UserName, "");  // tested with the account's credentials, stores none
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("Extra"));
}

TEST_F(StorageSettingsTest, ARenameCarriesTheFolderAndARemovalTrashesIt) {
  ASSERT_TRUE(storages_.saveChanges(Form("Extra", server_->LocationOf("Team"), "SP")).ok);
  const std::string file = home_->root() + "/Extra/plan.txt";
  fs::create_directories(home_->root() + "/Extra");
  std::ofstream(file) << "plan";
  CVFileWithAction item;
  item.nFilePath = file;
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(item, false));

  auto form = Form("Renamed", server_->LocationOf("Team"), "SP");
  form.editing = "Extra";
  ASSERT_TRUE(storages_.saveChanges(form).ok);
  EXPECT_TRUE(fs::exists(home_->root() + "/Renamed/plan.txt"));
  EXPECT_TRUE(RecordOf(home_->root() + "/Renamed/plan.txt"));
  EXPECT_FALSE(CVConfiguration::Instance().GetSiteByName("Renamed")->isManually);
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("Renamed"));

  ASSERT_TRUE(storages_.RemoveSite("renamed").ok);  // found by name, in any case
  EXPECT_EQ(Names(), std::vector<std::string>{"Docs"});
  EXPECT_FALSE(fs::exists(home_->root() + "/Renamed"));
  EXPECT_TRUE(InTrash("plan.txt"));
  EXPECT_FALSE(RecordOf(home_->root() + "/Renamed/plan.txt"));
  EXPECT_FALSE(CVSelectiveSync::Instance().GetSiteRulesByName("Renamed"));
  EXPECT_FALSE(storages_.RemoveSite("Renamed").ok);
}

TEST_F(StorageSettingsTest, APolicyThatLocksStoragesRefusesChanges) {
  WritePolicy("", "false");
  SyncManagerSettings manager(settings_);
  ASSERT_TRUE(manager.RetrieveSettings().ok);
  EXPECT_FALSE(CVConfiguration::Instance().Corvalink.EditableStorages);
  EXPECT_EQ(storages_.saveChanges(Form("Extra", server_->LocationOf("Team"), "SP")).message,
            StorageController::kNotEditable);
  EXPECT_EQ(storages_.RemoveSite("Docs").message, StorageController::kNotEditable);
  EXPECT_EQ(Names(), std::vector<std::string>{"Docs"});
}

TEST_F(StorageSettingsTest, RetrieveRenamesAndAddsWithoutTakingANameInUse) {
  ASSERT_TRUE(storages_.saveChanges(Form("Mine", server_->LocationOf("Team"), "SP")).ok);
  fs::create_directories(home_->root() + "/Docs");
  std::ofstream(home_->root() + "/Docs/kept.txt") << "kept";
  WritePolicy("<Storage><Type>CIFS</Type><Name>Documents</Name><Path>" + server_->LocationOf("Docs") +
              "</Path></Storage><Storage><Type>SP</Type><Name>Mine</Name><Path>https://devserver/Other/</Path>"
              "</Storage>");
  SyncManagerSettings manager(settings_);
  auto result = manager.RetrieveSettings();
  ASSERT_TRUE(result.ok) << result.message;
  EXPECT_EQ(result.message, SyncManagerSettings::kRetrieved);
  EXPECT_EQ(Names(), (std::vector<std::string>{"Documents", "Mine", "(1) Mine"}));
  EXPECT_TRUE(fs::exists(home_->root() + "/Documents/kept.txt"));
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("Documents"));
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("(1) Mine"));

  server_->Stop();
  EXPECT_EQ(manager.RetrieveSettings().message, SyncManagerSettings::kOffline);
}

TEST_F(StorageSettingsTest, TheTreeLoadsAFolderFromTheServerWhenItIsOpened) {
  PutServerFile("Docs", "A/x.txt", "x");
  PutServerFile("Docs", "B/y.txt", "y");
  PutServerFile("Docs", "top.txt", "t");
  SelectiveSyncTree tree("Docs");
  tree.loadChanges();
  ASSERT_TRUE(tree.root().NeedsLoading());
  ASSERT_TRUE(tree.loadFilesForExpandedItem(tree.root()));
  ASSERT_TRUE(tree.Find("A"));
  EXPECT_TRUE(tree.Find("A")->NeedsLoading());
  EXPECT_TRUE(tree.Find("top.txt"));
  ASSERT_TRUE(tree.loadFilesForExpandedItem(*tree.Find("A")));
  EXPECT_TRUE(tree.Find("A/x.txt"));
  // What was learnt stays known to the rule store.
  EXPECT_TRUE(CVSelectiveSync::Instance().GetSiteRulesByName("Docs")->ItemFoundForPath(home_->root() + "/Docs/A/x.txt"));
  tree.SetChecked(tree.root(), true);
  tree.SetChecked(*tree.Find("B"), false);
  tree.saveChanges(settings_.control());
  auto row = LoginController::RowForStorage("Docs", "CIFS");
  EXPECT_EQ(row.statusType, "(Custom sync)");
  EXPECT_EQ(row.iconStorage, "storage_sync_yellow");
}

}  // namespace
