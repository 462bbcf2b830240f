// Two accounts on one local server: what alice shares, bob lists with
// `shared in` and brings into his "Shared In" cache with `fetch`; his sync
// leaves the cache alone; alice ends the share with `shared out unshare`.

#include "E2EFixture.h"

class SharedCommandTest : public E2ETest {};

TEST_F(SharedCommandTest, BobSeesAndFetchesWhatAliceShared) {
  StartServer({"--user", "bob:pw"});
  const std::string alice = MakeClientHome("alice");
  const std::string bob = MakeClientHome("bob");
  const auto configuration = std::filesystem::path(bob) / "Corvalink/.Settings/Configuration.xml";
  std::string text = Read(configuration);
  text.replace(text.find("<UserName>alice</UserName><Password>secret"), 42, "<UserName>bob</UserName><Password>pw");
  Write(configuration, text);
  for (const auto& [path, content] : std::map<std::string, std::string>{
           {"report.txt", "numbers"}, {"Plans/q1.txt", "first"}, {"Plans/Later/q2.txt", "second"}}) {
    Write(ServerDocs() / path, content);
    Write(ClientDocs(alice) / path, content);
  }
  for (const char* item : {"report.txt", "Plans"}) {
    auto shared = RunCommand(alice, {"share", (ClientDocs(alice) / item).string(), "--to", "bob"});
    ASSERT_EQ(shared.code, 0) << shared.output;
  }

  const auto cache = std::filesystem::path(bob) / "Corvalink" / "Shared In";
  struct Case {
    std::string home;
    std::vector<std::string> arguments;
    int code;
    std::string output;
  } cases[] = {
      {bob, {"shared", "in"}, 0, "Owners\nA\n  alice\xE2\xA0\x80(alice@devserver)\n    2  Plans/  (expires "},
      {bob, {"shared", "in", "2/Later"}, 0, "    2  q2.txt  6 bytes\n"},
      {bob, {"fetch", "1", "2"}, 0, "2 downloaded to " + cache.string()},
      {bob, {"fetch", "1"}, 0, "0 downloaded to " + cache.string() + ", 1 already there"},
      {bob, {"fetch", "7"}, 1, "No shared item 7."},
      {bob, {"shared", "sideways"}, 64, "usage: shared in|out"},
      {alice, {"shared", "out"}, 0, "Recipients\nB\n  bob\xE2\xA0\x80(bob@devserver)\n"},
      {alice, {"shared", "out", "unshare", "1"}, 1, "Are you sure want to unshare this item?"},
      {alice, {"shared", "out", "unshare", "1", "--yes"}, 0, "Files succesfully unshared"},
      {bob, {"fetch", "1"}, 1, "No shared item 1."},
  };
  for (const auto& c : cases) {
    auto run = RunCommand(c.home, c.arguments);
    EXPECT_EQ(run.code, c.code) << c.arguments[1] << "\n" << run.output;
    EXPECT_NE(run.output.find(c.output), std::string::npos) << run.output;
  }
  const std::map<std::string, std::string> fetched{{"1_report.txt", "numbers"},
                                                   {"2_Plans", "<folder>"},
                                                   {"2_Plans/q1.txt", "first"},
                                                   {"2_Plans/Later", "<folder>"},
                                                   {"2_Plans/Later/q2.txt", "second"}};
  EXPECT_EQ(Tree(cache), fetched);
  // The sync takes the cache for no storage: nothing of it reaches the server.
  const auto server = Tree(ServerDocs());
  EXPECT_EQ(RunOnce(bob), 0);
  EXPECT_EQ(Tree(ServerDocs()), server);
  EXPECT_EQ(Tree(cache), fetched);
}
