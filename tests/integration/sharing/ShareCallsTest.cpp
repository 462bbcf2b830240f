// The share calls as they go on the wire, byte for byte, with their headers and
// endpoints; what the client makes of the local server's answers.

#include <gtest/gtest.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "CVHandler.h"
#include "ClientServerFixture.h"
#include "CorvalinkWS.h"
#include "ServerState.h"

namespace {

std::string Envelope(const std::string& method, const std::string& inner) {
  return "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><" + method +
         " xmlns=\"http://tempuri.org/\" xmlns:i=\"http://www.w3.org/2001/XMLSchema-instance\">" + inner + "</" +
         method + "></s:Body></s:Envelope>";
}

const auto kNow = std::chrono::system_clock::from_time_t(1'600'000'000);

}  // namespace

class ShareCallsTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    file_ = home_->root() + "/Docs/a&b.txt";
    std::filesystem::create_directories(home_->root() + "/Docs");
    std::ofstream(file_) << "abc";
    utimbuf times{1'600'000'000, 1'600'000'000};
    utime(file_.c_str(), &times);
  }
  std::string file_;
};

TEST_F(ShareCallsTest, EveryCallGoesOutByteForByte) {
  RecipientName ann;
  ann.recName = "Ann & Co";
  ann.recEmail = "ann@example.com";
  ann.recMobile = "12345678";
  ann.recUserId = "7";
  const std::vector<RecipientName> to = {ann};
  const std::vector<std::string> files = {file_, home_->root() + "/Docs/gone.txt"};
  const std::string doc1 =
      "<Documents><ShareFileInfo><DocumentUrl>\\\\devserver\\Docs\\a&amp;b.txt</DocumentUrl><FileSize>3</FileSize>"
      "<LastModifiedUnixTime>1600000000</LastModifiedUnixTime></ShareFileInfo></Documents>";
  const std::string doc2 =
      "<Documents><ShareFileInfo><DocumentUrl>\\\\devserver\\Docs\\a&amp;b.txt</DocumentUrl><FileSize>3</FileSize>"
      "<LastModifiedDateTime>2020-09-13T12:26:40</LastModifiedDateTime>"
      "<LastModifiedUnixTime>1600000000</LastModifiedUnixTime><StorageType>CIFS</StorageType></ShareFileInfo>"
      "</Documents>";
  const std::string external = "<Recipients><ExternalRecipient><Fullname>Ann &amp; Co</Fullname>"
                               "<Email>ann@example.com</Email><Mobile>12345678</Mobile></ExternalRecipient></Recipients>";
  const std::string tail = "<Validity>24</Validity><Subject>S&lt;</Subject><Message/><Token>tok</Token>";
  const std::string recipientTail = "<Fullname>Ann &amp; Co</Fullname><Email>ann@example.com</Email>"
                                    "<Mobile>12345678</Mobile></ShareRecipientInfo></Recipients>";
  const std::string options =
      "<NumberOfDownload>0</NumberOfDownload><NewErrorCodes>true</NewErrorCodes>"
      "<SendAllNotifications>true</SendAllNotifications>";
  struct Case {
    const char* endpoint;
    const char* method;
    std::function<void(CorvalinkWS&)> call;
    std::string inner;
  } cases[] = {
      {"CorvalinkWS.asmx", "ShareFilesExternal",
       [&](CorvalinkWS& ws) { ws.ShareFilesExternal(files, to, 24, "S<", "", "tok"); }, doc1 + external + tail},
      {"CorvalinkWS.asmx", "ShareFilesExternal2",
       [&](CorvalinkWS& ws) { ws.ShareFilesExternal2(files, to, 24, "S<", "", "tok", true, false); },
       doc1 + external + tail + "<SendAllNotifications>false</SendAllNotifications><OtpRequired>true</OtpRequired>"},
      {"CorvalinkWS.asmx", "ShareFilesInternal",
       [&](CorvalinkWS& ws) { ws.ShareFilesInternal(files, to, 24, "S<", "", "tok"); },
       doc2 + "<Recipients><string>7</string></Recipients>" + tail},
      {"CorvalinkWS.asmx", "ShareFilesInternal2",
       [&](CorvalinkWS& ws) { ws.ShareFilesInternal2(files, to, 24, "S<", "", "tok"); },
       doc2 + "<Recipients><string>7</string></Recipients>" + tail},
      {"share.asmx", "ShareItems",
       [&](CorvalinkWS& ws) { ws.ShareFilesInternalViewOnly(files, to, 60, "unsent", "m", "tok", true, true, kNow); },
       "<Options>" + doc2 + "<Recipients><ShareRecipientInfo><UserId>0</UserId><IsExternal>false</IsExternal>"
       "<RecipientType>User</RecipientType><RecipientId>7</RecipientId>" + recipientTail + options +
       "<OtpRequired>false</OtpRequired><Mode>ViewOnly</Mode><DoNotSendEmail>false</DoNotSendEmail>"
       "<DoNotSendEmails>false</DoNotSendEmails><NoExpiry>false</NoExpiry><ExpiryDate>2020-09-13T13:28:40"
       "</ExpiryDate><Message>m</Message><Token>tok</Token></Options>"},
      {"share.asmx", "ShareItems",
       [&](CorvalinkWS& ws) {
         ws.ShareFilesExternalViewOnly({}, to, CorvalinkWS::kNoExpiry, "", "", "tok", true, true, false, kNow);
       },
       "<Options><Documents/><Recipients><ShareRecipientInfo><UserId>0</UserId><RecipientId>0</RecipientId>"
       "<IsExternal>true</IsExternal><RecipientType>User</RecipientType>" + recipientTail + options +
       "<OtpRequired>true</OtpRequired><Mode>Default</Mode><DoNotSendEmail>false</DoNotSendEmail>"
       "<DoNotSendEmails>false</DoNotSendEmails><NoExpiry>true</NoExpiry><ExpiryDate>2028-11-30T12:26:40"
       "</ExpiryDate><Message/><Token>tok</Token></Options>"},
      {"CorvalinkWS.asmx", "CreateUploadRequest",
       [&](CorvalinkWS& ws) {
         ws.CreateUploadRequestWithRecipient({{"Ann & Co", "ann@example.com", "", "1", "", nullptr}}, "tok", "S&1", 60, 0, "", -1,
                                             "", "false", "", "true", "false");
       },
       "<Token>tok</Token><Session>S&amp;1</Session><Recipients><ExternalRecipient><Fullname>Ann &amp; Co</Fullname>"
       "<Email>ann@example.com</Email><Mobile>1</Mobile></ExternalRecipient></Recipients><Validity>60</Validity>"
       "<FileSize>-1</FileSize><FileExtensions><string/></FileExtensions><NumberOfUpload>-1</NumberOfUpload>"
       "<Subject/><OtpRequired>false</OtpRequired><Message/><SendAllNotifications>true</SendAllNotifications>"
       "<UseCurrentSettings>false</UseCurrentSettings>"},
      {"CorvalinkWS.asmx", "CreateUploadRequest",
       [&](CorvalinkWS& ws) {
         ws.CreateUploadRequestWithRecipient({}, "tok", "S", 1, 2048, "pdf,doc", 3, "", "", "", "", "");
       },
       "<Token>tok</Token><Session>S</Session><Recipients/><Validity>1</Validity><FileSize>2048</FileSize>"
       "<FileExtensions><string>pdf</string><string>doc</string></FileExtensions><NumberOfUpload>3</NumberOfUpload>"
       "<Subject/><OtpRequired/><Message/><SendAllNotifications/><UseCurrentSettings/>"},
      {"CorvalinkWS.asmx", "DeleteUploadRequest", [&](CorvalinkWS& ws) { (void)ws.DeleteUploadRequest("tok", {"3", "4"}); },
       "<Token>tok</Token><RequestIDs><int>3</int><int>4</int></RequestIDs>"},
      {"CorvalinkWS.asmx", "ResendRequestEmail", [&](CorvalinkWS& ws) { ws.ResendRequestEmail("tok", {"3"}); },
       "<Token>tok</Token><RequestIDs><int>3</int></RequestIDs>"},
      {"CorvalinkWS.asmx", "GetUploadRequests", [&](CorvalinkWS& ws) { ws.GetUploadRequestsWithToken("tok"); },
       "<Token>tok</Token>"},
      {"CorvalinkWS.asmx", "ShareFilesExtend",
       [&](CorvalinkWS& ws) { ws.ShareFilesExtend("<int>4</int>", 24, "S<", "", "tok"); },
       "<ShareIDs><int>4</int></ShareIDs>" + tail},
      {"CorvalinkWS.asmx", "ShareFilesExtend",
       [&](CorvalinkWS& ws) { ws.ShareFilesExtend2({"4", "05"}, 24, "S<", "", "tok"); },
       "<ShareIDs><int>4</int><int>5</int></ShareIDs>" + tail},
      {"CorvalinkWS.asmx", "ShareFilesExtend2",
       [&](CorvalinkWS& ws) { ws.ShareFilesExtend2ws("g-1", 24, "S<", "", "tok"); },
       "<ShareGroupGuid>g-1</ShareGroupGuid>" + tail},
      {"CorvalinkWS.asmx", "DeleteSharedLink", [&](CorvalinkWS& ws) { ws.DeleteSharedLink("tok", "1;2"); },
       "<Token>tok</Token><SharedIDs>1;2</SharedIDs>"},
      {"CorvalinkWS.asmx", "DeleteSharedLink2", [&](CorvalinkWS& ws) { ws.DeleteSharedLink2("g-1", "tok"); },
       "<ShareGroupGuid>g-1</ShareGroupGuid><Token>tok</Token>"},
      {"CorvalinkWS.asmx", "ResendEmail", [&](CorvalinkWS& ws) { ws.ResendEmailShared("tok", "3"); },
       "<Token>tok</Token><SharedIDs>3</SharedIDs>"},
      {"CorvalinkWS.asmx", "FindUsers", [&](CorvalinkWS& ws) { ws.FindUsers("a&", "tok"); },
       "<queryStr>a&amp;</queryStr><Token>tok</Token>"},
      {"CorvalinkWS.asmx", "FindUsers2", [&](CorvalinkWS& ws) { ws.FindUsers2("an", "tok", 2, true); },
       "<queryStr>an</queryStr><Token>tok</Token><pageNum>2</pageNum><crossDomain>true</crossDomain>"},
      {"share.asmx", "GetUsersToShare", [&](CorvalinkWS& ws) { ws.GetUsersToShare("an", true, false, "tok"); },
       "<Options><Token>tok</Token><NewErrorCodes>true</NewErrorCodes><OnlyExternalUsers>false</OnlyExternalUsers>"
       "<OnlyInternalUsers>true</OnlyInternalUsers><FilterInternalDuplicatesEx>true</FilterInternalDuplicatesEx>"
       "<FilterQuery>an</FilterQuery></Options>"},
      {"CorvalinkWS.asmx", "GetFileList", [&](CorvalinkWS& ws) { ws.GetFileList("tok"); }, "<Token>tok</Token>"},
      {"CorvalinkWS.asmx", "GetFileList", [&](CorvalinkWS& ws) { ws.GetFileList("tok", "\\\\s\\R&D", "9"); },
       "<Token>tok</Token><Path>\\\\s\\R&amp;D</Path><ShareId>9</ShareId>"},
      {"CorvalinkWS.asmx", "GetMyFileList", [&](CorvalinkWS& ws) { ws.GetMyFileList("tok"); },
       "<Token>tok</Token>"},
      {"CorvalinkWS.asmx", "GetMyFileList",
       [&](CorvalinkWS& ws) { ws.GetMyFileList("tok", "/p", std::nullopt); },
       "<Token>tok</Token><Path>/p</Path><ShareId/>"},
      {"CorvalinkWS.asmx", "GetUsageHistory", [&](CorvalinkWS& ws) { ws.GetUsageHistory("tok", "1"); },
       "<Token>tok</Token><pageNum>1</pageNum>"},
  };
  CorvalinkWS ws;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.inner);
    server_->ClearRequests();
    c.call(ws);
    auto sent = server_->LastRequest(std::string(c.endpoint) + "/" + c.method);
    ASSERT_TRUE(sent) << c.method;
    EXPECT_EQ(sent->body, Envelope(c.method, c.inner));
    EXPECT_EQ(sent->Header("SOAPAction"), std::string("http://tempuri.org/") + c.method);
    EXPECT_EQ(sent->Header("Content-Length"), std::to_string(sent->body.size()));
  }
}

TEST_F(ShareCallsTest, TheLocalServerKeepsListsExtendsAndEndsShares) {
  auto options = DefaultOptions();
  options.users.push_back({"bob", "pw"});
  StartServer(options);
  ConfigureAccount();
  PutServerFile("Docs", "a&b.txt", "abc");
  std::ofstream(home_->root() + "/Docs/local-only.txt") << "x";
  const std::string token = CVHandler::Instance().CheckCVToken(CVHandler::kMainTokenKey);
  const std::string bobToken = server_->state().tokens().Issue("bob", devserver::TokenKind::Main);
  CorvalinkWS ws;

  auto users = ws.GetUsersToShare("BO", true, false, token).GetRecipientItemCollection();
  ASSERT_EQ(users.size(), 1u);
  EXPECT_EQ(users[0].eMail, "bob@devserver");
  EXPECT_EQ(ws.FindUsers("bob", token), "1;1;bob@devserver;bob");
  EXPECT_EQ(ws.FindUsers2("zz", token, 0, false)->GetUserDataCollection().size(), 0u);

  // What a share call answers: refused without a valid token, for an item the
  // server does not hold, for nothing to share; shared otherwise.
  RecipientName bob = *users[0].selfRec;
  RecipientName outside;
  outside.recName = "Out";
  outside.recEmail = "out@example.com";
  struct Case {
    std::vector<std::string> files;
    std::string token;
    bool external;
    std::string result;
  } cases[] = {
      {{file_}, "bad", false, "-1"},
      {{home_->root() + "/Docs/local-only.txt"}, token, false, "-6"},
      {{home_->root() + "/Docs/gone.txt"}, token, false, "-6"},
      {{file_}, token, false, "0"},
      {{file_}, token, true, "0"},
  };
  for (const auto& c : cases) {
    std::string result =
        c.external ? ws.ShareFilesExternalViewOnly(c.files, {outside}, CorvalinkWS::kNoExpiry, "", "", c.token, false,
                                                   true, false)
                   : ws.ShareFilesInternalViewOnly(c.files, {bob}, 60, "", "hi", c.token, true, false);
    EXPECT_EQ(result, c.result) << c.files[0] << " " << c.token;
  }
  auto mine = ws.GetMyFileList(token).GetFilePropertyCollection();
  ASSERT_EQ(mine.size(), 2u);
  EXPECT_EQ(mine[0].file_name, "a&b.txt");
  EXPECT_TRUE(mine[0].expire_at.has_value());
  EXPECT_FALSE(mine[1].expire_at.has_value());  // no expiry
  EXPECT_EQ(mine[1].isExternal, "true");
  auto received = ws.GetFileList(bobToken).GetFilePropertyCollection();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].share_id, mine[0].share_id);
  EXPECT_EQ(ws.GetUsageHistory(token, "0").GetUsageHistoryCollection().size(), 2u);

  EXPECT_EQ(ws.ShareFilesExtend2({mine[0].share_id}, CorvalinkWS::kNoExpiry, "", "", token), "0;");
  EXPECT_FALSE(ws.GetMyFileList(token, "", mine[0].share_id).GetFilePropertyCollection()[0].expire_at.has_value());
  EXPECT_TRUE(ws.ResendEmailShared(token, mine[0].share_id));
  EXPECT_FALSE(ws.ResendEmailShared("bad", mine[0].share_id));
  EXPECT_FALSE(ws.ResendEmailShared(token, "999"));  // not a share of the caller's
  EXPECT_TRUE(ws.DeleteSharedLink(token, mine[0].share_id + ";999"));
  EXPECT_EQ(ws.DeleteSharedLink2(mine[1].shareGroup, token), "0;");
  EXPECT_EQ(ws.DeleteSharedLink2(mine[1].shareGroup, token), "-6;Share not found;");
  EXPECT_TRUE(ws.GetMyFileList(token).GetFilePropertyCollection().empty());

  // A status outside 2xx stands as "-200"; a search that fails is an empty list.
  server_->FailNext("ShareItems", devserver::Fault::Status(500));
  EXPECT_EQ(ws.ShareFilesInternalViewOnly({file_}, {bob}, 60, "", "", token, true, false), "-200");
  server_->FailNext("GetUsersToShare", devserver::Fault::Status(300));
  EXPECT_TRUE(ws.GetUsersToShare("bo", true, false, token).GetUserDataCollection().empty());
  server_->FailNext("FindUsers2", devserver::Fault::DropBeforeReply(), -1);  // the engine tries twice
  EXPECT_FALSE(ws.FindUsers2("bo", token, 0, false).has_value());

  // Upload requests: only "0;" and "0" delete; a request made answers "", a refusal its text.
  for (const auto& [answer, deleted] : std::vector<std::pair<std::string, bool>>{
           {"0;", true}, {"0", true}, {"0;anything", false}, {"-1;Invalid token", false}}) {
    server_->FailNext("DeleteUploadRequest", devserver::Fault::Result(answer));
    EXPECT_EQ(ws.DeleteUploadRequest(token, {"1"}), deleted) << answer;
  }
  EXPECT_FALSE(ws.ResendRequestEmail(token, {"999"}));  // not a request of the caller's
  for (const auto& [answer, result] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"0;", ""}, {"-3;Too many uploads", "-3;Too many uploads"}}) {
    server_->FailNext("CreateUploadRequest", devserver::Fault::Result(answer));
    EXPECT_EQ(ws.CreateUploadRequestWithRecipient({}, token, "S", 1, 0, "", 1, "", "", "", "", ""), result) << answer;
  }
  server_->FailNext("CreateUploadRequest", devserver::Fault::Status(500));
  EXPECT_EQ(ws.CreateUploadRequestWithRecipient({}, token, "S", 1, 0, "", 1, "", "", "", "", ""), "-200");
}
