// How a request runs: redirects, time-outs and retries, cancelling, the shared
// queue, and retrying a connection that the server had closed.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ASIHTTPRequest.h"
#include "ASIOperationQueue.h"
#include "Clock.h"
#include "HTTPTransport.h"
#include "HttpTestServers.h"
#include "HttpTestSupport.h"
#include "TempHome.h"

using namespace std::chrono_literals;

namespace {

class FlowTest : public ::testing::Test {
 protected:
  ~FlowTest() override {
    ASIHTTPRequest::SetClock(nullptr);
    ASIHTTPRequest::SetTransport(nullptr);
  }
  TempHome home;
};

// Answers "/hop/N" with a redirect to "/hop/N-1", and "/hop/0" with the page.
void ServeHops(LoopbackServer& server, std::atomic<int>& hits) {
  server.server().Get(R"(/hop/(\d+))", [&](const httplib::Request& req, httplib::Response& res) {
    ++hits;
    int left = std::stoi(req.matches[1]);
    if (left == 0) {
      res.set_content("arrived", "text/plain");
      return;
    }
    res.status = 302;
    res.set_header("Location", "/hop/" + std::to_string(left - 1));
  });
}

}  // namespace

TEST_F(FlowTest, GetFollowsFiveRedirectsAndFailsOnTheSixth) {
  LoopbackServer server;
  std::atomic<int> hits{0};
  ServeHops(server, hits);
  server.Start();

  auto five = ASIHTTPRequest::requestWithURL(server.URL("/hop/5"));
  EventRecorder recorder;
  five->setDelegate(&recorder);
  five->startSynchronous();
  EXPECT_FALSE(five->error());
  EXPECT_EQ(five->responseString(), "arrived");
  EXPECT_EQ(five->redirectCount(), 5);
  EXPECT_EQ(five->url(), server.URL("/hop/0"));
  EXPECT_EQ(five->originalURL(), server.URL("/hop/5"));
  auto events = recorder.Events();
  ASSERT_EQ(events.size(), 13u);  // started, 5 x (headers, redirect), headers, finished
  EXPECT_EQ(events[0], "started");
  EXPECT_EQ(events[2], "redirect " + server.URL("/hop/4"));
  EXPECT_EQ(events.back(), "finished");

  hits = 0;
  auto six = ASIHTTPRequest::requestWithURL(server.URL("/hop/6"));
  six->startSynchronous();
  ASSERT_TRUE(six->error());
  EXPECT_EQ(six->error()->code(), ASIError::ASITooMuchRedirectionErrorType);
  EXPECT_EQ(six->error()->localizedDescription(),
            "The request failed because it redirected too many times");
  EXPECT_EQ(hits, 6) << "the sixth redirect is not followed";

  auto kept = ASIHTTPRequest::requestWithURL(server.URL("/hop/1"));
  kept->setShouldRedirect(false);
  kept->startSynchronous();
  EXPECT_FALSE(kept->error());
  EXPECT_EQ(kept->responseStatusCode(), 302);
  EXPECT_EQ(kept->responseHeaders().valueForKey("location"), "/hop/0");
}

TEST_F(FlowTest, RequestsWithABodyFollowOnly307And308OnTheSameOrigin) {
  LoopbackServer other;
  std::atomic<int> otherHits{0};
  other.server().Post("/steal", [&](const httplib::Request&, httplib::Response& res) {
    ++otherHits;
    res.set_content("stolen", "text/plain");
  });
  other.Start();

  LoopbackServer server;
  std::mutex mutex;
  std::vector<std::string> targetBodies;
  server.server().Post(R"(/moved/(\d+))", [&](const httplib::Request& req, httplib::Response& res) {
    res.status = std::stoi(req.matches[1]);
    res.set_header("Location", "/target");
  });
  server.server().Post("/away", [&](const httplib::Request&, httplib::Response& res) {
    res.status = 307;
    res.set_header("Location", other.URL("/steal"));
  });
  server.server().Post("/target", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard<std::mutex> lock(mutex);
    targetBodies.push_back(req.get_header_value("SOAPAction") + "|" + req.body);
    res.set_content("posted", "text/plain");
  });
  server.server().Get("/target", [&](const httplib::Request&, httplib::Response& res) {
    std::lock_guard<std::mutex> lock(mutex);
    targetBodies.push_back("GET");
    res.set_content("lost the body", "text/plain");
  });
  server.Start();

  auto post = [&](const std::string& path) {
    auto request = ASIHTTPRequest::requestWithURL(server.URL(path));
    request->setRequestMethod("POST");
    request->addRequestHeader("SOAPAction", "urn:Move");
    request->appendPostData("token=t&path=p");
    request->startSynchronous();
    return request;
  };
  for (int status : {301, 302, 303}) {
    auto refused = post("/moved/" + std::to_string(status));
    ASSERT_TRUE(refused->error()) << status;
    EXPECT_EQ(refused->error()->code(), ASIError::ASIRedirectRefusedErrorType) << status;
    EXPECT_EQ(refused->responseStatusCode(), status);
  }
  for (int status : {307, 308}) {
    auto followed = post("/moved/" + std::to_string(status));
    EXPECT_FALSE(followed->error()) << status;
    EXPECT_EQ(followed->responseString(), "posted") << status;
    EXPECT_EQ(followed->redirectCount(), 1);
  }
  auto away = post("/away");
  ASSERT_TRUE(away->error());
  EXPECT_EQ(away->error()->code(), ASIError::ASIRedirectRefusedErrorType);
  EXPECT_EQ(otherHits, 0) << "the body and its token never reach another host";

  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(targetBodies,
            (std::vector<std::string>{"urn:Move|token=t&path=p", "urn:Move|token=t&path=p"}));
}

TEST_F(FlowTest, CredentialsAndTokensDoNotFollowAGetToAnotherHost) {
  LoopbackServer other;
  std::string seenAuthorization = "<none>";
  std::string seenCookie = "<none>";
  std::string seenClient = "<none>";
  other.server().Get("/landing", [&](const httplib::Request& req, httplib::Response& res) {
    seenAuthorization = req.get_header_value("Authorization");
    seenCookie = req.get_header_value("Cookie");
    seenClient = req.get_header_value("X-Client");
    res.set_content("landed", "text/plain");
  });
  other.Start();
  LoopbackServer server;
  server.server().Get("/start", [&](const httplib::Request&, httplib::Response& res) {
    res.status = 302;
    res.set_header("Location", other.URL("/landing"));
  });
  server.Start();

  auto request = ASIHTTPRequest::requestWithURL(server.URL("/start"));
  request->addRequestHeader("Authorization", "Bearer secret-token");
  request->addRequestHeader("Cookie", "session=secret");
  request->addRequestHeader("X-Client", "desktop");
  request->startSynchronous();
  EXPECT_EQ(request->responseString(), "landed");
  EXPECT_EQ(seenAuthorization, "");
  EXPECT_EQ(seenCookie, "");
  EXPECT_EQ(seenClient, "desktop") << "headers that carry no secret go along";
}

TEST_F(FlowTest, AnInactiveServerTimesOutAfterEachRetry) {
  LoopbackServer server;
  std::atomic<int> hits{0};
  server.server().Get("/silent", [&](const httplib::Request&, httplib::Response& res) {
    ++hits;
    server.gate().Wait(5s);
    res.set_content("too late", "text/plain");
  });
  server.Start();

  auto request = ASIHTTPRequest::requestWithURL(server.URL("/silent"));
  request->setTimeOutSeconds(0.15);
  request->setNumberOfTimesToRetryOnTimeout(2);
  EventRecorder recorder;
  request->setDelegate(&recorder);
  auto begin = std::chrono::steady_clock::now();
  request->startSynchronous();
  auto took = std::chrono::steady_clock::now() - begin;

  ASSERT_TRUE(request->error());
  EXPECT_EQ(request->error()->code(), ASIError::ASIRequestTimedOutErrorType);
  EXPECT_EQ(request->error()->localizedDescription(), "The request timed out");
  EXPECT_EQ(request->retryCount(), 2);
  EXPECT_EQ(hits, 3) << "a time-out with 2 retries starts the request 3 times";
  EXPECT_EQ(recorder.Events(), (std::vector<std::string>{"started", "failed"}));
  EXPECT_EQ(request->responseStatusCode(), 0);
  EXPECT_LT(took, 3s);
}

TEST_F(FlowTest, TimeOutsRunOnTheScaledClockAndOnlyCountInactivity) {
  LoopbackServer server;
  server.server().Get("/silent", [&](const httplib::Request&, httplib::Response& res) {
    server.gate().Wait(5s);
    res.set_content("too late", "text/plain");
  });
  // Sixteen pieces, one every 50 ms: twice as long in all as the time-out, but
  // never quiet for as long.
  server.server().Get("/trickle", [](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("application/octet-stream",
                                     [](std::size_t offset, httplib::DataSink& sink) {
                                       if (offset >= 16) {
                                         sink.done();
                                         return true;
                                       }
                                       std::this_thread::sleep_for(50ms);
                                       sink.write("x", 1);
                                       return true;
                                     });
  });
  server.Start();

  // 10 s of the program's own time on a clock that runs 25 times faster.
  ASIHTTPRequest::SetClock(std::make_shared<Clock>(0.04));
  auto silent = ASIHTTPRequest::requestWithURL(server.URL("/silent"));
  silent->setTimeOutSeconds(10);
  auto begin = std::chrono::steady_clock::now();
  silent->startSynchronous();
  auto took = std::chrono::steady_clock::now() - begin;
  ASSERT_TRUE(silent->error());
  EXPECT_EQ(silent->error()->code(), ASIError::ASIRequestTimedOutErrorType);
  EXPECT_GE(took, 350ms);
  EXPECT_LT(took, 3s);

  auto trickle = ASIHTTPRequest::requestWithURL(server.URL("/trickle"));
  trickle->setTimeOutSeconds(10);  // 400 ms here
  trickle->startSynchronous();
  EXPECT_FALSE(trickle->error()) << trickle->error()->description();
  EXPECT_EQ(trickle->responseData(), std::string(16, 'x'));
}

TEST_F(FlowTest, ClearDelegatesAndCancelWaitsForTheEventInFlightAndSilencesTheRest) {
  LoopbackServer server;
  server.server().Get("/slow", [&](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("application/octet-stream",
                                     [&](std::size_t offset, httplib::DataSink& sink) {
                                       if (offset >= 50) {
                                         sink.done();
                                         return true;
                                       }
                                       server.gate().Wait(40ms);
                                       sink.write("y", 1);
                                       return true;
                                     });
  });
  server.Start();

  auto request = ASIHTTPRequest::requestWithURL(server.URL("/slow"));
  EventRecorder recorder;
  request->setDelegate(&recorder);
  std::atomic<bool> inEvent{false};
  std::atomic<bool> eventDone{false};
  std::atomic<int> dataEvents{0};
  Gate firstData;
  request->setDidReceiveDataSelector([&](ASIHTTPRequest&, std::string_view) {
    if (++dataEvents == 1) {
      inEvent = true;
      firstData.Release();
      std::this_thread::sleep_for(100ms);  // still busy when the cancel comes
      eventDone = true;
    }
  });
  request->startAsynchronous();
  ASSERT_TRUE(firstData.Wait(5s));
  ASSERT_TRUE(inEvent);
  request->clearDelegatesAndCancel();
  EXPECT_TRUE(eventDone) << "the cancel returned while an event was still running";
  int dataAtCancel = dataEvents;
  request->waitUntilFinished();
  std::this_thread::sleep_for(50ms);

  EXPECT_EQ(dataEvents, dataAtCancel);
  EXPECT_EQ(recorder.Events(), (std::vector<std::string>{"started", "headers"}));
  EXPECT_EQ(request->state(), ASIHTTPRequest::State::Cancelled);
  ASSERT_TRUE(request->error());
  EXPECT_EQ(request->error()->code(), ASIError::ASIRequestCancelledErrorType);
}

TEST_F(FlowTest, CancelFailsWithCodeFourWhileTheDelegateIsSet) {
  LoopbackServer server;
  server.server().Get("/silent", [&](const httplib::Request&, httplib::Response& res) {
    server.gate().Wait(5s);
    res.set_content("late", "text/plain");
  });
  server.Start();

  auto running = ASIHTTPRequest::requestWithURL(server.URL("/silent"));
  EventRecorder recorder;
  running->setDelegate(&recorder);
  running->startAsynchronous();
  for (int i = 0; i < 200 && !running->isExecuting(); ++i) std::this_thread::sleep_for(5ms);
  auto begin = std::chrono::steady_clock::now();
  running->cancel();
  running->waitUntilFinished();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s) << "a cancel wakes the transfer";
  EXPECT_EQ(recorder.Events(), (std::vector<std::string>{"started", "failed"}));
  EXPECT_EQ(running->error()->localizedDescription(), "The request was cancelled");

  auto never = ASIHTTPRequest::requestWithURL(server.URL("/silent"));
  EventRecorder neverRecorder;
  never->setDelegate(&neverRecorder);
  never->cancel();
  never->startSynchronous();
  EXPECT_EQ(neverRecorder.Events(), (std::vector<std::string>{"failed"}));
  EXPECT_TRUE(never->isCancelled());
}

TEST_F(FlowTest, TheSharedQueueRunsAtMostFourAtATime) {
  LoopbackServer server;
  server.server().new_task_queue = [] { return new httplib::ThreadPool(12); };
  std::mutex mutex;
  std::condition_variable changed;
  int inside = 0;
  int most = 0;
  server.server().Get("/work", [&](const httplib::Request&, httplib::Response& res) {
    std::unique_lock<std::mutex> lock(mutex);
    most = std::max(most, ++inside);
    changed.notify_all();
    // Hold on until four are in (or a while has passed), so a fifth would show.
    changed.wait_for(lock, 2s, [&] { return inside >= 4; });
    changed.wait_for(lock, 50ms, [] { return false; });
    --inside;
    res.set_content("done", "text/plain");
  });
  server.Start();

  EXPECT_EQ(ASIHTTPRequest::sharedQueue().maxConcurrentOperationCount(), 4);
  std::atomic<int> finished{0};
  std::vector<std::shared_ptr<ASIHTTPRequest>> requests;
  for (int i = 0; i < 8; ++i) {
    auto request = ASIHTTPRequest::requestWithURL(server.URL("/work"));
    request->setDidFinishSelector([&](ASIHTTPRequest&) { ++finished; });
    request->startAsynchronous();
    requests.push_back(request);
  }
  for (auto& request : requests) request->waitUntilFinished();
  EXPECT_EQ(finished, 8);
  EXPECT_EQ(most, 4);
}

namespace {

// A transport that plays back outcomes, for what a real server cannot be made to do.
class ScriptedTransport : public HTTPTransport {
 public:
  explicit ScriptedTransport(std::vector<HTTPExchangeResult> script) : script_(std::move(script)) {}
  HTTPExchangeResult Perform(HTTPExchange& exchange) override {
    fresh.push_back(exchange.freshConnection);
    HTTPExchangeResult result = script_.at(fresh.size() - 1);
    if (result.outcome == HTTPExchangeResult::Outcome::Completed) {
      HTTPResponseHead head;
      head.statusCode = 200;
      head.statusLine = "HTTP/1.1 200 OK";
      exchange.onResponseHead(head);
      exchange.onBody("fine", 4);
    }
    return result;
  }
  std::vector<bool> fresh;

 private:
  std::vector<HTTPExchangeResult> script_;
};

HTTPExchangeResult Outcome(HTTPExchangeResult::Outcome outcome, bool reused = false) {
  HTTPExchangeResult result;
  result.outcome = outcome;
  result.connectionReused = reused;
  result.detail = "scripted";
  return result;
}

}  // namespace

TEST_F(FlowTest, AClosedKeptConnectionIsTriedOnceMoreOnANewOne) {
  using O = HTTPExchangeResult::Outcome;
  auto once = std::make_shared<ScriptedTransport>(
      std::vector<HTTPExchangeResult>{Outcome(O::ConnectionFailure, true), Outcome(O::Completed)});
  ASIHTTPRequest::SetTransport(once);
  auto request = ASIHTTPRequest::requestWithURL("http://127.0.0.1:9/x");
  request->startSynchronous();
  EXPECT_FALSE(request->error());
  EXPECT_EQ(request->responseString(), "fine");
  EXPECT_EQ(once->fresh, (std::vector<bool>{false, true}));

  auto twice = std::make_shared<ScriptedTransport>(std::vector<HTTPExchangeResult>{
      Outcome(O::ConnectionFailure, true), Outcome(O::ConnectionFailure, true),
      Outcome(O::Completed)});
  ASIHTTPRequest::SetTransport(twice);
  auto failing = ASIHTTPRequest::requestWithURL("http://127.0.0.1:9/x");
  failing->startSynchronous();
  ASSERT_TRUE(failing->error());
  EXPECT_EQ(failing->error()->code(), ASIError::ASIConnectionFailureErrorType);
  EXPECT_EQ(twice->fresh.size(), 2u);

  auto notReused = std::make_shared<ScriptedTransport>(std::vector<HTTPExchangeResult>{
      Outcome(O::ConnectionFailure, false), Outcome(O::Completed)});
  ASIHTTPRequest::SetTransport(notReused);
  auto direct = ASIHTTPRequest::requestWithURL("http://127.0.0.1:9/x");
  direct->startSynchronous();
  EXPECT_TRUE(direct->error());
  EXPECT_EQ(notReused->fresh.size(), 1u);
}
