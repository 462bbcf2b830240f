// The SOAP plumbing (endpoints, envelopes, replies, faults), the test hooks, and
// the command line.

#include <regex>

#include "CommandLine.h"
#include "DevServerFixture.h"

namespace {

using devserver::Fault;

class PlumbingTest : public DevServerTest {};

TEST_F(PlumbingTest, EndpointsMatchWithoutCaseUnderAnyBasePath) {
  for (const char* path :
       {"/CorvalinkWS.asmx", "/CORVALINKWS.ASMX", "/corvalink/sync/corvalinkws.asmx"}) {
    EXPECT_EQ(Call(path, "GetVersion", {}), "6.1.0.0") << path;
  }
  EXPECT_EQ(Post("/Other.asmx", "GetVersion", {}).status, 404);
  // The same method name on another endpoint is another method.
  EXPECT_EQ(Post("/CorvalinkMobile.asmx", "GetVersion", {}).status, 500);
}

TEST_F(PlumbingTest, ParametersAreReadByLocalNameInAnyOrder) {
  PutFile("Docs", "a.txt", "abc");
  const auto token = StorageToken("Docs");
  const std::string envelope =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">\n"
      "  <soap:Body>\n"
      "    <m:GetFileInfo xmlns:m=\"http://tempuri.org/\">\n"
      "      <m:Path>\\\\devserver\\Docs\\a.txt</m:Path>\n"
      "      <m:Token>" +
      token +
      "</m:Token>\n"
      "    </m:GetFileInfo>\n"
      "  </soap:Body>\n"
      "</soap:Envelope>";
  auto res = client_->Post("/CorvalinkMobile.asmx", envelope, "text/xml; charset=utf-8");
  ASSERT_TRUE(res);
  EXPECT_EQ(ElementText(res->body, "GetFileInfoResult"), "0;F;3;1600000000");
  // An empty value as <X/>.
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token}, {"Path", ""}}),
            "-6;File/Folder not found;");
  const auto sent = server_->LastRequest("GetFileInfo");
  ASSERT_TRUE(sent);
  EXPECT_TRUE(sent->HasField("Path"));
  EXPECT_EQ(sent->Field("Path"), "");
  EXPECT_EQ(sent->Header("SOAPAction"), "http://tempuri.org/GetFileInfo");
  EXPECT_EQ(server_->CallCount("CorvalinkMobile.asmx/GetFileInfo"), 2);
}

TEST_F(PlumbingTest, RepliesAreCompactUtf8EscapedOnceAndNeverCompressed) {
  server_->FailNext("GetVersion", Fault::Result("-100;a&b <c> \"d\" ü"));
  const auto answer =
      Post("/CorvalinkWS.asmx", "GetVersion", {}, {}, {{"Accept-Encoding", "gzip, br"}});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.contentType, "text/xml; charset=utf-8");
  EXPECT_EQ(answer.contentEncoding, "");
  EXPECT_NE(answer.body.find(
                "<GetVersionResult>-100;a&amp;b &lt;c&gt; \"d\" \xC3\xBC</GetVersionResult>"),
            std::string::npos)
      << answer.body;
  EXPECT_EQ(ElementText(answer.body, "GetVersionResult"), "-100;a&b <c> \"d\" ü");
  EXPECT_FALSE(std::regex_search(answer.body, std::regex(">\\s+<"))) << answer.body;
  EXPECT_NE(answer.body.find("<GetVersionResponse xmlns=\"http://tempuri.org/\">"),
            std::string::npos);
}

TEST_F(PlumbingTest, UnknownMethodsAndBrokenEnvelopesAreSoapFaults) {
  auto expectFault = [](int status, const std::string& body, const std::string& code) {
    EXPECT_EQ(status, 500);
    EXPECT_EQ(ElementText(body, "faultcode"), code) << body;
    EXPECT_NE(ElementText(body, "faultstring"), "<missing>");
  };
  const auto unknown = Post("/CorvalinkMobile.asmx", "NoSuchMethod", {{"Token", MainToken()}});
  expectFault(unknown.status, unknown.body, "soap:Client");
  for (const std::string body :
       {"<Envelope><Body>", "<Envelope><Header/></Envelope>", "<Envelope><Body></Body></Envelope>",
        "<!DOCTYPE x [<!ENTITY a \"b\">]><Envelope><Body><GetVersion/></Body></Envelope>",
        "<NotAnEnvelope/>"}) {
    SCOPED_TRACE(body);
    auto res = client_->Post("/CorvalinkWS.asmx", body, "text/xml");
    ASSERT_TRUE(res);
    expectFault(res->status, res->body, "soap:Client");
  }
  // An injected 500 looks like a failing service; other statuses come bare.
  server_->FailNext("GetVersion", Fault::Status(500));
  server_->FailNext("GetVersion", Fault::Status(502));
  const auto failed = Post("/CorvalinkWS.asmx", "GetVersion", {});
  expectFault(failed.status, failed.body, "soap:Server");
  EXPECT_EQ(Post("/CorvalinkWS.asmx", "GetVersion", {}).status, 502);
  EXPECT_EQ(Call("/CorvalinkWS.asmx", "GetVersion", {}), "6.1.0.0");
}

TEST_F(PlumbingTest, DroppedSoapRepliesAndEveryCallFaults) {
  server_->FailNext("GetVersion", Fault::DropBeforeReply());
  EXPECT_FALSE(client_->Post("/CorvalinkWS.asmx", "<Envelope><Body><GetVersion/></Body></Envelope>",
                             "text/xml"));
  server_->FailNext("GetVersion", Fault::Drop(10));
  EXPECT_FALSE(client_->Post("/CorvalinkWS.asmx", "<Envelope><Body><GetVersion/></Body></Envelope>",
                             "text/xml"));
  server_->FailNext("GetVersion", Fault::Result("9.9"), -1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Call("/CorvalinkWS.asmx", "GetVersion", {}), "9.9");
  server_->ClearFaults();
  EXPECT_EQ(Call("/CorvalinkWS.asmx", "GetVersion", {}), "6.1.0.0");
  EXPECT_EQ(server_->CallCount("GetVersion"), 6);
}

TEST(DevServerOptions, NonLoopbackAddressesMustBeAllowed) {
  EXPECT_TRUE(devserver::IsLoopbackHost("127.0.0.1"));
  EXPECT_TRUE(devserver::IsLoopbackHost("127.8.9.10"));
  EXPECT_TRUE(devserver::IsLoopbackHost("::1"));
  EXPECT_FALSE(devserver::IsLoopbackHost("0.0.0.0"));
  EXPECT_FALSE(devserver::IsLoopbackHost("192.168.1.2"));
  EXPECT_FALSE(devserver::IsLoopbackHost("::"));
  devserver::ServerOptions options;
  options.host = "0.0.0.0";
  options.port = 0;
  EXPECT_THROW(devserver::DevServer{options}, std::invalid_argument);
}

TEST(DevServerCommandLine, ReadsStoragesFaultsAndTheRest) {
  const auto line =
      devserver::ParseCommandLine({"--listen",        "127.0.0.1:0",
                                   "--user",          "alice:se:cret",
                                   "--storage",       "Docs=/srv/docs",
                                   "--storage",       "Team=/srv/a,b,type=SP,user=alice,auth=t:p",
                                   "--version-reply", "6.0.70",
                                   "--part-size",     "256",
                                   "--restricted",    "Docs/Private/x",
                                   "--fail",          "GetFiles,2,result=-100;a,b",
                                   "--fail",          "DownloadStorageFile.ashx,*,drop=1024",
                                   "--fail",          "GetVersion,1,drop"});
  const auto& o = line.options;
  EXPECT_EQ(o.port, 0);
  EXPECT_EQ(o.users[0].password, "se:cret");
  EXPECT_EQ(o.storages[0].type, "CIFS");
  EXPECT_EQ(o.storages[1].folder, "/srv/a,b");
  EXPECT_EQ(o.storages[1].type, "SP");
  EXPECT_EQ(o.storages[1].users, std::vector<std::string>{"alice"});
  ASSERT_TRUE(o.storages[1].credentials);
  EXPECT_EQ(o.storages[1].credentials->name, "t");
  EXPECT_EQ(o.versionReply, "6.0.70");
  EXPECT_EQ(o.partSizeKb, 256);
  EXPECT_EQ(o.restricted[0].path, "Private/x");
  EXPECT_EQ(o.faults[0].count, 2);
  EXPECT_EQ(o.faults[0].fault.result, "-100;a,b");
  EXPECT_EQ(o.faults[1].count, -1);
  EXPECT_EQ(o.faults[1].fault.dropAfterBodyBytes, 1024u);
  EXPECT_FALSE(o.faults[2].fault.dropAfterBodyBytes.has_value());

  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"--storage", "Docs=/x"},
        {"--user", "alice"},
        {"--user", "a:b", "--listen", "127.0.0.1"},
        {"--user", "a:b", "--fail", "GetFiles,x,drop"},
        {"--user", "a:b", "--fail", "GetFiles,1,explode"},
        {"--user", "a:b", "--storage", "Docs"},
        {"--user", "a:b", "--storage", "Docs=/x,type=SP,colour=red"},
        {"--user", "a:b", "--bogus"}}) {
    EXPECT_THROW(devserver::ParseCommandLine(bad), std::invalid_argument) << bad.back();
  }
}

}  // namespace
