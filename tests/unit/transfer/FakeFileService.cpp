#include "FakeFileService.h"

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "CVTextEscaping.h"
#include "MyParser.h"

namespace {

std::string Envelope(const std::string& method, const std::string& inner) {
  return "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><" + method +
         "Response xmlns=\"http://tempuri.org/\">" + inner + "</" + method + "Response></s:Body></s:Envelope>";
}

std::string Result(const std::string& method, const std::string& text) {
  return "<" + method + "Result>" + CVTextEscaping::AddSpecialSymbols(text) + "</" + method + "Result>";
}

std::string LastSegment(const std::string& url) {
  std::string path = url.substr(0, url.find('?'));
  return path.substr(path.rfind('/') + 1);
}

std::map<std::string, std::string> ParseQuery(const std::string& query) {
  std::map<std::string, std::string> fields;
  std::size_t start = 0;
  while (start < query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    std::string pair = query.substr(start, end - start);
    std::size_t equals = pair.find('=');
    if (equals != std::string::npos) {
      fields[pair.substr(0, equals)] = CVTextEscaping::URLDecodedString(pair.substr(equals + 1));
    }
    start = end + 1;
  }
  return fields;
}

std::string ReadBody(HTTPBodyReader* body) {
  std::string bytes;
  if (!body) return bytes;
  body->Seek(0);
  char buffer[65536];
  for (;;) {
    std::int64_t got = body->Read(buffer, sizeof buffer);
    if (got <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  return bytes;
}

HTTPExchangeResult Respond(HTTPExchange& exchange, int status, const std::string& body) {
  HTTPResponseHead head;
  head.statusCode = status;
  head.statusLine = "HTTP/1.1 " + std::to_string(status);
  head.headers.set("Content-Type", "text/xml; charset=utf-8");
  head.headers.set("Content-Length", std::to_string(body.size()));
  if (exchange.onResponseHead) exchange.onResponseHead(head);
  if (!body.empty() && exchange.onBody) exchange.onBody(body.data(), body.size());
  HTTPExchangeResult result;
  result.outcome = HTTPExchangeResult::Outcome::Completed;
  return result;
}

}  // namespace

std::string SoapRecord::Parameter(const std::string& name) const {
  return MyParser::GetParsedStringForNode(name, envelope);
}

std::string FakeFileService::Base64MD5(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
  unsigned char encoded[64] = {};
  EVP_EncodeBlock(encoded, digest, static_cast<int>(length));
  return reinterpret_cast<char*>(encoded);
}

void FakeFileService::SetVersion(const std::string& version) {
  std::lock_guard<std::mutex> lock(mutex_);
  version_ = version;
}

void FakeFileService::SetPartSizeKb(std::int64_t kilobytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  partSizeKb_ = kilobytes;
}

void FakeFileService::PutFile(const std::string& serverPath, const std::string& content, std::int64_t modified) {
  std::lock_guard<std::mutex> lock(mutex_);
  files_[serverPath] = {content, modified};
}

void FakeFileService::PutPendingPart(const std::string& serverPath, std::int64_t offset, const std::string& bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_[serverPath].push_back({offset, bytes});
}

void FakeFileService::ReplyNext(const std::string& method, const std::string& result) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_[method].push_back(result);
}

void FakeFileService::RefuseTokens() {
  std::lock_guard<std::mutex> lock(mutex_);
  tokens_.clear();
}

void FakeFileService::OnUpload(UploadHook hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

std::optional<std::string> FakeFileService::File(const std::string& serverPath) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = files_.find(serverPath);
  if (found == files_.end()) return std::nullopt;
  return found->second.first;
}

std::vector<UploadRecord> FakeFileService::Uploads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return uploads_;
}

std::vector<SoapRecord> FakeFileService::Calls(const std::string& method) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<SoapRecord> found;
  for (const auto& call : calls_) {
    if (call.method == method) found.push_back(call);
  }
  return found;
}

int FakeFileService::Count(const std::string& method) const { return static_cast<int>(Calls(method).size()); }

bool FakeFileService::WaitForHeldUpload(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return held_.wait_for(lock, timeout, [this] { return heldUploads_ > 0; });
}

bool FakeFileService::ValidToken(const std::string& token) const { return tokens_.count(token) > 0; }

HTTPExchangeResult FakeFileService::Perform(HTTPExchange& exchange) {
  const std::string segment = LastSegment(exchange.url);
  const std::string body = ReadBody(exchange.body);
  if (segment == "UploadStorageFile.ashx") {
    UploadRecord upload;
    std::size_t question = exchange.url.find('?');
    upload.rawQuery = question == std::string::npos ? "" : exchange.url.substr(question + 1);
    upload.query = ParseQuery(upload.rawQuery);
    upload.headers = exchange.headers;
    upload.body = body;
    const std::string range = upload.headers.valueForKey("Range");
    if (range.rfind("bytes=", 0) == 0) upload.rangeStart = std::stoll(range.substr(6));
    if (exchange.onUploadProgress) exchange.onUploadProgress(static_cast<std::int64_t>(body.size()),
                                                            static_cast<std::int64_t>(body.size()));
    UploadHook hook;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      hook = hook_;
    }
    int status = hook ? hook(upload) : kHandle;
    if (status == kStopped) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        uploads_.push_back(upload);
        ++heldUploads_;
      }
      held_.notify_all();
      // Held until the client gives up on it, as a stalled connection is.
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (!(exchange.shouldStop && exchange.shouldStop()) && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      HTTPExchangeResult result;
      result.outcome = HTTPExchangeResult::Outcome::Stopped;
      return result;
    }
    if (status == kHandle) status = Upload(upload);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      uploads_.push_back(upload);
    }
    return Respond(exchange, status, "");
  }

  SoapRecord call;
  call.endpoint = segment;
  call.envelope = body;
  std::size_t at = body.find("<s:Body><");
  if (at != std::string::npos) {
    at += 9;
    call.method = body.substr(at, body.find_first_of(" >", at) - at);
  }
  return Respond(exchange, 200, Soap(segment, call));
}

std::string FakeFileService::Soap(const std::string& endpoint, const SoapRecord& call) {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_.push_back(call);
  return SoapLocked(endpoint, call);
}

std::string FakeFileService::SoapLocked(const std::string& endpoint, const SoapRecord& call) {
  const std::string& method = call.method;
  auto scripted = replies_.find(method);
  if (scripted != replies_.end() && !scripted->second.empty()) {
    std::string text = scripted->second.front();
    scripted->second.pop_front();
    if (method == "GetHashes") {
      return Envelope(method, "<GetHashesResult><string>" + CVTextEscaping::AddSpecialSymbols(text) +
                                  "</string></GetHashesResult>");
    }
    return Envelope(method, Result(method, text));
  }
  const std::string token = call.Parameter("Token");
  const std::string path = call.Parameter("Path");

  if (method == "GetVersion") return Envelope(method, Result(method, version_));
  if (method == "Login") {
    const bool storage = endpoint == "CorvalinkMobile.asmx";
    if (storage && !ValidToken(call.Parameter("CVToken"))) return Envelope(method, Result(method, "-1;Invalid token"));
    const std::string issued = (storage ? "tok-" : "main-") + std::to_string(++issued_);
    tokens_.insert(issued);
    return Envelope(method, Result(method, storage ? "0;" + issued : issued));
  }
  if (method == "GetDeviceStatus") {
    return Envelope(method, Result(method, ValidToken(token) ? "1;A" : "-1;Invalid token"));
  }
  if (method == "GetDefaultSettings2") return Envelope(method, Result(method, ""));
  if (!ValidToken(token)) {
    if (method == "GetHashes") {
      return Envelope(method, "<GetHashesResult><string>-1;Invalid token</string></GetHashesResult>");
    }
    return Envelope(method, Result(method, "-1;Invalid token"));
  }
  if (method == "GetSystemConfig") {
    return Envelope(method, Result(method, "0;0;txt;" + std::to_string(partSizeKb_) + ";0"));
  }
  if (method == "GetHashes") {
    const std::int64_t partSize = std::stoll(call.Parameter("PartSize"));
    std::vector<std::string> hashes;
    auto parts = pending_.find(path);
    if (parts != pending_.end() && !parts->second.empty()) {
      auto sorted = parts->second;
      std::sort(sorted.begin(), sorted.end(), [](const Part& a, const Part& b) { return a.offset < b.offset; });
      for (const auto& part : sorted) hashes.push_back(Base64MD5(part.bytes));
    } else if (auto file = files_.find(path); file != files_.end() && partSize > 0) {
      const std::string& content = file->second.first;
      for (std::size_t offset = 0; offset < content.size(); offset += static_cast<std::size_t>(partSize)) {
        hashes.push_back(Base64MD5(content.substr(offset, static_cast<std::size_t>(partSize))));
      }
    }
    std::string inner;
    for (const auto& hash : hashes) inner += "<string>" + hash + "</string>";
    return Envelope(method, "<GetHashesResult>" + inner + "</GetHashesResult>");
  }
  if (method == "FinishPartialUpload") {
    MyParser parser;
    const auto listed = MyParser::StringsOf(parser.GetParsedArrayForNode("MD5", call.envelope));
    std::string assembled;
    for (const auto& hash : listed) {
      auto& parts = pending_[path];
      auto part = std::find_if(parts.begin(), parts.end(), [&](const Part& p) { return Base64MD5(p.bytes) == hash; });
      if (part == parts.end()) return Envelope(method, Result(method, "-5;Parts missing"));
      assembled += part->bytes;
    }
    auto announced = announcedSize_.find(path);
    if (announced == announcedSize_.end() || static_cast<std::int64_t>(assembled.size()) != announced->second) {
      return Envelope(method, Result(method, "-5;Parts missing"));
    }
    files_[path] = {assembled, 1'700'000'000};
    pending_.erase(path);
    return Envelope(method, Result(method, "0;"));
  }
  if (method == "CancelPartialUpload") {
    pending_.erase(path);
    return Envelope(method, Result(method, "0;"));
  }
  if (method == "GetFileInfo") {
    auto file = files_.find(path);
    if (file == files_.end()) return Envelope(method, Result(method, "-6;File/Folder not found;"));
    return Envelope(method, Result(method, "0;F;" + std::to_string(file->second.first.size()) + ";" +
                                               std::to_string(file->second.second)));
  }
  if (method == "MoveFile") {
    auto file = files_.find(call.Parameter("CurrentFileName"));
    if (file == files_.end()) return Envelope(method, Result(method, "-6;File/Folder not found;"));
    files_[call.Parameter("NewFileName")] = file->second;
    files_.erase(file);
    return Envelope(method, Result(method, "0;"));
  }
  if (method == "DeleteFile" || method == "DeleteFolder") {
    if (files_.erase(path) == 0) return Envelope(method, Result(method, "-6;File/Folder not found;"));
    return Envelope(method, Result(method, "0;"));
  }
  if (method == "CreateFolder") return Envelope(method, Result(method, "0;"));
  return Envelope(method, Result(method, ""));
}

int FakeFileService::Upload(UploadRecord& upload) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!ValidToken(upload.query["token"])) return 401;
  const std::string& path = upload.query["path"];
  if (upload.query.count("Length")) {
    if (std::stoll(upload.query["Length"]) != static_cast<std::int64_t>(upload.body.size())) return 500;
    files_[path] = {upload.body, 1'700'000'000};
    return 200;
  }
  if (!upload.query.count("FullSize") || !upload.query.count("PartSize")) return 500;
  if (upload.headers.valueForKey("Content-MD5") != Base64MD5(upload.body)) return 500;
  const std::string range = upload.headers.valueForKey("Range");
  if (range.rfind("bytes=", 0) != 0) return 500;
  const std::size_t dash = range.find('-');
  const std::int64_t start = std::stoll(range.substr(6, dash - 6));
  const std::int64_t end = std::stoll(range.substr(dash + 1));
  if (end - start != static_cast<std::int64_t>(upload.body.size())) return 500;
  announcedSize_[path] = std::stoll(upload.query["FullSize"]);
  auto& parts = pending_[path];
  parts.erase(std::remove_if(parts.begin(), parts.end(), [&](const Part& p) { return p.offset == start; }),
              parts.end());
  parts.push_back({start, upload.body});
  return 200;
}
