// Signing in and changing settings from a terminal, with real processes: the
// commands reach the running client and take effect without a restart, and a
// change of account removes the old account's files only once the new one
// signed in and the user agreed.

#include <signal.h>

#include <filesystem>
#include <thread>

#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class SignInE2ETest : public E2ETest {
 protected:
  void StartServers(std::vector<std::string> extra = {}) {
    fs::create_directories(Server("Archive"));
    fs::create_directories(Server("Team"));
    // Alice's policy names Docs only; Archive is hers to add by hand. Team is bob's.
    Write(root_ / "alice.policy",
          "<Policy><Settings><Editable>true</Editable></Settings><Corvalink><URL edit=\"true\"/></Corvalink>"
          "<Storages><Storage><Type>CIFS</Type><Name>Docs</Name><Path>\\\\devserver\\Docs\\</Path></Storage>"
          "</Storages></Policy>");
    std::vector<std::string> arguments{"--user",    "bob:pw",
                                       "--storage", "Archive=" + Server("Archive").string() + ",user=alice",
                                       "--storage", "Team=" + Server("Team").string() + ",user=bob",
                                       "--policy",  "alice=" + (root_ / "alice.policy").string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    StartServer(arguments);
  }
  fs::path Server(const std::string& storage) const { return root_ / "server" / storage; }
  static fs::path Local(const std::string& home, const std::string& storage) {
    return fs::path(home) / "Corvalink" / storage;
  }
  bool InTrash(const std::string& home, const std::string& name) {
    return fs::exists(fs::path(home) / ".local/share/Trash/files" / name);
  }
};

TEST_F(SignInE2ETest, SignInFromTheTerminalAndCommandsReachTheRunningClient) {
  Write(ServerDocs() / "Reports/q3.txt", "figures\n");
  Write(ServerDocs() / "Private/secret.txt", "not here\n");
  Write(Server("Archive") / "old.txt", "archived\n");
  const std::string large(3 * 1024 * 1024, 'x');
  Write(ServerDocs() / "large.bin", large);
  StartServers({"--fail", "DownloadStorageFile.ashx,2,delay=1500"});
  const std::string home = MakeEmptyHome("alice");
  // A client with no account waits for the sign-in.
  auto client = StartClient(home);
  ASSERT_TRUE(client->WaitForLine("No account is signed in", 10s)) << client->Output();

  auto wrong = RunCommand(home, {"login", serverUrl_, "alice", "--password-stdin"}, "nope\n");
  EXPECT_EQ(wrong.code, 5) << wrong.output;
  EXPECT_NE(wrong.output.find("Unable to login. Invalid username or password."), std::string::npos);
  auto login = RunCommand(home, {"login", serverUrl_, "alice", "--password-stdin"}, "secret\n");
  ASSERT_EQ(login.code, 0) << login.output;
  EXPECT_NE(login.output.find("Signed in as alice"), std::string::npos) << login.output;
  EXPECT_NE(login.output.find("Docs  CIFS   (No sync)"), std::string::npos) << login.output;
  ASSERT_TRUE(client->WaitForLine("Status: in step", 20s)) << client->Output();
  // A second client of the same user does not start.
  auto second = StartClient(home);
  EXPECT_EQ(second->Wait(20s), 4) << second->Output();
  EXPECT_TRUE(second->WaitForLine("already running", 1s));

  auto all = RunCommand(home, {"select", "Docs", "all"});
  ASSERT_EQ(all.code, 0) << all.output;
  auto none = RunCommand(home, {"select", "Docs/Private", "none"});
  ASSERT_EQ(none.code, 0) << none.output;
  // Changed while the pass works on a slow download: the change waits for the
  // operation, then the sync goes on with it.
  ASSERT_TRUE(client->WaitForLine("Status: syncing", 20s)) << client->Output();
  auto added = RunCommand(home, {"storage", "add", "Archive", "\\\\devserver\\Archive\\"});
  ASSERT_EQ(added.code, 0) << added.output;
  ASSERT_TRUE(WaitFor([&] { return fs::exists(Local(home, "Docs") / "Reports/q3.txt"); })) << client->Output();
  ASSERT_TRUE(WaitFor([&] { return Read(Local(home, "Docs") / "large.bin") == large; })) << client->Output();
  EXPECT_FALSE(fs::exists(Local(home, "Docs") / "Private"));

  // Paused, nothing comes; resumed, it does.
  ASSERT_EQ(RunCommand(home, {"pause"}).code, 0);
  auto status = RunCommand(home, {"status"});
  EXPECT_NE(status.output.find("Client: running, paused"), std::string::npos) << status.output;
  Write(ServerDocs() / "Reports/q4.txt", "more figures\n");
  std::this_thread::sleep_for(1500ms);  // a few of the client's scaled 40-second ticks
  EXPECT_FALSE(fs::exists(Local(home, "Docs") / "Reports/q4.txt"));
  ASSERT_EQ(RunCommand(home, {"resume"}).code, 0);
  ASSERT_TRUE(WaitFor([&] { return fs::exists(Local(home, "Docs") / "Reports/q4.txt"); })) << client->Output();

  auto refused = RunCommand(home, {"storage", "add", "Shared In", "\\\\devserver\\Archive\\"});
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.output.find("Storage name should not be equal"), std::string::npos) << refused.output;
  ASSERT_EQ(RunCommand(home, {"select", "Archive", "all"}).code, 0);
  ASSERT_TRUE(WaitFor([&] { return Read(Local(home, "Archive") / "old.txt") == "archived\n"; })) << client->Output();

  auto folders = RunCommand(home, {"folders", "Docs"});
  EXPECT_NE(folders.output.find("[ ] Private/"), std::string::npos) << folders.output;
  EXPECT_NE(folders.output.find("[x] Reports/"), std::string::npos) << folders.output;

  ASSERT_EQ(RunCommand(home, {"quit"}).code, 0);
  EXPECT_EQ(client->Wait(20s), 0) << client->Output();
  EXPECT_EQ(RunCommand(home, {"pause"}).code, 3);
  EXPECT_EQ(ExceptionLog(home), "");
}

TEST_F(SignInE2ETest, AnotherAccountRemovesTheOldFilesOnlyOnceItSignedIn) {
  Write(ServerDocs() / "alice.txt", "alice's file\n");
  Write(Server("Team") / "plan.txt", "bob's plan\n");
  StartServers();
  const std::string home = MakeEmptyHome("shared-machine");
  ASSERT_EQ(RunCommand(home, {"login", serverUrl_, "alice", "--password-stdin"}, "secret\n").code, 0);
  ASSERT_EQ(RunCommand(home, {"select", "Docs", "all"}).code, 0);
  auto client = StartClient(home);
  ASSERT_TRUE(WaitFor([&] { return fs::exists(Local(home, "Docs") / "alice.txt"); })) << client->Output();

  // The same user in another spelling is the same account: nothing goes.
  auto same = RunCommand(home, {"login", serverUrl_.substr(0, serverUrl_.size() - 1), "Alice", "--password-stdin"},
                         "secret\n");
  ASSERT_EQ(same.code, 0) << same.output;
  EXPECT_EQ(same.output.find("Warning"), std::string::npos) << same.output;
  EXPECT_TRUE(fs::exists(Local(home, "Docs") / "alice.txt"));

  // A wrong password for the new account, and a refusal of the question: nothing goes.
  EXPECT_EQ(RunCommand(home, {"login", serverUrl_, "bob", "--password-stdin"}, "nope\n").code, 5);
  auto declined = RunCommand(home, {"login", serverUrl_, "bob", "--password-stdin"}, "pw\n");
  EXPECT_EQ(declined.code, 1) << declined.output;
  EXPECT_NE(declined.output.find("These storage folders go to the Trash: Docs."), std::string::npos)
      << declined.output;
  EXPECT_TRUE(fs::exists(Local(home, "Docs") / "alice.txt"));
  EXPECT_FALSE(InTrash(home, "Docs"));

  auto changed = RunCommand(home, {"login", serverUrl_, "bob", "--password-stdin", "--yes"}, "pw\n");
  ASSERT_EQ(changed.code, 0) << changed.output;
  EXPECT_TRUE(InTrash(home, "Docs"));
  EXPECT_EQ(Read(fs::path(home) / ".local/share/Trash/files/Docs/alice.txt"), "alice's file\n");
  EXPECT_FALSE(fs::exists(Local(home, "Docs") / "alice.txt"));
  EXPECT_EQ(Read(ServerDocs() / "alice.txt"), "alice's file\n");  // the server keeps it
  ASSERT_EQ(RunCommand(home, {"select", "Team", "all"}).code, 0);
  ASSERT_TRUE(WaitFor([&] { return fs::exists(Local(home, "Team") / "plan.txt"); })) << client->Output();
  auto status = RunCommand(home, {"status"});
  EXPECT_NE(status.output.find("Account: bob"), std::string::npos) << status.output;
  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(20s), 0);
  EXPECT_EQ(ExceptionLog(home), "");
}

}  // namespace
