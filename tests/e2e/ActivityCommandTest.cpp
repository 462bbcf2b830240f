// `corvalink-sync activity` against the local server: what a pass uploaded and
// downloaded is the first page of the account's usage history, and both files
// are local updates; the page after it is empty.

#include "E2EFixture.h"

class ActivityCommandTest : public E2ETest {};

TEST_F(ActivityCommandTest, ListsTheUsageHistoryAndTheLocalUpdates) {
  StartServer();
  const std::string home = MakeClientHome("alice");
  Write(ServerDocs() / "down.txt", "from the server");
  Write(ClientDocs(home) / "up.txt", "from here");
  ASSERT_EQ(RunOnce(home), 0);

  const struct {
    std::vector<std::string> arguments;
    int code;
    std::vector<std::string> lines;
  } cases[] = {
      {{}, 0, {"Usage history, page 0:", "  Action      Date", "  Uploaded  ", "\\\\devserver\\Docs\\up.txt",
               "  Downloaded  ", "\\\\devserver\\Docs\\down.txt", "Local updates:", "  Status   Date",
               "  Created  ", (ClientDocs(home) / "up.txt").string(), (ClientDocs(home) / "down.txt").string()}},
      {{"--page", "1"}, 0, {"Usage history, page 1: nothing.", "Local updates:"}},
      {{"--page", "-1"}, 64, {"activity [--page N], N from 0"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> arguments{"activity"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const auto run = RunCommand(home, arguments);
    EXPECT_EQ(run.code, c.code) << run.output;
    for (const auto& line : c.lines) EXPECT_NE(run.output.find(line), std::string::npos) << line << "\n" << run.output;
  }
}
