#pragma once
// FileDownloadTest: the downloader against the local server, on a clock that runs ten
// times faster. Files are put on the server and described to the downloader as
// the server listing would; the helpers read back what arrived locally.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AsyncFileDownloader.h"
#include "ClientServerFixture.h"
#include "HTTPTransport.h"
#include "NotificationCenter.h"
#include "RecordFiles.h"
#include "SyncRecords.h"

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
// Bytes that no slip of an offset leaves unchanged.
std::string Pattern(std::size_t size, unsigned seed = 7);
// Text that compresses well, as a compressible type would hold.
std::string Text(std::size_t size);
// gzip made by zlib directly, not by the engine under test.
std::string Gzip(const std::string& data);
std::int64_t ModificationTime(const std::string& path);
// The file holds exactly these bytes; else where the two part.
::testing::AssertionResult HasBytes(const std::string& path, const std::string& expected);

class FileDownloadTest : public ClientServerTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The file on the server, and the work item that downloads it.
  CVFileWithAction ServerFile(const std::string& storage, const std::string& relative,
                              const std::string& content, std::int64_t modified = 1'600'000'000);
  std::string LocalPath(const std::string& storage, const std::string& relative) const;
  static std::string Temporary(const CVFileWithAction& file);
  // The record of the path in DownloadedFiles.xml, if there is one.
  int Downloads() const;
  std::string LastRange() const;
  // The byte counts of the progress events since the start of the test.
  std::int64_t ProgressBytes() const;

  NotificationCenter::Token progressToken_ = 0;
  mutable std::mutex progressMutex_;
  std::int64_t progressBytes_ = 0;
};

// A transport that answers DownloadStorageFile.ashx from scripts, one script per
// exchange, and hands every other exchange (and downloads without a script) to
// libcurl. It shows what the local server never sends.
class ScriptedDownloads : public HTTPTransport {
 public:
  using Script = std::function<HTTPExchangeResult(HTTPExchange& exchange)>;

  void Add(Script script);
  HTTPExchangeResult Perform(HTTPExchange& exchange) override;
  std::vector<std::string> Ranges() const;

  // Sends the head and body in pieces of pieceSize; with cutAfter, the body
  // stops there and the exchange fails as a dropped kept-alive connection does.
  static HTTPExchangeResult Respond(HTTPExchange& exchange, int status, const ASIHeaderFields& headers,
                                    const std::string& body, std::size_t pieceSize,
                                    std::optional<std::size_t> cutAfter = std::nullopt);

 private:
  mutable std::mutex mutex_;
  std::vector<Script> scripts_;
  std::vector<std::string> ranges_;
};
