#include "DownloadFixture.h"

#include <sys/stat.h>
#include <zlib.h>

#include <filesystem>
#include <iostream>
#include <fstream>
#include <sstream>

#include "ASIHTTPRequest.h"
#include "Clock.h"
#include "CurlTransport.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "SyncListener.h"

namespace fs = std::filesystem;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

std::string Pattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * seed + i / 251) & 0xFF);
  return bytes;
}

std::string Text(std::size_t size) {
  std::string text;
  for (int line = 0; text.size() < size; ++line) {
    text += "Line " + std::to_string(line) + ": the quick brown fox jumps over the lazy dog.\n";
  }
  text.resize(size);
  return text;
}

std::string Gzip(const std::string& data) {
  z_stream stream{};
  deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, static_cast<uLong>(data.size())) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::int64_t ModificationTime(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return static_cast<std::int64_t>(info.st_mtim.tv_sec);
}

::testing::AssertionResult HasBytes(const std::string& path, const std::string& expected) {
  if (!fs::exists(path)) return ::testing::AssertionFailure() << path << " does not exist";
  const std::string actual = ReadFile(path);
  if (actual == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << path << ": " << actual.size() << " bytes instead of "
                                       << expected.size() << ", the first difference at " << at;
}

void FileDownloadTest::SetUp() {
  ClientServerTest::SetUp();
  // Time-outs and polls a tenth as long: 30 s without data is 3 s here.
  ASIHTTPRequest::SetClock(std::make_shared<Clock>(0.1));
  IconOverlayInFinderStaticMethods::ResetForTests();
  progressToken_ = NotificationCenter::Default().AddObserver(
      SyncListener::kFileAmountChanged, [this](const std::string&, const NotificationInfo& info) {
        auto value = info.find(SyncListener::kFileAmountValue);
        if (value == info.end()) return;
        std::lock_guard<std::mutex> lock(progressMutex_);
        progressBytes_ += std::get<std::int64_t>(value->second);
      });
}

void FileDownloadTest::TearDown() {
  if (HasFailure()) {
    // What the client logged is the quickest way to why.
    for (const char* kind : {"CVMainLogs", "CVExceptionLogs"}) {
      std::string log = home_->ReadLog(kind);
      if (log.size() > 20000) log = log.substr(log.size() - 20000);
      std::cerr << "--- " << kind << " ---" << log << "\n";
    }
  }
  NotificationCenter::Default().RemoveObserver(progressToken_);
  ASIHTTPRequest::SetTransport(nullptr);
  ASIHTTPRequest::SetClock(nullptr);
  IconOverlayInFinderStaticMethods::ResetForTests();
  ClientServerTest::TearDown();
}

CVFileWithAction FileDownloadTest::ServerFile(const std::string& storage, const std::string& relative,
                                          const std::string& content, std::int64_t modified) {
  PutServerFile(storage, relative, content, modified);
  CVFileWithAction file;
  file.fileAction = FWA_DownloadFromServer;
  file.nFilePath = LocalPath(storage, relative);
  file.fileSize = static_cast<std::int64_t>(content.size());
  file.dateModified = modified;
  return file;
}

std::string FileDownloadTest::LocalPath(const std::string& storage, const std::string& relative) const {
  return home_->root() + "/" + storage + "/" + relative;
}

std::string FileDownloadTest::Temporary(const CVFileWithAction& file) {
  return AsyncFileDownloader::GetFileCVTempForFileLocalPath(file.nFilePath);
}

int FileDownloadTest::Downloads() const { return server_->CallCount("DownloadStorageFile.ashx"); }

std::string FileDownloadTest::LastRange() const {
  auto request = server_->LastRequest("DownloadStorageFile.ashx");
  if (!request) return "(no request)";
  if (!request->HasHeader("Range")) return "(no Range)";
  return request->Header("Range");
}

std::int64_t FileDownloadTest::ProgressBytes() const {
  std::lock_guard<std::mutex> lock(progressMutex_);
  return progressBytes_;
}

void ScriptedDownloads::Add(Script script) {
  std::lock_guard<std::mutex> lock(mutex_);
  scripts_.push_back(std::move(script));
}

HTTPExchangeResult ScriptedDownloads::Perform(HTTPExchange& exchange) {
  if (exchange.url.find("DownloadStorageFile.ashx") != std::string::npos) {
    Script script;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ranges_.push_back(exchange.headers.valueForKey("Range"));
      if (!scripts_.empty()) {
        script = std::move(scripts_.front());
        scripts_.erase(scripts_.begin());
      }
    }
    if (script) return script(exchange);
  }
  return CurlTransport::Shared()->Perform(exchange);
}

std::vector<std::string> ScriptedDownloads::Ranges() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return ranges_;
}

HTTPExchangeResult ScriptedDownloads::Respond(HTTPExchange& exchange, int status,
                                              const ASIHeaderFields& headers,
                                              const std::string& body, std::size_t pieceSize,
                                              std::optional<std::size_t> cutAfter) {
  HTTPResponseHead head;
  head.statusCode = status;
  head.statusLine = "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Error");
  head.headers = headers;
  exchange.onResponseHead(head);
  HTTPExchangeResult result;
  const std::size_t end = std::min(body.size(), cutAfter.value_or(body.size()));
  for (std::size_t offset = 0; offset < end; offset += pieceSize) {
    if (!exchange.onBody(body.data() + offset, std::min(pieceSize, end - offset))) {
      result.outcome = HTTPExchangeResult::Outcome::Stopped;
      return result;
    }
  }
  if (cutAfter) {
    result.outcome = HTTPExchangeResult::Outcome::ConnectionFailure;
    result.detail = "Connection reset by peer";
    result.connectionReused = true;
    return result;
  }
  result.outcome = HTTPExchangeResult::Outcome::Completed;
  return result;
}
