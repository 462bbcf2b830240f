// Two accounts on one local server: what alice shares, bob lists with
// `shared in` and brings into his "Shared In" cache with `fetch`; his sync
// leaves the cache alone; alice ends the share with `shared out unshare`.
// Upload requests: alice asks two people for files, one sends a file (the
// server's test call), alice lists and fetches it, then deletes the request.

#include <httplib.h>

#include "E2EFixture.h"

class SharedCommandTest : public E2ETest {};

TEST_F(SharedCommandTest, BobSeesAndFetchesWhatAliceShared) {
  StartServer({"--user", "bob:pw"});
  const std::string alice = MakeClientHome("alice");
  const std::string bob = MakeClientHomeAs("bob", "bob", "pw");
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
      {alice, {"shared", "out", "resend", "2"}, 0, "The notice was sent again."},
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

TEST_F(SharedCommandTest, AliceFetchesWhatCameInThroughARequest) {
  StartServer();
  const std::string alice = MakeClientHome("alice");
  auto created = RunCommand(alice, {"request", "create", "Tax 2026", "--to", "ann@example.com", "joe@example.com",
                                    "--days", "5"});
  ASSERT_EQ(created.code, 0) << created.output;
  // Someone outside sends a file through ann's request.
  httplib::Client server(serverUrl_.substr(0, serverUrl_.size() - 1));
  const std::string envelope =
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><SimulateExternalUpload>"
      "<RequestId>1</RequestId><FileName>receipts.txt</FileName><Content>twelve receipts</Content>"
      "</SimulateExternalUpload></s:Body></s:Envelope>";
  auto sent = server.Post("/CorvalinkWS.asmx", envelope, "text/xml");
  ASSERT_TRUE(sent && sent->body.find(">0;<") != std::string::npos);

  const auto cache = std::filesystem::path(alice) / "Corvalink" / "External user uploads";
  const std::string received = (cache / "Tax 2026" / "ann@example.com" / "receipts.txt").string();
  struct Case {
    std::vector<std::string> arguments;
    int code;
    std::string output;
  } cases[] = {
      {{"requests"}, 0, "Tax 2026\n  1  ann@example.com  Expires On: "},
      {{"requests"}, 0, "      receipts.txt  15 bytes\n  2  joe@example.com"},
      {{"request", "fetch", "1", "2"}, 0, "1 downloaded to " + cache.string()},
      {{"requests"}, 0, "receipts.txt  15 bytes  in the cache: " + received},
      {{"request", "resend", "2"}, 0, "Email resent successfully."},
      {{"request", "delete", "2"}, 1, "Delete upload request?"},
      {{"request", "delete", "2", "--yes"}, 0, "Upload request deleted successfully."},
      {{"request", "fetch", "2"}, 1, "No upload request 2."},
      {{"request", "create", "Next", "--to", "not-an-address"}, 1, "not-an-address: "},
  };
  for (const auto& c : cases) {
    auto run = RunCommand(alice, c.arguments);
    EXPECT_EQ(run.code, c.code) << c.arguments.back() << "\n" << run.output;
    EXPECT_NE(run.output.find(c.output), std::string::npos) << run.output;
  }
  EXPECT_EQ(Read(received), "twelve receipts");
  EXPECT_EQ(Tree(cache).size(), 3u);  // the session's folder, ann's folder, the file
}
