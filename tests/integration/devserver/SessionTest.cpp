// Logins of the three kinds, the version, the device status, the system
// configuration, and what becomes of tokens.

#include <regex>

#include "DevServerFixture.h"

namespace {

const std::regex kLowerGuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");

const std::string kOptions =
    "<DeviceID>ABCDEF123456</DeviceID><DeviceType>macOSdesktop</DeviceType>"
    "<AppVersion>1.0</AppVersion><DeviceName>R&amp;D laptop</DeviceName>"
    "<DeviceSystem>OS X 6.1</DeviceSystem>";

class SessionTest : public DevServerTest {
 protected:
  std::string NewerLogin(const std::string& user, const std::string& password) {
    return Call("/share.asmx", "Login", {{"Username", user}, {"Password", password}},
                {{"Options", kOptions}});
  }
  std::string StorageLogin(const std::string& storage, const std::string& user,
                           const std::string& password, const std::string& cvToken) {
    return Call("/CorvalinkMobile.asmx", "Login",
                {{"Username", user},
                 {"Password", password},
                 {"StorageUrl", server_->LocationOf(storage)},
                 {"StorageType", "CIFS"},
                 {"CVToken", cvToken}});
  }
  std::string DeviceStatus(const std::string& token) {
    return Call("/CorvalinkWS.asmx", "GetDeviceStatus", {{"Token", token}});
  }
  std::string RootInfo(const std::string& token) {
    return Call("/CorvalinkMobile.asmx", "GetFileInfo",
                {{"Token", token}, {"Path", server_->LocationOf("Docs")}});
  }
};

TEST_F(SessionTest, BothMainLoginsGiveLowerCaseGuidsAndRefuseBadCredentials) {
  const auto older = MainToken();
  EXPECT_TRUE(std::regex_match(older, kLowerGuid)) << older;
  const auto newer = NewerLogin("alice", "secret");
  EXPECT_TRUE(std::regex_match(newer, kLowerGuid)) << newer;
  EXPECT_NE(older, newer);
  EXPECT_EQ(DeviceStatus(older), "1;A");
  EXPECT_EQ(DeviceStatus(newer), "1;A");

  // The device's record arrives whole, its escaped text read once.
  const auto sent = server_->LastRequest("share.asmx/Login");
  ASSERT_TRUE(sent);
  EXPECT_EQ(sent->Child("Options", "DeviceName"), "R&D laptop");
  EXPECT_EQ(sent->Child("Options", "DeviceSystem"), "OS X 6.1");

  EXPECT_EQ(MainToken("alice", "wrong").rfind("-1;", 0), 0u);
  EXPECT_EQ(MainToken("mallory", "secret").rfind("-1;", 0), 0u);
  EXPECT_EQ(NewerLogin("alice", "").rfind("-1;", 0), 0u);
  EXPECT_EQ(DeviceStatus("not-a-token"), "-1;Invalid token");
}

TEST_F(SessionTest, VersionDecidesWhetherTheNewerLoginExists) {
  EXPECT_EQ(Call("/CorvalinkWS.asmx", "GetVersion", {}), "6.1.0.0");
  server_->SetVersionReply("6.0.70");
  EXPECT_EQ(Call("/CorvalinkWS.asmx", "GetVersion", {}), "6.0.70");
  const auto refused = Post("/share.asmx", "Login", {{"Username", "alice"}, {"Password", "secret"}},
                            {{"Options", kOptions}});
  EXPECT_EQ(refused.status, 500);
  EXPECT_NE(refused.body.find("Fault"), std::string::npos);
  EXPECT_TRUE(std::regex_match(MainToken(), kLowerGuid));
  server_->SetVersionReply("6.0.71");
  EXPECT_TRUE(std::regex_match(NewerLogin("alice", "secret"), kLowerGuid));
}

TEST_F(SessionTest, StorageLoginChecksTheMainTokenAndTheRightCredentials) {
  const auto main = MainToken();
  const auto docs = StorageLogin("Docs", "alice", "secret", main);
  ASSERT_EQ(docs.rfind("0;", 0), 0u) << docs;
  EXPECT_TRUE(std::regex_match(docs.substr(2), kLowerGuid));

  EXPECT_EQ(StorageLogin("Docs", "alice", "secret", "00000000-0000-0000-0000-000000000000"),
            "-1;Invalid token");
  EXPECT_EQ(StorageLogin("Docs", "alice", "wrong", main), "-2;Login failed");
  // A storage with its own login takes that login and no other.
  EXPECT_EQ(StorageLogin("Vault", "alice", "secret", main), "-2;Login failed");
  EXPECT_EQ(StorageLogin("Vault", "vault", "open", main).rfind("0;", 0), 0u);
  // Only a main token opens a storage session; only a main token is "connected".
  EXPECT_EQ(StorageLogin("Docs", "alice", "secret", docs.substr(2)), "-1;Invalid token");
  EXPECT_EQ(DeviceStatus(docs.substr(2)), "-1;Invalid token");
  // Another user's storage is not there for alice.
  EXPECT_EQ(StorageLogin("Bobs", "alice", "secret", main), "-6;File/Folder not found;");
  EXPECT_EQ(StorageLogin("Bobs", "bob", "hunter2", MainToken("bob", "hunter2")).rfind("0;", 0), 0u);
}

TEST_F(SessionTest, EveryKindOfTokenOpensTheFileCallsOfItsUser) {
  const std::string guid = "5f0e4a2c-1b7d-4c1e-9a6f-3d2b8c7e6f10";
  server_->AddUploadRequest(guid, "alice");
  const auto main = MainToken();
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "LoginEx",
                 {{"ExternalGuid", "11111111-2222-3333-4444-555555555555"}, {"CVToken", main}})
                .rfind("-100;", 0),
            0u);
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "LoginEx", {{"ExternalGuid", guid}, {"CVToken", "x"}}),
            "-1;Invalid token");
  const auto request =
      Call("/CorvalinkMobile.asmx", "LoginEx", {{"ExternalGuid", guid}, {"CVToken", main}});
  ASSERT_EQ(request.rfind("0;", 0), 0u) << request;

  for (const auto& token : {main, StorageToken("Team"), request.substr(2)}) {
    EXPECT_TRUE(std::regex_match(token, kLowerGuid)) << token;
    EXPECT_EQ(RootInfo(token).rfind("0;D;0;", 0), 0u) << token;
  }
  // bob's token does not reach alice's storage; a token compares exactly.
  const auto bob = MainToken("bob", "hunter2");
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFileInfo",
                 {{"Token", bob}, {"Path", server_->LocationOf("Vault")}}),
            "-6;File/Folder not found;");
  std::string upper = main;
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(RootInfo(upper), "-1;Invalid token");
}

TEST_F(SessionTest, InvalidatedTokensAreRefusedByEveryCall) {
  const auto first = MainToken();
  const auto second = MainToken();
  const auto storage = StorageToken("Docs");
  PutFile("Docs", "a.txt", "abc");

  server_->InvalidateToken(first);
  EXPECT_EQ(DeviceStatus(first), "-1;Invalid token");
  EXPECT_EQ(DeviceStatus(second), "1;A");

  server_->InvalidateAllTokens();
  EXPECT_EQ(DeviceStatus(second), "-1;Invalid token");
  EXPECT_EQ(RootInfo(storage), "-1;Invalid token");
  EXPECT_EQ(
      Call("/CorvalinkMobile.asmx", "GetFiles",
           {{"Token", storage}, {"Path", server_->LocationOf("Docs")}, {"IsRecursive", "true"}}),
      "-1;Invalid token");
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetSystemConfig", {{"Token", storage}}),
            "-1;Invalid token");
  auto download = Download(storage, server_->LocationOf("Docs") + "a.txt");
  ASSERT_TRUE(download);
  EXPECT_EQ(download->status, 401);

  // A new login works at once.
  EXPECT_EQ(DeviceStatus(MainToken()), "1;A");
}

TEST_F(SessionTest, SystemConfigHasFiveFieldsFromTheOptions) {
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetSystemConfig", {{"Token", MainToken()}}),
            "0;0;txt,doc,docx,xls,xlsx,ppt,pptx,pdf,xml,html,csv;1024;0");
  auto options = DefaultOptions();
  options.compressedTypes = "doc,bmp";
  options.partSizeKb = 256;
  Restart(options);
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetSystemConfig", {{"Token", StorageToken("Docs")}}),
            "0;0;doc,bmp;256;0");
}

}  // namespace
