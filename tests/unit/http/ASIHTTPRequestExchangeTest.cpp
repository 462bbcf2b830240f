// One request, one response: what goes out on the wire and what the caller reads.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "ASIFormDataRequest.h"
#include "ASIHTTPRequest.h"
#include "HttpTestServers.h"
#include "HttpTestSupport.h"
#include "TempHome.h"

namespace fs = std::filesystem;

namespace {

class ExchangeTest : public ::testing::Test {
 protected:
  TempHome home;
};

std::string Reply(const std::string& head, const std::string& body = "") {
  return "HTTP/1.1 " + head + "\r\n" + body;
}

}  // namespace

TEST_F(ExchangeTest, PostBodyAndHeadersArriveAsSent) {
  LoopbackServer server;
  std::mutex mutex;
  httplib::Request seen;
  server.server().Post("/CorvalinkWS.asmx", [&](const httplib::Request& req, httplib::Response& res) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      seen = req;
    }
    res.set_header("X-Answer", "42");
    res.set_content("<GetVersionResult>6.1</GetVersionResult>", "text/xml; charset=utf-8");
  });
  server.Start();

  const std::string envelope =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope><s:Body><GetVersion "
      "xmlns=\"http://corvalink.example/\"/></s:Body></s:Envelope>";
  auto request = ASIHTTPRequest::requestWithURL(server.URL("/CorvalinkWS.asmx"));
  EventRecorder recorder;
  request->setDelegate(&recorder);
  request->setRequestMethod("POST");
  request->addRequestHeader("Content-Type", "text/xml; charset=utf-8");
  request->addRequestHeader("SOAPAction", "http://corvalink.example/GetVersion");
  request->addRequestHeader("Content-Length", std::to_string(envelope.size()));
  request->appendPostData(envelope);
  request->startSynchronous();

  EXPECT_EQ(recorder.Events(), (std::vector<std::string>{"started", "headers", "finished"}));
  EXPECT_FALSE(request->error());
  EXPECT_EQ(request->responseStatusCode(), 200);
  EXPECT_EQ(request->responseStatusMessage(), "HTTP/1.1 200 OK");
  EXPECT_EQ(request->responseHeaders().valueForKey("x-answer"), "42");
  EXPECT_EQ(request->responseHeaders().valueForKey("CONTENT-TYPE"), "text/xml; charset=utf-8");
  EXPECT_EQ(request->responseString(), "<GetVersionResult>6.1</GetVersionResult>");

  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.body, envelope);
  EXPECT_EQ(seen.get_header_value("SOAPAction"), "http://corvalink.example/GetVersion");
  EXPECT_EQ(seen.get_header_value("Content-Type"), "text/xml; charset=utf-8");
  EXPECT_EQ(seen.get_header_value("Content-Length"), std::to_string(envelope.size()));
  EXPECT_EQ(seen.get_header_value("Accept-Encoding"), "gzip");
  EXPECT_FALSE(seen.has_header("Expect"));
  EXPECT_TRUE(std::regex_match(seen.get_header_value("User-Agent"),
                               std::regex(R"(Corvalink Sync \S+ \([^;]+; \S+ \S*; \S+\))")))
      << seen.get_header_value("User-Agent");
}

TEST_F(ExchangeTest, HttpErrorStatusesFinishWithTheirStatusAndBody) {
  LoopbackServer server;
  server.server().Get(R"(/status/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
    res.status = std::stoi(req.matches[1]);
    res.set_content("status " + std::string(req.matches[1]), "application/octet-stream");
  });
  server.Start();
  for (int status : {401, 404, 500}) {
    auto request = ASIHTTPRequest::requestWithURL(server.URL("/status/" + std::to_string(status)));
    EventRecorder recorder;
    request->setDelegate(&recorder);
    request->startSynchronous();
    EXPECT_EQ(recorder.Events().back(), "finished") << status;
    EXPECT_FALSE(request->error()) << status;
    EXPECT_EQ(request->responseStatusCode(), status);
    EXPECT_EQ(request->responseString(), "status " + std::to_string(status));
  }
}

TEST_F(ExchangeTest, ADelegateThatThrowsIsLoggedAndTheRequestGoesOn) {
  RawServer server([](int fd, const std::string&) {
    RawServer::Send(fd, Reply("200 OK\r\nContent-Length: 5\r\nConnection: close\r\n", "hello"));
  });
  auto request = ASIHTTPRequest::requestWithURL(server.URL("/x"));
  int finished = 0;
  request->setDidReceiveResponseHeadersSelector(
      [](ASIHTTPRequest&, const ASIHeaderFields&) { throw std::runtime_error("boom"); });
  request->setDidReceiveDataSelector(
      [](ASIHTTPRequest&, std::string_view) { throw std::runtime_error("bang"); });
  request->setDidFinishSelector([&](ASIHTTPRequest&) { ++finished; });
  request->startSynchronous();
  EXPECT_EQ(finished, 1);
  EXPECT_FALSE(request->error());
  std::string log = home.ReadLog("CVExceptionLogs");
  EXPECT_NE(log.find("ASIHTTPRequest - requestDidReceiveResponseHeaders -|*Exception: boom"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("ASIHTTPRequest - requestDidReceiveData -|*Exception: bang"), std::string::npos);
}

TEST_F(ExchangeTest, FormValuesAreEncodedAndReplacedAndTheCallersRangeStands) {
  RawServer server([](int fd, const std::string&) {
    RawServer::Send(fd, Reply("200 OK\r\nContent-Length: 2\r\nConnection: close\r\n", "ok"));
  });
  auto request = ASIFormDataRequest::requestWithURL(server.URL("/DownloadStorageFile.ashx"));
  request->setPostValue("stale", "token");
  request->setPostValue("tok+en/1", "token");
  request->setPostValue("\\\\devserver\\Docs\\a b&c=d?é~.txt", "path");
  request->addRequestHeader("Range", "0-");
  request->startSynchronous();

  ASSERT_EQ(request->responseStatusCode(), 200);
  ASSERT_EQ(server.Requests().size(), 1u);
  const std::string sent = server.Requests()[0];
  EXPECT_EQ(sent.rfind("POST /DownloadStorageFile.ashx HTTP/1.1\r\n", 0), 0u) << sent;
  EXPECT_EQ(RawServer::HeaderValue(sent, "Content-Type"),
            "application/x-www-form-urlencoded; charset=utf-8");
  EXPECT_EQ(RawServer::HeaderValue(sent, "Range"), "0-");
  std::string body = sent.substr(sent.find("\r\n\r\n") + 4);
  EXPECT_EQ(body,
            "token=tok%2Ben%2F1&path=%5C%5Cdevserver%5CDocs%5Ca%20b%26c%3Dd%3F%C3%A9%7E.txt");
}

TEST_F(ExchangeTest, RangeGoesOutRawEvenWhenEmpty) {
  RawServer server([](int fd, const std::string&) {
    RawServer::Send(fd, Reply("206 Partial Content\r\nContent-Length: 2\r\nConnection: close\r\n", "ok"));
  });
  for (const std::string range : {"10-", "", "bytes=4-8", "0-100"}) {
    auto request = ASIHTTPRequest::requestWithURL(server.URL("/file"));
    request->addRequestHeader("Range", range);
    request->startSynchronous();
    EXPECT_EQ(request->responseStatusCode(), 206) << range;
  }
  auto sent = server.Requests();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(RawServer::HeaderValue(sent[0], "Range"), "10-");
  EXPECT_NE(sent[1].find("\r\nRange:\r\n"), std::string::npos) << sent[1];
  EXPECT_EQ(RawServer::HeaderValue(sent[2], "Range"), "bytes=4-8");
  EXPECT_EQ(RawServer::HeaderValue(sent[3], "Range"), "0-100");
}

TEST_F(ExchangeTest, GzipBodiesAreInflatedOnceWhateverTheFraming) {
  const std::string text = "<Files>" + std::string(20000, 'x') + "é</Files>";
  const std::string gz = Gzip(text);
  std::string chunked;
  for (std::size_t at = 0; at < gz.size(); at += 1000) {
    std::string piece = gz.substr(at, 1000);
    char size[16];
    std::snprintf(size, sizeof size, "%zx", piece.size());
    chunked += std::string(size) + "\r\n" + piece + "\r\n";
  }
  chunked += "0\r\n\r\n";
  struct Case {
    const char* name;
    std::string reply;
  } cases[] = {
      {"with length", Reply("200 OK\r\nContent-Encoding: gzip\r\nContent-Type: text/xml; "
                            "charset=utf-8\r\nContent-Length: " +
                                std::to_string(gz.size()) + "\r\nConnection: close\r\n",
                            gz)},
      {"until close", Reply("200 OK\r\nContent-Encoding: gzip\r\nContent-Type: text/xml; "
                            "charset=utf-8\r\nConnection: close\r\n",
                            gz)},
      {"chunked", Reply("200 OK\r\nContent-Encoding: gzip\r\nContent-Type: text/xml; "
                        "charset=utf-8\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n",
                        chunked)},
  };
  for (const Case& c : cases) {
    RawServer server([&](int fd, const std::string&) { RawServer::Send(fd, c.reply); });
    auto request = ASIHTTPRequest::requestWithURL(server.URL("/list"));
    request->startSynchronous();
    ASSERT_FALSE(request->error()) << c.name << ": " << request->error()->description();
    EXPECT_TRUE(request->isResponseCompressed()) << c.name;
    EXPECT_EQ(request->rawResponseData(), gz) << c.name;
    EXPECT_EQ(request->responseData(), text) << c.name;
    EXPECT_EQ(request->responseString(), text) << c.name;
    EXPECT_EQ(RawServer::HeaderValue(server.Requests()[0], "Accept-Encoding"), "gzip");
  }
}

TEST_F(ExchangeTest, DataEventsGetCompressedBytesUnlessInflatingAsTheyCome) {
  const std::string text(100000, 'a');
  const std::string gz = Gzip(text);
  RawServer server([&](int fd, const std::string&) {
    RawServer::Send(fd, Reply("200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
                                  std::to_string(gz.size()) + "\r\nConnection: close\r\n",
                              gz));
  });
  for (bool wait : {true, false}) {
    auto request = ASIHTTPRequest::requestWithURL(server.URL("/file"));
    request->setShouldWaitToInflateCompressedResponses(wait);
    std::string received;
    request->setDidReceiveDataSelector(
        [&](ASIHTTPRequest&, std::string_view data) { received.append(data); });
    request->startSynchronous();
    ASSERT_FALSE(request->error());
    EXPECT_EQ(received, wait ? gz : text);
    EXPECT_TRUE(request->responseData().empty()) << "data events take the body";
  }
}

TEST_F(ExchangeTest, BrokenGzipFailsAndPlainRequestsAskForNoCompression) {
  std::string gz = Gzip(std::string(5000, 'q'));
  std::string cut = gz.substr(0, gz.size() / 2);
  RawServer server([&](int fd, const std::string&) {
    RawServer::Send(fd, Reply("200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
                                  std::to_string(cut.size()) + "\r\nConnection: close\r\n",
                              cut));
  });
  auto request = ASIHTTPRequest::requestWithURL(server.URL("/list"));
  request->setAllowCompressedResponse(false);
  request->startSynchronous();
  ASSERT_TRUE(request->error());
  EXPECT_EQ(request->error()->code(), ASIError::ASICompressionError);
  EXPECT_EQ(request->responseStatusCode(), 200);
  EXPECT_EQ(RawServer::HeaderValue(server.Requests()[0], "Accept-Encoding"), "<missing>");
}

TEST_F(ExchangeTest, BrokenConnectionsAndBadURLsFailWithTheirCodes) {
  struct Case {
    const char* name;
    std::string reply;
  } drops[] = {
      {"closed without a reply", ""},
      {"body cut short", Reply("200 OK\r\nContent-Length: 1000\r\n", "only a little")},
      {"garbage instead of a status line", "this is not HTTP at all\r\n\r\n"},
  };
  for (const Case& c : drops) {
    RawServer server([&](int fd, const std::string&) { RawServer::Send(fd, c.reply); });
    auto request = ASIHTTPRequest::requestWithURL(server.URL("/x"));
    EventRecorder recorder;
    request->setDelegate(&recorder);
    request->startSynchronous();
    ASSERT_TRUE(request->error()) << c.name;
    EXPECT_EQ(request->error()->code(), ASIError::ASIConnectionFailureErrorType) << c.name;
    EXPECT_EQ(request->error()->localizedDescription(), "A connection failure occurred");
    EXPECT_EQ(request->responseStatusCode(), 0) << c.name;
    EXPECT_EQ(recorder.Events().back(), "failed") << c.name;
  }

  int closedPort;
  {
    RawServer gone([](int, const std::string&) {});
    closedPort = gone.port();
  }
  auto refused = ASIHTTPRequest::requestWithURL("http://127.0.0.1:" + std::to_string(closedPort) + "/");
  refused->startSynchronous();
  ASSERT_TRUE(refused->error());
  EXPECT_EQ(refused->error()->code(), ASIError::ASIConnectionFailureErrorType);

  for (const char* url : {"not a url", "ftp://127.0.0.1/file", ""}) {
    auto bad = ASIHTTPRequest::requestWithURL(url);
    EventRecorder recorder;
    bad->setDelegate(&recorder);
    bad->startSynchronous();
    ASSERT_TRUE(bad->error()) << url;
    EXPECT_EQ(bad->error()->code(), ASIError::ASIUnableToCreateRequestErrorType) << url;
    EXPECT_EQ(bad->error()->localizedDescription(), "Unable to create request (bad url?)");
    EXPECT_EQ(recorder.Events(), (std::vector<std::string>{"started", "failed"})) << url;
  }

  // A header value that would start a header of its own is never sent.
  RawServer quiet([](int, const std::string&) {});
  auto injected = ASIHTTPRequest::requestWithURL(quiet.URL("/x"));
  injected->addRequestHeader("SOAPAction", "urn:a\r\nX-Evil: 1");
  injected->startSynchronous();
  ASSERT_TRUE(injected->error());
  EXPECT_EQ(injected->error()->code(), ASIError::ASIUnableToCreateRequestErrorType);
  EXPECT_EQ(quiet.Connections(), 0);
}

TEST_F(ExchangeTest, DownloadsToAFileOnlyOnSuccessAndResumesFromTheTemporaryFile) {
  const std::string content = RandomBytes(300000);
  LoopbackServer server;
  std::string lastRange;
  server.server().Get("/file", [&](const httplib::Request& req, httplib::Response& res) {
    // The server library answers a Range itself, with a 206 of that part.
    lastRange = req.get_header_value("Range");
    res.set_content(content, "application/octet-stream");
  });
  server.server().Get("/missing", [](const httplib::Request&, httplib::Response& res) {
    res.status = 404;
    res.set_content("no such file", "text/plain");
  });
  server.Start();
  std::string destination = home.path() + "/target.bin";

  auto whole = ASIHTTPRequest::requestWithURL(server.URL("/file"));
  whole->setDownloadDestinationPath(destination);
  whole->startSynchronous();
  ASSERT_FALSE(whole->error()) << whole->error()->description();
  EXPECT_TRUE(ReadFile(destination) == content);
  EXPECT_FALSE(fs::exists(destination + ".download"));
  EXPECT_TRUE(whole->responseData().empty());

  fs::remove(destination);
  auto missing = ASIHTTPRequest::requestWithURL(server.URL("/missing"));
  missing->setDownloadDestinationPath(destination);
  missing->startSynchronous();
  EXPECT_EQ(missing->responseStatusCode(), 404);
  EXPECT_FALSE(fs::exists(destination)) << "an error page is no download";
  EXPECT_EQ(missing->responseString(), "no such file");

  WriteFile(destination + ".download", content.substr(0, 1000));
  auto resumed = ASIHTTPRequest::requestWithURL(server.URL("/file"));
  resumed->setDownloadDestinationPath(destination);
  resumed->setAllowResumeForFileDownloads(true);
  resumed->startSynchronous();
  ASSERT_FALSE(resumed->error());
  EXPECT_EQ(lastRange, "bytes=1000-");
  EXPECT_EQ(resumed->responseStatusCode(), 206);
  EXPECT_TRUE(ReadFile(destination) == content);
}

TEST_F(ExchangeTest, CookiesAreKeptOnlyWithCookiePersistenceAndCredentialsGoFirst) {
  LoopbackServer server;
  std::mutex mutex;
  std::vector<std::string> cookies;
  std::string authorization;
  server.server().Get("/login", [](const httplib::Request&, httplib::Response& res) {
    res.set_header("Set-Cookie", "session=abc; Path=/");
    res.set_content("in", "text/plain");
  });
  server.server().Get("/next", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard<std::mutex> lock(mutex);
    cookies.push_back(req.get_header_value("Cookie"));
    authorization = req.get_header_value("Authorization");
    res.set_content("ok", "text/plain");
  });
  server.Start();
  ASIHTTPRequest::clearSession();

  ASIHTTPRequest::requestWithURL(server.URL("/login"))->startSynchronous();
  ASIHTTPRequest::requestWithURL(server.URL("/next"))->startSynchronous();
  auto without = ASIHTTPRequest::requestWithURL(server.URL("/next"));
  without->setUseCookiePersistence(false);
  without->startSynchronous();
  auto withCredentials = ASIHTTPRequest::requestWithURL(server.URL("/next"));
  withCredentials->setUsername("alice");
  withCredentials->setPassword("secret");
  withCredentials->startSynchronous();
  ASIHTTPRequest::clearSession();

  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(cookies.size(), 3u);
  EXPECT_EQ(cookies[0], "session=abc");
  EXPECT_EQ(cookies[1], "");
  EXPECT_EQ(authorization, "Basic YWxpY2U6c2VjcmV0");
}

