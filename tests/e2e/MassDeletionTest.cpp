// A server that stops listing every file of a storage: the client holds the
// deletions, tells the user, goes on with the rest, and does what the user answers.

#include <signal.h>

#include <filesystem>

#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::vector<std::string> kFiles = {"top.txt", "d/one.txt", "d/e/two.txt"};

void EmptyFiles(const fs::path& storage) {
  for (const auto& name : {"top.txt", "d", "mine.txt"}) fs::remove_all(storage / name);
  fs::create_directories(storage / "left");  // an empty listing would only count as offline
}

}  // namespace

TEST_F(E2ETest, DeletionsOfAWholeStorageWaitForTheUsersAnswer) {
  for (const auto& name : kFiles) Write(ServerDocs() / name, "bytes of " + name);
  StartServer();
  const std::string home = MakeClientHome("alice");
  auto client = StartClient(home);
  auto inStep = [&] { return Tree(ClientDocs(home)) == Tree(ServerDocs()); };
  ASSERT_TRUE(WaitFor(inStep)) << client->Output();
  ASSERT_TRUE(WaitForPassInStep(*client));

  // Emptied on the server: held and told; a file made here meanwhile still goes up.
  EmptyFiles(ServerDocs());
  ASSERT_TRUE(WaitFor([&] { return client->Output().find("no longer lists 3 of its 3") != std::string::npos; }))
      << client->Output();
  Write(ClientDocs(home) / "mine.txt", "made here");
  ASSERT_TRUE(WaitFor([&] { return fs::exists(ServerDocs() / "mine.txt"); })) << client->Output();
  for (const auto& name : kFiles) EXPECT_EQ(Read(ClientDocs(home) / name), "bytes of " + name) << name;
  EXPECT_NE(RunCommand(home, {"status"}).output.find("Deletions held: Storage \"Docs\""), std::string::npos);
  EXPECT_EQ(RunCommand(home, {"confirm-deletes", "Team"}).code, 1);

  // Declined: the files go back up and both sides hold them.
  auto declined = RunCommand(home, {"decline-deletes", "Docs"});
  EXPECT_EQ(declined.code, 0) << declined.output;
  ASSERT_TRUE(WaitFor([&] { return inStep() && fs::exists(ServerDocs() / "top.txt"); })) << client->Output();
  for (const auto& name : kFiles) EXPECT_EQ(Read(ServerDocs() / name), "bytes of " + name) << name;
  ASSERT_TRUE(WaitForPassInStep(*client));

  // Emptied again and confirmed: to the Trash, and the trees meet.
  EmptyFiles(ServerDocs());
  ASSERT_TRUE(WaitFor([&] { return client->Output().find("no longer lists 4 of its 4") != std::string::npos; }))
      << client->Output();
  EXPECT_TRUE(fs::exists(ClientDocs(home) / "top.txt"));
  auto confirmed = RunCommand(home, {"confirm-deletes", "Docs"});
  EXPECT_EQ(confirmed.code, 0) << confirmed.output;
  ASSERT_TRUE(WaitFor(inStep)) << client->Output();
  EXPECT_TRUE(SomeFileHolds(TrashOf(home), "bytes of d/e/two.txt"));
  EXPECT_TRUE(SomeFileHolds(TrashOf(home), "made here"));
  EXPECT_EQ(RunCommand(home, {"status"}).output.find("Deletions held"), std::string::npos);

  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  EXPECT_EQ(ExceptionLog(home), "");
}
