// Request bodies: files streamed from disk, parts of a file, compressed bodies,
// and the hashes and gzip helpers they rest on.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "ASIDataCompressor.h"
#include "ASIDataDecompressor.h"
#include "ASIHTTPRequest.h"
#include "HttpTestServers.h"
#include "HttpTestSupport.h"
#include "TempHome.h"

using namespace std::chrono_literals;

namespace {

class BodyTest : public ::testing::Test {
 protected:
  TempHome home;
};

class ProgressRecorder : public ASIProgressDelegate {
 public:
  void setDoubleValue(double value) override { values.push_back(value); }
  std::vector<double> values;
};

// Answers every request with the MD5 and length of the body as it came off the
// wire (inflated when it says gzip), and keeps the last request's head.
struct HashingServer {
  HashingServer()
      : server([this](int fd, const std::string& request) {
          int hit;
          {
            std::lock_guard<std::mutex> lock(mutex);
            hit = ++hits;
          }
          if (hit <= stallFirst) {
            server.gate().Wait(5s);
            return;
          }
          std::string body = request.substr(request.find("\r\n\r\n") + 4);
          if (RawServer::HeaderValue(request, "Content-Encoding") == "gzip") body = Gunzip(body);
          {
            std::lock_guard<std::mutex> lock(mutex);
            head = request.substr(0, request.find("\r\n\r\n") + 2);
          }
          std::string reply = HexMD5(body) + " " + std::to_string(body.size());
          RawServer::Send(fd, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                                  std::to_string(reply.size()) + "\r\nConnection: close\r\n\r\n" +
                                  reply);
        }) {}
  std::string Header(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex);
    return RawServer::HeaderValue(head, name);
  }
  std::string URL() { return server.URL("/UploadStorageFile.ashx"); }

  std::mutex mutex;
  int hits = 0;
  int stallFirst = 0;
  std::string head;
  RawServer server;
};

}  // namespace

TEST_F(BodyTest, AFileBodyIsStreamedFromDiskAndArrivesWhole) {
  const std::string content = RandomBytes(5 * 1024 * 1024 + 123);
  const std::string path = home.path() + "/big.bin";
  WriteFile(path, content);
  HashingServer hashing;

  auto request = ASIHTTPRequest::requestWithURL(hashing.URL());
  request->setRequestMethod("POST");
  request->setShouldAttemptPersistentConnection(false);
  request->appendPostDataFromFile(path);
  ProgressRecorder progress;
  request->setUploadProgressDelegate(&progress);
  request->startSynchronous();

  ASSERT_FALSE(request->error()) << request->error()->description();
  EXPECT_EQ(request->responseString(), HexMD5(content) + " " + std::to_string(content.size()));
  EXPECT_EQ(request->postLength(), static_cast<std::int64_t>(content.size()));
  ASSERT_FALSE(progress.values.empty());
  EXPECT_EQ(progress.values.front(), 0.0);
  EXPECT_EQ(progress.values.back(), 1.0);
  EXPECT_TRUE(std::is_sorted(progress.values.begin(), progress.values.end()));
}

TEST_F(BodyTest, ARetryAfterATimeOutSendsTheWholeBodyAgain) {
  const std::string content = RandomBytes(700000, 3);
  const std::string path = home.path() + "/part.bin";
  WriteFile(path, content);
  HashingServer hashing;
  hashing.stallFirst = 1;

  auto request = ASIHTTPRequest::requestWithURL(hashing.URL());
  request->setRequestMethod("POST");
  request->setTimeOutSeconds(0.3);
  request->setNumberOfTimesToRetryOnTimeout(2);
  request->appendPostData("head:");
  request->appendPostDataFromFile(path);
  request->startSynchronous();

  ASSERT_FALSE(request->error()) << request->error()->description();
  EXPECT_EQ(request->retryCount(), 1);
  EXPECT_EQ(request->responseString(),
            HexMD5("head:" + content) + " " + std::to_string(content.size() + 5));
}

TEST_F(BodyTest, APartOfAFileGoesWithItsRangeLengthAndHash) {
  const std::string content = RandomBytes(700000, 5);
  const std::string path = home.path() + "/parts.bin";
  WriteFile(path, content);
  HashingServer hashing;
  const std::int64_t block = 300000;

  struct Case {
    std::int64_t step;
    bool streamed;
    std::int64_t start;
    std::int64_t length;
  } cases[] = {{0, true, 0, 300000}, {1, false, 300000, 300000}, {2, true, 600000, 100000}};
  std::vector<std::string> serverHashes;
  std::vector<std::string> localHashes;
  for (const Case& c : cases) {
    auto request = ASIHTTPRequest::requestWithURL(hashing.URL());
    request->setRequestMethod("POST");
    request->setShouldStreamPostDataFromDisk(c.streamed);
    std::string hash = request->appendPostDataFromFile2(path, serverHashes, localHashes, block,
                                                        c.step, nullptr);
    std::string part = content.substr(static_cast<std::size_t>(c.start),
                                      static_cast<std::size_t>(c.length));
    EXPECT_EQ(hash, ASIHTTPRequest::GetMD5ForData(part)) << c.step;
    EXPECT_EQ(localHashes.back(), hash);
    request->addRequestHeader("Content-MD5", hash);
    request->startSynchronous();
    ASSERT_FALSE(request->error()) << c.step;
    EXPECT_EQ(request->responseString(), HexMD5(part) + " " + std::to_string(c.length)) << c.step;
    // The end is the offset after the part: no subtraction of 1.
    EXPECT_EQ(hashing.Header("Range"), "bytes=" + std::to_string(c.start) + "-" +
                                           std::to_string(c.start + c.length));
    EXPECT_EQ(hashing.Header("Content-Length"), std::to_string(c.length));
    EXPECT_EQ(hashing.Header("Content-MD5"), hash);
  }
  EXPECT_EQ(localHashes.size(), 3u);

  auto beyond = ASIHTTPRequest::requestWithURL(hashing.URL());
  EXPECT_EQ(beyond->appendPostDataFromFile2(path, serverHashes, localHashes, block, 3, nullptr), "");
  EXPECT_EQ(beyond->appendPostDataFromFile2(home.path() + "/none", serverHashes, localHashes,
                                            block, 0, nullptr),
            "");
  EXPECT_EQ(localHashes.size(), 3u);
}

TEST_F(BodyTest, AMissingFileBodyFailsBeforeAnythingIsSent) {
  HashingServer hashing;
  auto request = ASIHTTPRequest::requestWithURL(hashing.URL());
  request->setRequestMethod("POST");
  request->appendPostDataFromFile(home.path() + "/gone.bin");
  EventRecorder recorder;
  request->setDelegate(&recorder);
  request->startSynchronous();
  ASSERT_TRUE(request->error());
  EXPECT_EQ(request->error()->code(), ASIError::ASIInternalErrorWhileBuildingRequestType);
  EXPECT_EQ(request->error()->localizedDescription(), "Unable to create read stream");
  EXPECT_EQ(recorder.Events(), (std::vector<std::string>{"started", "failed"}));
  std::lock_guard<std::mutex> lock(hashing.mutex);
  EXPECT_EQ(hashing.hits, 0);
}

TEST_F(BodyTest, ACompressedBodyGoesOutAsGzip) {
  const std::string path = home.path() + "/text.xml";
  const std::string text = "<a>" + std::string(300000, 'z') + "</a>";
  WriteFile(path, text);
  HashingServer hashing;
  for (bool fromFile : {false, true}) {
    auto request = ASIHTTPRequest::requestWithURL(hashing.URL());
    request->setShouldCompressRequestBody(true);
    if (fromFile) {
      request->appendPostDataFromFile(path);
    } else {
      request->appendPostData(text);
    }
    request->buildPostBody();
    request->buildPostBody();  // a second call changes nothing
    EXPECT_EQ(request->requestMethod(), "POST");
    EXPECT_LT(request->postLength(), 10000);
    request->startSynchronous();
    ASSERT_FALSE(request->error()) << fromFile;
    EXPECT_EQ(request->responseString(), HexMD5(text) + " " + std::to_string(text.size()));
    EXPECT_EQ(hashing.Header("Content-Encoding"), "gzip");
  }
}

TEST(MD5Helpers, Base64OfTheDigest) {
  EXPECT_EQ(ASIHTTPRequest::GetMD5ForData(""), "");
  EXPECT_EQ(ASIHTTPRequest::GetMD5ForData("abc"), "kAFQmDzST7DWlj99KOF/cg==");
  EXPECT_EQ(ASIHTTPRequest::GetMD5ForData(std::string("\0\1", 2)).size(), 24u);
  TempHome home;
  EXPECT_EQ(ASIHTTPRequest::base64EncodeDouble("900150983cd24fb0d6963f7d28e17f72"),
            "kAFQmDzST7DWlj99KOF/cg==");
  EXPECT_EQ(ASIHTTPRequest::base64EncodeDouble("900150983CD24FB0D6963F7D28E17F72"),
            "kAFQmDzST7DWlj99KOF/cg==");
  EXPECT_EQ(ASIHTTPRequest::base64EncodeDouble("zz0150983cd24fb0d6963f7d28e17f72"), "");
  EXPECT_EQ(ASIHTTPRequest::base64EncodeDouble("9001"), "");
}

TEST(DataCompression, RoundTripsInPiecesFilesAndSeveralMembers) {
  const std::string text = RandomBytes(200000, 11) + std::string(200000, 'r');
  std::string error;
  const std::string gz = ASIDataCompressor::compressData(text, &error);
  ASSERT_TRUE(error.empty());
  EXPECT_EQ(Gunzip(gz), text) << "another inflater reads what we deflate";
  EXPECT_EQ(ASIDataDecompressor::uncompressData(Gzip(text), &error), text);

  ASIDataDecompressor pieces;
  std::string inflated;
  for (std::size_t at = 0; at < gz.size(); at += 777) {
    inflated += pieces.uncompressBytes(gz.data() + at, std::min<std::size_t>(777, gz.size() - at),
                                       &error);
  }
  EXPECT_TRUE(pieces.streamEnded());
  EXPECT_EQ(inflated, text);

  // Two gzip members one after the other read as one text.
  EXPECT_EQ(ASIDataDecompressor::uncompressData(Gzip("one ") + Gzip("two"), &error), "one two");

  TempHome home;
  WriteFile(home.path() + "/plain", text);
  ASSERT_TRUE(ASIDataCompressor::compressDataFromFile(home.path() + "/plain", home.path() + "/gz",
                                                      &error));
  ASSERT_TRUE(ASIDataDecompressor::uncompressDataFromFile(home.path() + "/gz",
                                                          home.path() + "/back", &error));
  EXPECT_EQ(ReadFile(home.path() + "/back"), text);
}

TEST(DataCompression, BrokenOrCutStreamsAreErrors) {
  std::string error;
  std::string gz = Gzip(std::string(10000, 'c'));
  EXPECT_EQ(ASIDataDecompressor::uncompressData(gz.substr(0, gz.size() - 20), &error), "");
  EXPECT_FALSE(error.empty());
  error.clear();
  EXPECT_EQ(ASIDataDecompressor::uncompressData("definitely not gzip", &error), "");
  EXPECT_FALSE(error.empty());
  error.clear();
  EXPECT_FALSE(ASIDataDecompressor::uncompressDataFromFile("/nonexistent/file", "/tmp/x", &error));
  EXPECT_FALSE(error.empty());
}
