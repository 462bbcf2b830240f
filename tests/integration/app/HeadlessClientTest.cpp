// The headless client as a real process against the local server.

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>

#include "CVConfiguration.h"
#include "ChildProcess.h"
#include "ClientServerFixture.h"

using namespace std::chrono_literals;

class HeadlessClientTest : public ClientServerTest {
 protected:
  // The account and the storage Docs, saved as the client reads them at start.
  void SaveAccount(const std::string& password) {
    ConfigureAccount("alice", password);
    CVConfiguration& config = CVConfiguration::Instance();
    config.Corvalink.IsFirstRun = false;
    {
      std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
      config.fSpSites.resize(1);
    }
    config.SaveConfigXML();
  }
  std::unique_ptr<ChildProcess> StartClient(const std::vector<std::string>& extra) {
    std::vector<std::string> arguments{"--headless", "--time-scale", "0.01"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return std::make_unique<ChildProcess>(CORVALINK_SYNC_BINARY, arguments,
                                          std::map<std::string, std::string>{{"HOME", home_->path()},
                                                                             {"XDG_RUNTIME_DIR", ""}});
  }
  std::int64_t StoredLastSync() {
    CVConfiguration::ResetForTests();
    CVConfiguration::Instance().ReadConfigFromFile();
    return CVConfiguration::Instance().LastSync();
  }
};

TEST_F(HeadlessClientTest, NoAccountSaysSoAndExitsWithTwo) {
  auto client = StartClient({"--once"});
  EXPECT_EQ(client->Wait(20s), 2) << client->Output();
  EXPECT_TRUE(client->WaitForLine("No account is signed in", 1s));
  std::string log = home_->ReadLog("CVMainLogs");
  EXPECT_NE(log.find("***** Application started, v."), std::string::npos);
}

TEST_F(HeadlessClientTest, OnePassOnlineRecordsLastSyncAndExitsInStep) {
  SaveAccount("secret");
  auto client = StartClient({"--once"});
  EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  EXPECT_EQ(client->CountExactLines("Corvalink Sync"), 1) << client->Output();
  EXPECT_EQ(client->CountLines("The pass ended in step."), 1) << client->Output();
  EXPECT_TRUE(client->WaitForLine("Last synchronization: ", 1s)) << client->Output();
  EXPECT_GT(StoredLastSync(), 0);
  EXPECT_GE(server_->CallCount("GetDeviceStatus"), 1);
  std::string log = home_->ReadLog("CVMainLogs");
  EXPECT_NE(log.find("CheckCVConnection DEVSTATUS: 1;A"), std::string::npos) << log;
}

TEST_F(HeadlessClientTest, WrongPasswordIsOfflineOnceAndExitsWithOne) {
  SaveAccount("not-the-password");
  auto client = StartClient({"--once"});
  EXPECT_EQ(client->Wait(30s), 1) << client->Output();
  // The client starts offline: the probe's failure is no change of state, so it
  // is told as the end of the pass.
  EXPECT_EQ(client->CountLines("Offline: the server could not be reached"), 1) << client->Output();
  EXPECT_EQ(client->CountLines("Corvalink Sync"), 1) << client->Output();  // the banner only
  EXPECT_EQ(StoredLastSync(), 0);
}

TEST_F(HeadlessClientTest, ServerGoneIsToldOnceAndItsReturnBringsTheClientBack) {
  SaveAccount("secret");
  int port = server_->port();
  auto client = StartClient({});
  ASSERT_TRUE(client->WaitForLine("Last synchronization: ", 20s)) << client->Output();

  server_->Stop();
  ASSERT_TRUE(client->WaitForLine("Corvalink offline.", 20s)) << client->Output();
  std::this_thread::sleep_for(1500ms);  // several 0.4 s ticks, all offline
  EXPECT_EQ(client->CountLines("Corvalink offline."), 1) << client->Output();
  EXPECT_EQ(client->CountLines("Notification: Synchronization error"), 1) << client->Output();

  devserver::ServerOptions options = DefaultOptions();
  options.port = port;
  StartServer(options);
  auto back = [&] { return client->CountExactLines("Corvalink Sync") >= 2; };
  for (int i = 0; i < 400 && !back(); ++i) std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(back()) << client->Output();

  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(20s), 0) << client->Output();
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("***** Application ended ****"), std::string::npos);
}
