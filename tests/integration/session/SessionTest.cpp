#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "CVConfiguration.h"
#include "CVHandler.h"
#include "ClientServerFixture.h"
#include "CorvalinkWS.h"
#include "WSCommonMethods.h"
#include "WorkerThreads.h"

using devserver::Fault;

class SessionTest : public ClientServerTest {
 protected:
  CVHandler& handler() { return CVHandler::Instance(); }
};

TEST_F(SessionTest, MainLoginTellsTheServerAboutThisMachineAndIsCached) {
  handler().SetAppVersion("1.2.3");
  std::string token = handler().CheckCVToken(CVHandler::kMainTokenKey);
  EXPECT_TRUE(std::regex_match(token, std::regex("[0-9a-f-]{36}"))) << token;
  auto login = server_->LastRequest("share.asmx/Login");
  ASSERT_TRUE(login);
  EXPECT_EQ(login->Field("Username"), "alice");
  EXPECT_EQ(login->Child("Options", "DeviceType"), "macOSdesktop");
  EXPECT_EQ(login->Child("Options", "AppVersion"), "1.2.3");
  EXPECT_TRUE(std::regex_match(login->Child("Options", "DeviceID"), std::regex("[0-9A-F]{12}|")));
  EXPECT_EQ(login->Child("Options", "DeviceSystem").rfind("OS X ", 0), 0u);
  EXPECT_FALSE(login->Header("SOAPAction").empty());
  EXPECT_EQ(login->Header("SOAPAction"), "http://tempuri.org/Login");
  EXPECT_EQ(handler().devStatus(), "1;A");
  // What went on the wire is the envelope byte for byte, with its headers.
  auto status = server_->LastRequest("GetDeviceStatus");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->body, WSCommonMethods::BuildEnvelope("GetDeviceStatus", {{"Token", token}}));
  EXPECT_EQ(status->Header("Content-Type"), "text/xml; charset=utf-8");
  EXPECT_EQ(status->Header("SOAPAction"), "http://tempuri.org/GetDeviceStatus");
  EXPECT_EQ(status->Header("Content-Length"), std::to_string(status->body.size()));

  int calls = server_->CallCount("Login");
  EXPECT_EQ(handler().CheckCVToken(CVHandler::kMainTokenKey), token);  // no network
  EXPECT_EQ(server_->CallCount("Login"), calls);
}

TEST_F(SessionTest, OlderServersGetTheOlderLoginForm) {
  server_->SetVersionReply("6.0.70");
  std::string token = handler().CheckCVToken(CVHandler::kMainTokenKey);
  EXPECT_FALSE(token.empty());
  auto login = server_->LastRequest("CorvalinkWS.asmx/Login");
  ASSERT_TRUE(login);
  EXPECT_EQ(login->Field("DeviceType"), "macOSdesktop");
  EXPECT_TRUE(login->HasField("DeviceID"));
  EXPECT_EQ(server_->CallCount("share.asmx/Login"), 0);
}

TEST_F(SessionTest, StorageTokensAndADroppedMainTokenMidWay) {
  std::string docs = handler().CheckCVToken("Docs");
  ASSERT_FALSE(docs.empty());
  EXPECT_NE(docs, handler().CheckCVToken(CVHandler::kMainTokenKey));
  auto login = server_->LastRequest("CorvalinkMobile.asmx/Login");
  ASSERT_TRUE(login);
  EXPECT_EQ(login->Field("StorageUrl"), server_->LocationOf("Docs"));
  EXPECT_EQ(login->Field("StorageType"), "CIFS");

  // The server forgets the main token: the storage login answers "-1;", the main
  // key is dropped (not the storage's), and the second round logs in anew.
  server_->InvalidateAllTokens();
  int mainLogins = server_->CallCount("share.asmx/Login");
  handler().RemoveCVToken("Team");
  std::string team = handler().CheckCVToken("Team");
  EXPECT_FALSE(team.empty());
  EXPECT_EQ(server_->CallCount("share.asmx/Login"), mainLogins + 1);
}

TEST_F(SessionTest, UploadRequestKeysLogInWithLoginEx) {
  const std::string guid = "0f8fad5b-d9cb-469f-a165-70867728950e";
  server_->AddUploadRequest(guid, "alice");
  std::string token = handler().CheckCVToken(guid);
  EXPECT_FALSE(token.empty());
  EXPECT_EQ(server_->LastRequest("LoginEx")->Field("ExternalGuid"), guid);

  int calls = server_->CallCount("LoginEx");
  EXPECT_EQ(handler().CheckCVToken("not-a-storage-nor-request"), "");
  EXPECT_EQ(server_->CallCount("LoginEx"), calls + 1);  // one try, no more
}

TEST_F(SessionTest, SystemConfigGivesPartSizeAndCompressedTypes) {
  EXPECT_EQ(handler().GetPartSizeNSNumber(), 1024);
  EXPECT_NE(handler().GetCompressedTypesString().find("docx"), std::string::npos);
  EXPECT_TRUE(handler().isFileNeedToBeCompressed("doc"));  // a substring of "docx" counts
  EXPECT_FALSE(handler().isFileNeedToBeCompressed("bin"));
  int calls = server_->CallCount("GetSystemConfig");
  handler().isFileNeedToBeCompressed("pdf");
  EXPECT_EQ(server_->CallCount("GetSystemConfig"), calls);  // fetched once

  server_->FailNext("GetSystemConfig", Fault::Result("0;0;doc;0"), 2);  // four fields
  EXPECT_EQ(handler().GetPartSizeNSNumber(), 0);
  server_->FailNext("GetSystemConfig", Fault::Result("0;0;doc"), 2);  // three fields: no size
  EXPECT_EQ(handler().GetPartSizeNSNumber(), 0);
  server_->FailNext("GetSystemConfig", Fault::Result("0;0;doc"), 2);
  EXPECT_EQ(handler().GetCompressedTypesString(), "doc");
}

TEST_F(SessionTest, VersionLevelFollowsTheServer) {
  EXPECT_EQ(handler().GetWSVersion(), 4);
  server_->SetVersionReply("5.1.20");
  EXPECT_EQ(handler().GetWSVersion(), 4);  // cached
  handler().RunVersionWS();
  EXPECT_EQ(handler().GetWSVersion(), 2);
  server_->SetVersionReply("5");
  handler().RunVersionWS();
  EXPECT_EQ(handler().GetWSVersion(), 0);
}

TEST_F(SessionTest, FileInfoOfFilesFoldersAndMissingPaths) {
  PutServerFile("Docs", "report.txt", "12345", 1'650'000'000);
  std::string location = server_->LocationOf("Docs");
  auto fields = handler().GetFileInfo(location + "report.txt", "Docs");
  ASSERT_TRUE(fields);
  ASSERT_GE(fields->size(), 4u);
  EXPECT_EQ((*fields)[1], "F");
  EXPECT_EQ((*fields)[2], "5");
  EXPECT_EQ((*fields)[3], "1650000000");
  EXPECT_EQ(handler().GetFileInfoReturnForPath(location + "nothing.txt", "Docs"),
            "-6;File/Folder not found;");

  // A refused token is dropped and the call repeated once with a new one.
  server_->InvalidateAllTokens();
  EXPECT_EQ(handler().GetFileInfoReturnForPath(location + "report.txt", "Docs").rfind("0;F;5;", 0), 0u);
}

TEST_F(SessionTest, LoginTestGoesToTheServerUnderTestOnly) {
  // The saved server is an old one; the address under test is another, newer server.
  server_->SetVersionReply("6.0.70");
  devserver::ServerOptions other = DefaultOptions();
  other.users = {{"carol", "pa&ss"}};
  devserver::DevServer tested(other);
  tested.Start();

  std::string token = handler().TestLoginWithUrl(tested.BaseUrl(), "carol", "pa&ss");
  EXPECT_TRUE(std::regex_match(token, std::regex("[0-9a-f-]{36}"))) << token;
  EXPECT_EQ(tested.CallCount("share.asmx/Login"), 1);
  EXPECT_EQ(tested.LastRequest("share.asmx/Login")->Field("Password"), "pa&ss");
  EXPECT_EQ(server_->CallCount("GetVersion"), 0);
  EXPECT_EQ(server_->CallCount("Login"), 0);

  EXPECT_EQ(handler().TestLoginWithUrl(tested.BaseUrl(), "carol", "wrong"), "-1;");
  tested.Stop();
  EXPECT_EQ(handler().TestLoginWithUrl(tested.BaseUrl(), "carol", "pa&ss"), "-1;");
}

TEST_F(SessionTest, TransportFailuresComeBackAsErrTexts) {
  server_->FailNext("GetDeviceStatus", Fault::Status(500));
  handler().RegenWsURL();
  std::string reply = CorvalinkWS().GetDeviceStatus("x", handler().wsUrl());
  EXPECT_EQ(reply.rfind("errNon200 status code: (500)", 0), 0u) << reply;

  server_->Stop();
  EXPECT_EQ(handler().CheckCVToken(CVHandler::kMainTokenKey), "");
  reply = CorvalinkWS().GetDeviceStatus("x", handler().wsUrl());
  EXPECT_EQ(reply.rfind("errNon200 status code: (0)", 0), 0u) << reply;
}

// A call held by the server ends as soon as its thread's work is stopped, not at
// its time-out; once stopped, the thread sends nothing more.
TEST_F(SessionTest, AStoppedThreadsCallEndsAtOnceAndNothingMoreIsSent) {
  const std::string token = handler().CheckCVToken(CVHandler::kMainTokenKey);
  ASSERT_FALSE(token.empty());
  const std::string url = server_->BaseUrl() + "/share.asmx";
  server_->FailNext("GetDeviceStatus", Fault::Delay(std::chrono::minutes(10)));
  CancelFlag flag;
  std::string reply;
  std::thread caller([&] {
    CancelFlag::Binding binding(flag);
    reply = WSCommonMethods::ProcessWebServiceRequest({token}, {"Token"}, "GetDeviceStatus", url);
  });
  for (int waited = 0; server_->CallCount("GetDeviceStatus") == 0 && waited < 500; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(server_->CallCount("GetDeviceStatus"), 1);
  flag.Cancel();
  caller.join();  // would hang for the whole delay without the cancel
  EXPECT_EQ(reply, WSCommonMethods::kCancelledReply);

  CancelFlag::Binding binding(flag);
  EXPECT_EQ(WSCommonMethods::ProcessDataWebServiceRequest({token}, {"Token"}, "GetDeviceStatus", url),
            std::nullopt);
  EXPECT_EQ(server_->CallCount("GetDeviceStatus"), 1);
}
