// The server's replies to the calls the client makes, through the request
// engine: the input is cut at "\n--\n" into the replies of successive requests,
// the last one answering every request after it. A reply that starts with
// "HTTP/" brings its own head (up to an empty line); others come as 200 OK.

#include <memory>
#include <mutex>
#include <vector>

#include "ASIHTTPRequest.h"
#include "CVConfiguration.h"
#include "CVHandler.h"
#include "Clock.h"
#include "CurlTransport.h"
#include "FuzzSupport.h"

namespace {

class ScriptedServer : public HTTPTransport {
 public:
  void Load(const std::string& script) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.clear();
    next_ = 0;
    for (std::size_t start = 0;;) {
      std::size_t end = script.find("\n--\n", start);
      replies_.push_back(script.substr(start, end == std::string::npos ? std::string::npos : end - start));
      if (end == std::string::npos) break;
      start = end + 4;
    }
  }

  HTTPExchangeResult Perform(HTTPExchange& exchange) override {
    std::string reply;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      reply = replies_[std::min(next_++, replies_.size() - 1)];
    }
    ResponseHeadReader head;
    if (reply.rfind("HTTP/", 0) == 0) {
      std::size_t start = 0;
      for (;;) {
        std::size_t end = reply.find('\n', start);
        std::string line = reply.substr(start, end == std::string::npos ? std::string::npos : end + 1 - start);
        start = end == std::string::npos ? reply.size() : end + 1;
        if (line == "\n" || line == "\r\n" || end == std::string::npos) break;
        head.AddLine(line);
      }
      reply.erase(0, start);
    } else {
      head.AddLine("HTTP/1.1 200 OK");
    }
    if (exchange.onResponseHead) exchange.onResponseHead(head.head());
    HTTPExchangeResult result;
    result.outcome = HTTPExchangeResult::Outcome::Completed;
    if (exchange.onBody && !reply.empty() && !exchange.onBody(reply.data(), reply.size())) {
      result.outcome = HTTPExchangeResult::Outcome::Stopped;
    }
    return result;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> replies_;
  std::size_t next_ = 0;
};

ScriptedServer& Server() {
  static auto* server = [] {
    auto shared = std::make_shared<ScriptedServer>();
    ASIHTTPRequest::SetTransport(shared);
    // Retries and pauses of the engine must not wait in earnest.
    ASIHTTPRequest::SetClock(std::make_shared<Clock>(0.0001));
    return new std::shared_ptr<ScriptedServer>(shared);
  }();
  return **server;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Server().Load(fuzz::Text(data, size));
  CVHandler::ResetForTests();
  CVConfiguration& config = CVConfiguration::Instance();
  config.Corvalink.Url = "http://corvalink.test/app/";
  config.Corvalink.UserName = "alice";
  config.Corvalink.Password = "secret";
  {
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    if (config.fSpSites.empty()) {
      config.fSpSites.push_back(std::make_shared<CVSharepoint>(fuzz::Storage("Docs", "\\\\fake\\Docs\\", "CIFS")));
    }
  }
  CVHandler& handler = CVHandler::Instance();
  handler.RegenWsURL();
  (void)handler.TestLogin("http://corvalink.test/app/", "alice", "secret");
  (void)handler.GetWSVersion();
  (void)handler.GetDefaultConfig();
  (void)handler.GetFileInfo("\\\\fake\\Docs\\Sub\\a.txt", "Docs");
  (void)handler.GetPartSizeNSNumber();
  (void)handler.isFileNeedToBeCompressed("txt");
  (void)handler.LoginMobile(0);
  return 0;
}
