// Names a Windows share cannot hold, against the local server keeping the
// storage as a share does: such names and case clashes stay on the computer,
// are reported once and listed, and never overwrite anything on either side.

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>

#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// The paths below the client's Docs that its list of held back names holds.
std::set<std::string> HeldBack(const std::string& home) {
  std::ifstream in(fs::path(home) / "Corvalink/.Settings/HeldBackNames.xml");
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const std::string docs = (fs::path(home) / "Corvalink/Docs/").string();
  std::set<std::string> paths;
  static const std::regex entry("<localPath>([^<]*)</localPath>");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), entry); it != std::sregex_iterator(); ++it) {
    std::string path = (*it)[1];
    for (const auto& [entity, character] : {std::pair{"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&amp;", "&"}}) {
      for (auto at = path.find(entity); at != std::string::npos; at = path.find(entity, at + 1)) {
        path.replace(at, std::string(entity).size(), character);
      }
    }
    paths.insert(path.rfind(docs, 0) == 0 ? path.substr(docs.size()) : path);
  }
  return paths;
}

}  // namespace

TEST_F(E2ETest, TwoClientsMakingOneNameInTwoCasesKeepBothContents) {
  Write(ServerDocs() / "readme.txt", "shared\n");
  StartServer();
  std::string alice = MakeClientHome("alice");
  std::string bob = MakeClientHome("bob");
  auto a = StartClient(alice);
  auto b = StartClient(bob);
  ASSERT_TRUE(WaitForPassInStep(*a)) << a->Output();
  ASSERT_TRUE(WaitForPassInStep(*b)) << b->Output();

  Write(ClientDocs(alice) / "Report.txt", "alice's report\n");
  ASSERT_TRUE(WaitFor([&] { return Read(ServerDocs() / "Report.txt") == "alice's report\n"; })) << a->Output();
  Write(ClientDocs(bob) / "report.txt", "bob's report, another one\n");

  // Bob gets alice's file and keeps his own, reported with a name that would go up.
  ASSERT_TRUE(WaitFor([&] {
    return Read(ClientDocs(bob) / "Report.txt") == "alice's report\n" && HeldBack(bob) == std::set<std::string>{"report.txt"};
  })) << b->Output();
  ASSERT_TRUE(WaitForPassInStep(*b));
  ASSERT_TRUE(WaitForPassInStep(*a));
  EXPECT_EQ(Read(ClientDocs(bob) / "report.txt"), "bob's report, another one\n");
  EXPECT_EQ(Tree(ServerDocs()),
            (std::map<std::string, std::string>{{"Report.txt", "alice's report\n"}, {"readme.txt", "shared\n"}}));
  EXPECT_EQ(Tree(ClientDocs(alice)), Tree(ServerDocs()));
  EXPECT_TRUE(HeldBack(alice).empty());
  EXPECT_EQ(b->CountLines("Notification: "), 1) << b->Output();
  EXPECT_EQ(b->CountLines("report.txt stays on this computer"), 1) << b->Output();
  auto status = RunCommand(bob, {"status"});
  EXPECT_NE(status.output.find("Held back (1):\n  " + (ClientDocs(bob) / "report.txt").string() +
                               " stays on this computer: "),
            std::string::npos)
      << status.output;
  EXPECT_NE(status.output.find("Rename it, for example to \"report (2).txt\""), std::string::npos) << status.output;

  // Bob renames his file as told: it goes up, and nothing is held back any more.
  fs::rename(ClientDocs(bob) / "report.txt", ClientDocs(bob) / "report (2).txt");
  ASSERT_TRUE(WaitFor([&] { return Read(ServerDocs() / "report (2).txt") == "bob's report, another one\n"; }))
      << b->Output();
  ASSERT_TRUE(WaitFor([&] { return HeldBack(bob).empty() && Tree(ClientDocs(alice)) == Tree(ServerDocs()); }));
  EXPECT_EQ(RunCommand(bob, {"status"}).output.find("Held back"), std::string::npos);
  EXPECT_EQ(Read(ServerDocs() / "Report.txt"), "alice's report\n");
  for (auto* client : {a.get(), b.get()}) {
    client->Signal(SIGTERM);
    EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  }
  EXPECT_EQ(ExceptionLog(alice), "");
  EXPECT_EQ(ExceptionLog(bob), "");
}

TEST_F(E2ETest, ALocalCaseClashStaysHereAndACaseOnlyRenameGoesUpAsARename) {
  Write(ServerDocs() / "Plan.txt", "the plan\n");
  Write(ServerDocs() / "notes.txt", "notes\n");
  StartServer();
  std::string home = MakeClientHome("alice");
  ASSERT_EQ(RunOnce(home), 0);

  // A second file of the same name in another case, made while the client was away.
  Write(ClientDocs(home) / "plan.txt", "my own plan\n");
  ASSERT_EQ(RunOnce(home), 0);
  EXPECT_EQ(HeldBack(home), std::set<std::string>{"plan.txt"});
  EXPECT_EQ(Read(ServerDocs() / "Plan.txt"), "the plan\n");
  EXPECT_FALSE(fs::exists(ServerDocs() / "plan.txt"));

  auto client = StartClient(home);
  ASSERT_TRUE(WaitForPassInStep(*client)) << client->Output();
  EXPECT_EQ(client->CountLines("Notification: "), 0) << "told once, at the pass that found it";
  fs::rename(ClientDocs(home) / "notes.txt", ClientDocs(home) / "Notes.txt");
  ASSERT_TRUE(WaitFor([&] { return Tree(ServerDocs()).count("Notes.txt") == 1; })) << client->Output();
  EXPECT_EQ(Tree(ServerDocs()), (std::map<std::string, std::string>{{"Notes.txt", "notes\n"}, {"Plan.txt", "the plan\n"}}));
  EXPECT_TRUE(WaitFor([&] { return server_->CountLines("MoveFile") >= 1; }, 5s)) << "a rename, not a new file";
  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  EXPECT_EQ(ExceptionLog(home), "");
}

TEST_F(E2ETest, NamesTheShareRefusesStayUntilTheUserRenamesThem) {
  Write(ServerDocs() / "readme.txt", "shared\n");
  StartServer();
  std::string home = MakeClientHome("alice");
  auto client = StartClient(home);
  ASSERT_TRUE(WaitForPassInStep(*client)) << client->Output();

  Write(ClientDocs(home) / "q&a: why?.txt", "answers\n");
  Write(ClientDocs(home) / "con.log", "device\n");
  Write(ClientDocs(home) / "AUX/inside.txt", "inside\n");
  Write(ClientDocs(home) / "fine.txt", "fine\n");
  ASSERT_TRUE(WaitFor([&] {
    return fs::exists(ServerDocs() / "fine.txt") &&
           HeldBack(home) == std::set<std::string>{"q&a: why?.txt", "con.log", "AUX"};
  })) << client->Output();
  ASSERT_TRUE(WaitForPassInStep(*client));
  ASSERT_TRUE(WaitForPassInStep(*client));
  EXPECT_EQ(client->CountLines("Notification: "), 3) << "once for each, in no loop" << client->Output();
  EXPECT_EQ(Tree(ServerDocs()),
            (std::map<std::string, std::string>{{"fine.txt", "fine\n"}, {"readme.txt", "shared\n"}}));

  fs::rename(ClientDocs(home) / "q&a: why?.txt", ClientDocs(home) / "q&a why.txt");
  fs::rename(ClientDocs(home) / "AUX", ClientDocs(home) / "AUX files");
  ASSERT_TRUE(WaitFor([&] {
    return Read(ServerDocs() / "q&a why.txt") == "answers\n" && Read(ServerDocs() / "AUX files/inside.txt") == "inside\n";
  })) << client->Output();
  EXPECT_TRUE(WaitFor([&] { return HeldBack(home) == std::set<std::string>{"con.log"}; })) << client->Output();
  fs::remove(ClientDocs(home) / "con.log");
  EXPECT_TRUE(WaitFor([&] { return HeldBack(home).empty(); })) << client->Output();
  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  EXPECT_EQ(RunOnce(home), 0);
  EXPECT_EQ(ExceptionLog(home), "");
}

TEST_F(E2ETest, AServerNameTooLongForThisDiskIsReportedNeverCut) {
  // 250 bytes in two-byte letters: the server holds it, a download here could
  // not even write its temporary file.
  std::string longName;
  for (int i = 0; i < 125; ++i) longName += "é";
  Write(ServerDocs() / longName, "long\n");
  Write(ServerDocs() / "short.txt", "short\n");
  StartServer();
  std::string home = MakeClientHome("alice");
  auto client = StartClient(home, true);
  EXPECT_EQ(client->Wait(60s), 0) << client->Output();
  EXPECT_EQ(client->CountLines("stays on the server"), 1) << client->Output();
  EXPECT_EQ(Tree(ClientDocs(home)), (std::map<std::string, std::string>{{"short.txt", "short\n"}}));
  EXPECT_EQ(HeldBack(home), std::set<std::string>{longName});
  EXPECT_NE(RunCommand(home, {"status"}).output.find(longName + " stays on the server: "), std::string::npos);

  // Renamed on the server to a name this disk holds: it comes down, and the report goes.
  fs::rename(ServerDocs() / longName, ServerDocs() / "shorter.txt");
  EXPECT_EQ(RunOnce(home), 0);
  EXPECT_EQ(Read(ClientDocs(home) / "shorter.txt"), "long\n");
  EXPECT_TRUE(HeldBack(home).empty());
  EXPECT_EQ(ExceptionLog(home), "");
}
