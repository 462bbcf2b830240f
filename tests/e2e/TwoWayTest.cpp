// Both directions with real processes: clients' local changes reach the server
// and the other client, the server's reach the clients, and nothing a user wrote
// is lost on the way, whatever fails or is killed.

#include <signal.h>

#include <filesystem>

#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string Pattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  std::uint32_t state = seed * 2654435761u + 1;
  for (auto& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace

TEST_F(E2ETest, TwoClientsFollowEachOtherAndTheServer) {
  Write(ServerDocs() / "shared/readme.txt", "first words\n");
  Write(ServerDocs() / "shared/deep/data.bin", Pattern(300000, 1));
  StartServer();
  std::string alice = MakeClientHome("alice");
  std::string bob = MakeClientHome("bob");
  auto a = StartClient(alice);
  auto b = StartClient(bob);
  auto allInStep = [&] {
    auto server = Tree(ServerDocs());
    return Tree(ClientDocs(alice)) == server && Tree(ClientDocs(bob)) == server;
  };
  ASSERT_TRUE(WaitFor(allInStep)) << a->Output() << b->Output();
  ASSERT_TRUE(WaitForPassInStep(*a));

  // Alice makes a tree, edits a file and renames a folder.
  Write(ClientDocs(alice) / "from alice/sub/new.txt", "made by alice\n");
  Write(ClientDocs(alice) / "from alice/large.bin", Pattern(3 * 1024 * 1024 + 5, 2));
  Write(ClientDocs(alice) / "shared/readme.txt", "first words\nand more from alice\n");
  fs::rename(ClientDocs(alice) / "shared", ClientDocs(alice) / "common");
  ASSERT_TRUE(WaitFor(allInStep)) << a->Output() << b->Output();
  EXPECT_EQ(Read(ServerDocs() / "common/readme.txt"), "first words\nand more from alice\n");
  EXPECT_FALSE(fs::exists(ServerDocs() / "shared"));

  // The server changes: a new file, a deletion, an edit.
  Write(ServerDocs() / "from the server.txt", "server side\n");
  fs::remove(ServerDocs() / "from alice/sub/new.txt");
  Write(ServerDocs() / "common/readme.txt", "rewritten on the server\n");
  ASSERT_TRUE(WaitFor(allInStep)) << a->Output() << b->Output();
  ASSERT_TRUE(WaitForPassInStep(*b));

  // Bob moves a file into a folder and deletes a folder.
  fs::rename(ClientDocs(bob) / "from the server.txt", ClientDocs(bob) / "from alice/from the server.txt");
  fs::remove_all(ClientDocs(bob) / "from alice/sub");
  fs::remove(ClientDocs(bob) / "common/deep/data.bin");
  ASSERT_TRUE(WaitFor(allInStep)) << a->Output() << b->Output();
  EXPECT_TRUE(fs::exists(ServerDocs() / "from alice/from the server.txt"));
  EXPECT_FALSE(fs::exists(ServerDocs() / "from alice/sub"));
  EXPECT_FALSE(fs::exists(ServerDocs() / "common/deep/data.bin"));

  for (auto* client : {a.get(), b.get()}) {
    client->Signal(SIGTERM);
    EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  }
  EXPECT_EQ(ExceptionLog(alice), "");
  EXPECT_EQ(ExceptionLog(bob), "");
}

TEST_F(E2ETest, AnEditOnBothSidesKeepsBothVersions) {
  Write(ServerDocs() / "plan.txt", "version one\n");
  StartServer();
  std::string alice = MakeClientHome("alice");
  auto a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] { return Tree(ClientDocs(alice)) == Tree(ServerDocs()); })) << a->Output();
  a->Signal(SIGTERM);
  ASSERT_EQ(a->Wait(30s), 0);

  // Both sides change the file while the client is not running.
  Write(ServerDocs() / "plan.txt", "the server's version two\n");
  Write(ClientDocs(alice) / "plan.txt", "alice's version two, longer than the server's\n");
  a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] {
    return Tree(ClientDocs(alice)) == Tree(ServerDocs()) && fs::exists(ServerDocs() / "plan - localcopy.txt");
  })) << a->Output();
  EXPECT_EQ(Read(ServerDocs() / "plan.txt"), "the server's version two\n");
  EXPECT_EQ(Read(ServerDocs() / "plan - localcopy.txt"), "alice's version two, longer than the server's\n");
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(30s), 0);
  EXPECT_EQ(ExceptionLog(alice), "");
}

TEST_F(E2ETest, AClientKilledInTheMiddleOfAnUploadGoesOnWithTheMissingParts) {
  // Small parts, each answered slowly, so that the kill lands in the middle.
  StartServer({"--part-size", "256", "--fail", "UploadStorageFile.ashx,*,delay=100"});
  std::string alice = MakeClientHome("alice");
  auto a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] { return fs::exists(ClientDocs(alice)); })) << a->Output();
  const std::string content = Pattern(6 * 1024 * 1024, 3);  // 24 parts
  Write(ClientDocs(alice) / "video.bin", content);
  ASSERT_TRUE(WaitFor([&] { return server_->CountLines("POST UploadStorageFile.ashx") >= 6; })) << a->Output();
  a->Signal(SIGKILL);
  a->Wait(10s);
  const int before = server_->CountLines("POST UploadStorageFile.ashx");
  ASSERT_LT(before, 24);
  EXPECT_FALSE(fs::exists(ServerDocs() / "video.bin"));

  a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] { return Read(ServerDocs() / "video.bin") == content; })) << a->Output();
  // Each part reached the server whole once. Parts go three at a time: the
  // kill may cut the bodies of several, and only those are sent again.
  auto sent = [&] { return server_->CountLines("POST UploadStorageFile.ashx"); };
  auto cut = [&] { return server_->CountLines("video.bin: the body did not arrive whole"); };
  WaitFor([&] { return sent() == 24 + cut(); }, 5s);  // the server's last lines may still be on their way
  EXPECT_EQ(sent(), 24 + cut()) << server_->Output();
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(30s), 0);
  EXPECT_EQ(ExceptionLog(alice), "");
}

TEST_F(E2ETest, AClientKilledBeforeItsFilterOrInADownloadLosesNothing) {
  Write(ServerDocs() / "slow.bin", Pattern(1024 * 1024, 4));
  StartServer({"--fail", "DownloadStorageFile.ashx,1,delay=3000"});
  std::string alice = MakeClientHome("alice");
  auto a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] { return server_->CountLines("DownloadStorageFile.ashx") >= 1; })) << a->Output();
  // Killed in the download and right after a burst of local changes.
  for (int i = 0; i < 200; ++i) Write(ClientDocs(alice) / "burst" / ("note " + std::to_string(i) + ".txt"), "n");
  a->Signal(SIGKILL);
  a->Wait(10s);

  a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] { return Tree(ClientDocs(alice)) == Tree(ServerDocs()); })) << a->Output();
  EXPECT_EQ(Tree(ServerDocs() / "burst").size(), 200u);
  EXPECT_EQ(Read(ClientDocs(alice) / "slow.bin"), Read(ServerDocs() / "slow.bin"));
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(30s), 0);
  EXPECT_EQ(ExceptionLog(alice), "");
}

TEST_F(E2ETest, AServerFailingForAWhileDelaysButLosesNothing) {
  Write(ServerDocs() / "old.txt", "on the server\n");
  StartServer({"--fail", "GetFiles,3,result=-100;", "--fail", "UploadStorageFile.ashx,2,status=500", "--fail",
               "MoveFile,1,drop", "--fail", "CreateFolder,1,drop"});
  std::string alice = MakeClientHome("alice");
  auto a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] { return Tree(ClientDocs(alice)) == Tree(ServerDocs()); })) << a->Output();
  ASSERT_TRUE(WaitForPassInStep(*a));
  Write(ClientDocs(alice) / "new folder/new.txt", "local\n");
  fs::rename(ClientDocs(alice) / "old.txt", ClientDocs(alice) / "renamed.txt");
  ASSERT_TRUE(WaitFor([&] {
    return Tree(ClientDocs(alice)) == Tree(ServerDocs()) && fs::exists(ServerDocs() / "new folder/new.txt") &&
           fs::exists(ServerDocs() / "renamed.txt");
  })) << a->Output();
  EXPECT_FALSE(fs::exists(ServerDocs() / "old.txt"));
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(30s), 0);
  EXPECT_EQ(ExceptionLog(alice), "");
}

TEST_F(E2ETest, ARestrictedFolderClosesTheListingButEmptiesNothingAndLocalChangesStillGoUp) {
  Write(ServerDocs() / "open.txt", "open\n");
  Write(ServerDocs() / "Closed/inside.txt", "closed\n");
  StartServer({"--restricted", "Docs/Closed"});
  std::string alice = MakeClientHome("alice");
  Write(ClientDocs(alice) / "kept.txt", "written before the start\n");
  auto a = StartClient(alice);
  // The storage's listing would have to leave the closed folder out: the server
  // refuses it whole, and the client records the restriction instead of taking
  // the missing items for deleted ones.
  fs::path restricted = fs::path(alice) / "Corvalink/.Settings/RestrictedFolders.xml";
  ASSERT_TRUE(WaitFor([&] { return fs::exists(restricted); })) << a->Output();
  Write(ClientDocs(alice) / "later.txt", "after the start\n");
  Write(ClientDocs(alice) / "Closed/mine.txt", "not for the closed folder\n");
  ASSERT_TRUE(WaitFor([&] { return Read(ServerDocs() / "later.txt") == "after the start\n"; })) << a->Output();
  EXPECT_TRUE(WaitFor([&] { return server_->CountLines("Closed") >= 1; }, 10s));
  EXPECT_EQ(Read(ClientDocs(alice) / "kept.txt"), "written before the start\n");
  EXPECT_EQ(Read(ClientDocs(alice) / "Closed/mine.txt"), "not for the closed folder\n");
  EXPECT_FALSE(fs::exists(ServerDocs() / "Closed/mine.txt"));
  EXPECT_EQ(Read(ServerDocs() / "Closed/inside.txt"), "closed\n");
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(30s), 0);
  EXPECT_EQ(ExceptionLog(alice), "");
}

// A server that holds its replies does not hold the client: a quit ends the
// calls in flight, the listing of a pass as well as an item's server call, and
// the change they were for goes up after the next start. The client runs on the
// user's time here, so that its time-outs (minutes) cannot end the calls first.
TEST_F(E2ETest, AQuitEndsCallsTheServerHoldsAndTheirWorkIsDoneAfterTheRestart) {
  Write(ServerDocs() / "report.txt", "quarterly\n");
  StartServer({"--fail", "GetFiles,1,delay=600000", "--fail", "MoveFile,1,delay=600000"});
  std::string alice = MakeClientHome("alice");
  Write(ClientDocs(alice) / "report.txt", "quarterly\n");

  auto a = StartClient(alice, false, "1");
  ASSERT_TRUE(server_->WaitForLine("GetFiles", 30s)) << server_->Output();
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(15s), 0) << a->Output();

  a = StartClient(alice, false, "1");
  ASSERT_TRUE(WaitForPassInStep(*a)) << a->Output();
  fs::rename(ClientDocs(alice) / "report.txt", ClientDocs(alice) / "report 2026.txt");
  ASSERT_TRUE(server_->WaitForLine("MoveFile", 60s)) << a->Output();
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(15s), 0) << a->Output();
  EXPECT_TRUE(fs::exists(ServerDocs() / "report.txt"));

  a = StartClient(alice);
  ASSERT_TRUE(WaitFor([&] {
    return fs::exists(ServerDocs() / "report 2026.txt") && Tree(ClientDocs(alice)) == Tree(ServerDocs());
  })) << a->Output();
  EXPECT_FALSE(fs::exists(ServerDocs() / "report.txt"));
  a->Signal(SIGTERM);
  EXPECT_EQ(a->Wait(30s), 0);
  EXPECT_EQ(ExceptionLog(alice), "");
}
