// The client stopped dead at each named crash point while it downloads, uploads,
// renames and deletes: after one restart no file and no queued change is lost
// and the trees meet.

#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <iostream>

#include "CrashPoint.h"
#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST_F(E2ETest, EveryCrashPointLosesNothingAfterARestart) {
  const std::size_t rounds = kCrashPoints.size();
  auto name = [](const char* what, std::size_t round) { return std::string(what) + std::to_string(round) + ".txt"; };
  for (std::size_t round = 0; round < rounds; ++round) {
    Write(ServerDocs() / name("keep", round), "kept " + std::to_string(round));
    Write(ServerDocs() / name("gone", round), "to delete " + std::to_string(round));
  }
  StartServer();
  const std::string home = MakeClientHome("alice");
  ASSERT_EQ(RunOnce(home), 0);

  for (std::size_t round = 0; round < rounds; ++round) {
    const std::string point = kCrashPoints[round];
    SCOPED_TRACE(point);
    setenv("CORVALINK_CRASH_AT", point.c_str(), 1);
    auto crashing = StartClient(home);
    unsetenv("CORVALINK_CRASH_AT");
    auto crashed = [&] { return crashing->CountLines("crash point " + point) > 0; };
    // A point on the way to the first pass stops the client before it could see changes.
    ASSERT_TRUE(WaitFor([&] { return crashed() || crashing->CountExactLines("Status: in step") > 0; }))
        << crashing->Output();
    const bool early = crashed();
    if (early) std::cout << "crash point " << point << " was reached before the first pass ended\n";
    if (!early) {
      Write(ServerDocs() / name("server", round), "from the server " + std::to_string(round));
      Write(ClientDocs(home) / name("local", round), "made here " + std::to_string(round));
      fs::rename(ClientDocs(home) / name("keep", round), ClientDocs(home) / name("renamed", round));
      fs::remove(ClientDocs(home) / name("gone", round));
    }
    EXPECT_EQ(crashing->Wait(60s), 128 + SIGKILL) << crashing->Output();

    auto client = StartClient(home);
    auto converged = [&] {
      if (Tree(ClientDocs(home)) != Tree(ServerDocs())) return false;
      return early || (fs::exists(ServerDocs() / name("local", round)) &&
                       fs::exists(ServerDocs() / name("renamed", round)) &&
                       !fs::exists(ServerDocs() / name("gone", round)) &&
                       fs::exists(ClientDocs(home) / name("server", round)));
    };
    ASSERT_TRUE(WaitFor(converged)) << crashing->Output() << client->Output();
    if (!early) {
      EXPECT_EQ(Read(ServerDocs() / name("local", round)), "made here " + std::to_string(round));
      EXPECT_EQ(Read(ServerDocs() / name("renamed", round)), "kept " + std::to_string(round));
      EXPECT_FALSE(fs::exists(ServerDocs() / name("keep", round)));
    }
    ASSERT_TRUE(WaitForPassInStep(*client));
    // A file the server already holds as sent is taken in step, not copied aside.
    for (const auto& [path, content] : Tree(ServerDocs())) EXPECT_EQ(path.find("localcopy"), std::string::npos) << path;
    client->Signal(SIGTERM);
    EXPECT_EQ(client->Wait(30s), 0) << client->Output();
  }
  EXPECT_EQ(ExceptionLog(home), "");
}
