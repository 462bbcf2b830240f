// The ways a download can go wrong: a wrong size, a refused token, a stop in the
// middle, a disk that takes no more, and answers the local server never gives (gzip without a length, an
// exchange run twice, a refusal with a body).

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "ASIHTTPRequest.h"
#include "AsyncFileCommonPart.h"
#include "CVHandler.h"
#include "DownloadFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using devserver::Fault;

namespace {

// Waits, in short steps, for something another thread does; false after the limit.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = 5s) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

TEST_F(FileDownloadTest, AWrongSizeDeletesOnlyTheTemporaryFile) {
  const std::string content = Pattern(10'000);
  CVFileWithAction file = ServerFile("Docs", "report.bin", content);
  // The listing promised one byte more than the server sends.
  file.fileSize = 10'001;
  WriteFile(file.nFilePath, "the user's own version");

  AsyncFileDownloader downloader;
  EXPECT_FALSE(downloader.DownloadFile(file));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonSizeMismatch);
  EXPECT_EQ(downloader.failDownloadsCount(), 3);
  EXPECT_EQ(Downloads(), 3);
  EXPECT_EQ(LastRange(), "0-");  // each attempt from the first byte
  EXPECT_EQ(ReadFile(file.nFilePath), "the user's own version");
  EXPECT_FALSE(fs::exists(Temporary(file)));
  EXPECT_FALSE(RecordOf(file.nFilePath).has_value());
}

// A disk that refuses the bytes (here by the process's file size limit, which a
// test can set where a full disk needs a mount) ends the download with its
// reason known; what was written stays for a later resume, the user's file stays.
TEST_F(FileDownloadTest, AWriteRefusedByTheDiskIsToldAndKeepsWhatWasWritten) {
  const std::string content = Pattern(400'000, 23);
  CVFileWithAction file = ServerFile("Docs", "too large.bin", content);
  WriteFile(file.nFilePath, "the user's own version");
  AsyncFileDownloader downloader;
  bool arrived = true;
  {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previousAction {};
    ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &previousAction), 0);
    rlimit previous{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
    rlimit limited = previous;
    limited.rlim_cur = 100'000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    arrived = downloader.DownloadFile(file);
    setrlimit(RLIMIT_FSIZE, &previous);
    sigaction(SIGXFSZ, &previousAction, nullptr);
  }
  EXPECT_FALSE(arrived);
  EXPECT_EQ(downloader.lastLocalErrno(), EFBIG);
  EXPECT_EQ(ReadFile(file.nFilePath), "the user's own version");
  EXPECT_EQ(fs::file_size(Temporary(file)), 100'000u);
  EXPECT_TRUE(HasBytes(Temporary(file), content.substr(0, 100'000)));
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("the file could not be written here: Failed to write file at path"), std::string::npos);
}

TEST_F(FileDownloadTest, ARefusedTokenIsDroppedAndTheDownloadRepeatedOnce) {
  const std::string content = Pattern(8'000);
  CVFileWithAction file = ServerFile("Docs", "secret.bin", content);
  // A resumable start; the refusal takes it away, the repeat starts over.
  WriteFile(Temporary(file), content.substr(0, 3'000));
  ASSERT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(file, true));
  const std::string oldToken = CVHandler::Instance().CheckCVToken("Docs");
  const int logins = server_->CallCount("CorvalinkMobile.asmx/Login");
  server_->FailNext("DownloadStorageFile.ashx", Fault::Status(401));

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(Downloads(), 2);
  EXPECT_EQ(server_->CallCount("CorvalinkMobile.asmx/Login"), logins + 1);
  auto request = server_->LastRequest("DownloadStorageFile.ashx");
  EXPECT_NE(request->Field("token"), oldToken);
  EXPECT_EQ(request->Header("Range"), "0-");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));

  // Refused again and again: one repeat, never more.
  CVFileWithAction other = ServerFile("Docs", "other.bin", content);
  server_->FailNext("DownloadStorageFile.ashx", Fault::Status(401), -1);
  const int before = Downloads();
  EXPECT_FALSE(downloader.DownloadFile(other));
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonNotAuthorized);
  EXPECT_EQ(Downloads(), before + 2);
  EXPECT_FALSE(fs::exists(other.nFilePath));
  EXPECT_FALSE(fs::exists(Temporary(other)));
  server_->ClearFaults();
}

TEST_F(FileDownloadTest, StopEndsASlowTransferAtOnceAndKeepsTheTemporaryFile) {
  const std::string content = Pattern(120'000, 17);
  CVFileWithAction file = ServerFile("Docs", "slow.bin", content);
  AsyncFileDownloader downloader;
  // A single attempt finds the folder made, as DownloadFile makes it.
  fs::create_directories(fs::path(file.nFilePath).parent_path());
  server_->FailNext("DownloadStorageFile.ashx", Fault::Drop(50'000));
  ASSERT_FALSE(downloader.StartFileDownloadingAsync(file, "Docs"));
  ASSERT_EQ(fs::file_size(Temporary(file)), 50'000u);

  // The server sits on the next request for longer than a stop may take.
  server_->FailNext("DownloadStorageFile.ashx", Fault::Delay(1500ms));
  const int before = Downloads();
  bool result = true;
  std::thread sync([&] { result = downloader.DownloadFile(file); });
  ASSERT_TRUE(Eventually([&] { return Downloads() == before + 1 && downloader.downloadingRuns(); }));

  auto start = std::chrono::steady_clock::now();
  downloader.StopDownloading();
  sync.join();
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took, 700ms);
  EXPECT_FALSE(result);
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonStopped);
  EXPECT_EQ(Downloads(), before + 1);  // no further attempt
  EXPECT_FALSE(downloader.downloadingRuns());
  EXPECT_TRUE(HasBytes(Temporary(file), content.substr(0, 50'000)));
  EXPECT_FALSE(fs::exists(file.nFilePath));

  // The next download goes on from where the stopped one was.
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_EQ(LastRange(), "50000-");
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
}

TEST_F(FileDownloadTest, AStopWhileTheBodyStreamsLeavesNoEventBehind) {
  const std::string content = Pattern(64'000, 19);
  CVFileWithAction file = ServerFile("Docs", "streamed.bin", content);
  auto scripts = std::make_shared<ScriptedDownloads>();
  ASIHTTPRequest::SetTransport(scripts);
  // Shared with the script, which runs on the request's thread and ends
  // after the download has already given up.
  struct Steps {
    std::atomic<bool> reached{false};
    std::atomic<bool> stopped{false};
    std::atomic<bool> scriptEnded{false};
  };
  auto steps = std::make_shared<Steps>();
  AsyncFileDownloader downloader;
  // Another thread stops the download once 8,000 bytes came.
  std::thread stopper([&] {
    Eventually([&] { return steps->reached.load(); });
    downloader.StopDownloading();
    steps->stopped = true;
  });
  // Pieces keep coming after the stop; none of them may reach the file.
  scripts->Add([steps, content](HTTPExchange& exchange) {
    HTTPResponseHead head;
    head.statusCode = 200;
    head.statusLine = "HTTP/1.1 200 OK";
    head.headers.set("Content-Length", std::to_string(content.size()));
    exchange.onResponseHead(head);
    for (std::size_t offset = 0; offset < content.size(); offset += 1'000) {
      if (offset == 8'000) {
        steps->reached = true;
        Eventually([&] { return steps->stopped.load(); });
      }
      if (!exchange.onBody(content.data() + offset, 1'000)) break;
    }
    steps->scriptEnded = true;
    HTTPExchangeResult result;
    result.outcome = HTTPExchangeResult::Outcome::Stopped;
    return result;
  });

  EXPECT_FALSE(downloader.DownloadFile(file));
  stopper.join();
  Eventually([&] { return steps->scriptEnded.load(); });
  EXPECT_EQ(downloader.downloadCancelReason(), AsyncFileDownloader::kReasonStopped);
  EXPECT_TRUE(HasBytes(Temporary(file), content.substr(0, 8'000)));
  EXPECT_EQ(scripts->Ranges().size(), 1u);
}

TEST_F(FileDownloadTest, GzipWithoutALengthIsInflatedAtTheFinish) {
  const std::string content = Text(50'000);
  CVFileWithAction file = ServerFile("Docs", "nolength.txt", content);
  auto scripts = std::make_shared<ScriptedDownloads>();
  ASIHTTPRequest::SetTransport(scripts);
  scripts->Add([&](HTTPExchange& exchange) {
    ASIHeaderFields headers;
    headers.set("Content-Encoding", "gzip");  // chunked: no Content-Length
    return ScriptedDownloads::Respond(exchange, 200, headers, Gzip(content), 700);
  });

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_EQ(scripts->Ranges(), std::vector<std::string>{"0-50000"});
  EXPECT_EQ(ProgressBytes(), static_cast<std::int64_t>(Gzip(content).size()));
}

TEST_F(FileDownloadTest, ACutGzipBodyWritesNothing) {
  const std::string content = Text(50'000);
  CVFileWithAction file = ServerFile("Docs", "cut.txt", content);
  server_->FailNext("DownloadStorageFile.ashx", Fault::Drop(500));
  AsyncFileDownloader downloader;
  // A single attempt finds the folder made, as DownloadFile makes it.
  fs::create_directories(fs::path(file.nFilePath).parent_path());
  ASSERT_FALSE(downloader.StartFileDownloadingAsync(file, "Docs"));
  ASSERT_TRUE(fs::exists(Temporary(file)));
  EXPECT_EQ(fs::file_size(Temporary(file)), 0u);
  EXPECT_EQ(ProgressBytes(), 0);
}

TEST_F(FileDownloadTest, AnExchangeRunAgainWritesItsBodyOnce) {
  const std::string content = Pattern(30'000, 23);
  CVFileWithAction file = ServerFile("Docs", "twice.bin", content);
  auto scripts = std::make_shared<ScriptedDownloads>();
  ASIHTTPRequest::SetTransport(scripts);
  ASIHeaderFields headers;
  headers.set("Content-Length", std::to_string(content.size()));
  // The kept connection breaks after 12000 bytes; the engine runs the exchange
  // again on a new one, and the body comes again from its start.
  scripts->Add([&](HTTPExchange& exchange) {
    return ScriptedDownloads::Respond(exchange, 200, headers, content, 4'000, 12'000);
  });
  scripts->Add([&](HTTPExchange& exchange) {
    return ScriptedDownloads::Respond(exchange, 200, headers, content, 4'000);
  });

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_EQ(scripts->Ranges(), (std::vector<std::string>{"0-", "0-"}));
}

TEST_F(FileDownloadTest, ARefusalWithABodyWritesNothingAndDropsTheToken) {
  const std::string content = Pattern(6'000);
  CVFileWithAction file = ServerFile("Docs", "refused.bin", content);
  auto scripts = std::make_shared<ScriptedDownloads>();
  ASIHTTPRequest::SetTransport(scripts);
  scripts->Add([&](HTTPExchange& exchange) {
    ASIHeaderFields headers;
    headers.set("Content-Type", "text/html");
    return ScriptedDownloads::Respond(exchange, 401, headers, "<html>Access denied</html>", 10);
  });
  const int logins = server_->CallCount("CorvalinkMobile.asmx/Login");
  CVHandler::Instance().CheckCVToken("Docs");
  const int afterFirst = server_->CallCount("CorvalinkMobile.asmx/Login");

  AsyncFileDownloader downloader;
  ASSERT_TRUE(downloader.DownloadFile(file));  // the repeat goes to the server itself
  EXPECT_TRUE(HasBytes(file.nFilePath, content));
  EXPECT_EQ(server_->CallCount("CorvalinkMobile.asmx/Login"), afterFirst + 1);
  EXPECT_GE(afterFirst, logins);
  EXPECT_EQ(scripts->Ranges().size(), 2u);
}

}  // namespace
