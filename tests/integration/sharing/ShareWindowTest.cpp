// The share window's workflow against the local server: the recipient search as
// the user types, and shares inside and outside that the server then holds.

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "ClientServerFixture.h"
#include "InternalShare51WindowController.h"
#include "MainQueue.h"
#include "ServerState.h"

using Controller = InternalShare51WindowController;

class ShareWindowTest : public ClientServerTest {
 protected:
  void SetUp() override {
    ClientServerTest::SetUp();
    auto options = DefaultOptions();
    options.users.push_back({"bob", "pw"});
    options.users.push_back({"carol", "pw"});
    StartServer(options);
    ConfigureAccount();
    PutServerFile("Docs", "report.txt", "abc");
    file_ = home_->root() + "/Docs/report.txt";
    std::filesystem::create_directories(home_->root() + "/Docs");
    std::ofstream(file_) << "abc";
  }

  std::unique_ptr<Controller> Open(Controller::WindowType type) {
    auto window = std::make_unique<Controller>(service_, main_.Post(), CVConnection{});
    window->onMessage = [this](const std::string& text) { message_ = text; };
    window->setArrayFiles({file_});
    window->setWindowType(type);
    window->setTarget([this] { closed_ = true; });
    return window;
  }

  ServerSharingService service_;
  MainQueue main_;
  std::string file_, message_;
  bool closed_ = false;
};

TEST_F(ShareWindowTest, TheLatestSearchWinsWhenAnswersComeOutOfOrder) {
  auto window = Open(Controller::kInternalShare);
  server_->FailNext("GetUsersToShare", devserver::Fault::Delay(std::chrono::milliseconds(700)));
  window->searchUsers("car");
  // The slow answer is on its way before the user types on.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (server_->CallCount("GetUsersToShare") < 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  window->searchUsers("bo");
  ASSERT_TRUE(main_.RunUntil([&] { return main_.ran() >= 2; }));
  ASSERT_EQ(window->arraySearch.size(), 1u);
  EXPECT_EQ(window->arraySearch[0].eMail, "bob@devserver");
  EXPECT_TRUE(window->moreButtonHidden);
}

TEST_F(ShareWindowTest, SharesInsideAndOutsideReachTheServer) {
  auto inside = Open(Controller::kInternalShare);
  inside->searchUsers("bo");
  ASSERT_TRUE(main_.RunUntil([&] { return !inside->arraySearch.empty(); }));
  inside->addRecipients(0);
  inside->addRecipients(0);  // the same one again: nothing
  ASSERT_EQ(inside->arrayRecipients.size(), 1u);
  inside->Share();
  ASSERT_TRUE(main_.RunUntil([&] { return closed_; }));
  EXPECT_EQ(message_, Controller::kSharedOne);

  closed_ = false;
  auto outside = Open(Controller::kExternalShare);
  for (const char* address : {"x@example.com", "y@example.com"}) {
    outside->nameField = address;
    outside->emailField = address;
    outside->addRecipients(0);
  }
  outside->expirationCheckBoxAction(false);
  outside->Share();
  ASSERT_TRUE(main_.RunUntil([&] { return closed_; }));
  EXPECT_EQ(message_, Controller::kSharedMany);

  auto shares = server_->state().shares().All();
  ASSERT_EQ(shares.size(), 3u);
  EXPECT_EQ(shares[0].recipientUser, "bob");
  EXPECT_EQ(shares[0].location, server_->LocationOf("Docs") + "report.txt");
  ASSERT_TRUE(shares[0].expiry);
  // The day the window chose, with the call's two minutes' margin.
  auto off = *shares[0].expiry - inside->dateForExpires;
  EXPECT_LT(std::chrono::abs(off), std::chrono::minutes(3));
  EXPECT_EQ(shares[2].recipientEmail, "y@example.com");
  EXPECT_TRUE(shares[2].external);
  EXPECT_FALSE(shares[2].expiry);
}

// Closing a window never waits on the server: a call still on the wire ends at
// once and its answer is never shown.
TEST_F(ShareWindowTest, ClosingTheWindowEndsASearchStillOnTheWire) {
  auto window = Open(Controller::kInternalShare);
  server_->FailNext("GetUsersToShare", devserver::Fault::Delay(std::chrono::minutes(10)));
  window->searchUsers("bo");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (server_->CallCount("GetUsersToShare") < 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_EQ(server_->CallCount("GetUsersToShare"), 1);
  const auto closing = std::chrono::steady_clock::now();
  window.reset();  // without the stop, waits for the call's 20 s time-out
  EXPECT_LT(std::chrono::steady_clock::now() - closing, std::chrono::seconds(10));
  main_.RunPending();
  EXPECT_EQ(message_, "");
}
