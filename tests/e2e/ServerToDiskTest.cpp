// The server's changes reach the disk of a real client process.

#include <filesystem>

#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST_F(E2ETest, AFreshClientFillsItsFoldersAndFollowsTheServer) {
  Write(ServerDocs() / "Reports/2026/Q3 results.txt", "figures\n");
  Write(ServerDocs() / "Reports/notes #1 & more; 50%.txt", "notes\n");
  Write(ServerDocs() / "Grüße aus Köln.txt", "Grüße\n");
  Write(ServerDocs() / "empty.txt", "");
  Write(ServerDocs() / "Private/secret.txt", "not for this machine\n");
  std::string large(3 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 4096);
  Write(ServerDocs() / "Fotos/Été/plage.bin", large);
  fs::create_directories(ServerDocs() / "Empty folder");
  StartServer();
  std::string home = MakeClientHome("alice", {"Private"});

  auto client = StartClient(home);
  auto inStep = [&] { return Tree(ServerDocs(), {"Private"}) == Tree(ClientDocs(home)); };
  ASSERT_TRUE(WaitFor(inStep)) << client->Output();
  EXPECT_FALSE(fs::exists(ClientDocs(home) / "Private"));

  // A change and a deletion on the server come down at a later pass; the deleted
  // file lands in the Trash, not in oblivion.
  Write(ServerDocs() / "Reports/2026/Q3 results.txt", "figures, corrected and longer\n");
  fs::remove(ServerDocs() / "Grüße aus Köln.txt");
  ASSERT_TRUE(WaitFor(inStep)) << client->Output();
  fs::path trash = fs::path(home) / ".local/share/Trash";
  EXPECT_TRUE(WaitFor([&] { return fs::exists(trash / "files/Grüße aus Köln.txt"); }, 10s));
  EXPECT_EQ(Read(trash / "files/Grüße aus Köln.txt"), "Grüße\n");

  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  EXPECT_EQ(ExceptionLog(home), "");
}

TEST_F(E2ETest, AnInterruptedDownloadIsFetchedWholeAtTheNextPass) {
  std::string content(2 * 1024 * 1024, 'z');
  Write(ServerDocs() / "big.bin", content);
  StartServer({"--fail", "DownloadStorageFile.ashx,3,drop=100000"});
  std::string home = MakeClientHome("bob");
  auto client = StartClient(home);
  ASSERT_TRUE(WaitFor([&] { return Read(ClientDocs(home) / "big.bin") == content; })) << client->Output();
  EXPECT_FALSE(fs::exists(ClientDocs(home) / ".big.bin.cvtemp"));
  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0);
}
