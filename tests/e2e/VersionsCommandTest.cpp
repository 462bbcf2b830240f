// `corvalink-sync versions` against the local server: a file edited three times
// has three earlier versions; the first restored comes back to the client with
// its record; a save onto an existing file replaces it only with a whole version.

#include "E2EFixture.h"

class VersionsCommandTest : public E2ETest {};

TEST_F(VersionsCommandTest, ListRestoreAndSaveAs) {
  StartServer();
  const std::string home = MakeClientHome("alice");
  const auto file = ClientDocs(home) / "notes.txt";
  Write(ServerDocs() / "notes.txt", "first");
  ASSERT_EQ(RunOnce(home), 0);
  for (const char* content : {"second!", "third!!!", "fourth"}) {
    Write(file, content);
    ASSERT_EQ(RunOnce(home), 0);
  }
  ASSERT_EQ(Read(ServerDocs() / "notes.txt"), "fourth");

  const auto listed = RunCommand(home, {"versions", file.string()});
  EXPECT_EQ(listed.code, 0) << listed.output;
  for (const char* row : {"Version  Modified          Modified by  Size", "  1 ", "alice        5 bytes",
                          "alice        7 bytes", "  3 "}) {
    EXPECT_NE(listed.output.find(row), std::string::npos) << row << "\n" << listed.output;
  }

  const auto target = root_ / "kept.txt";
  Write(target, "mine");
  struct Case {
    std::vector<std::string> arguments;
    int code;
    std::string output;
    std::string target;  // what kept.txt holds afterwards
  } cases[] = {
      {{"--save", "9", target.string()}, 1, "Version not found.", "mine"},
      {{"--save", "2", target.string()}, 0, "Version 2 was saved to " + target.string(), "second!"},
      {{"--restore", "9"}, 1, "Version not found.", "second!"},
      {{"--restore"}, 64, "--restore needs a version", "second!"},
      {{"--restore", "1"}, 0, "Version 1 is the file's content on the server now.", "second!"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> arguments{"versions", file.string()};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const auto run = RunCommand(home, arguments);
    EXPECT_EQ(run.code, c.code) << run.output;
    EXPECT_NE(run.output.find(c.output), std::string::npos) << run.output;
    EXPECT_EQ(Read(target), c.target);
  }
  EXPECT_EQ(Read(ServerDocs() / "notes.txt"), "first");

  // The restored content comes down with the next pass, and the record follows it.
  ASSERT_EQ(RunOnce(home), 0);
  EXPECT_EQ(Read(file), "first");
  const std::string record = Read(std::filesystem::path(home) / "Corvalink/.Settings/DownloadedFiles.xml");
  const auto entry = record.find(file.string());
  ASSERT_NE(entry, std::string::npos) << record;
  EXPECT_EQ(record.find("<size>5</size>", entry), record.find("<size>", entry)) << record;

  const auto outside = RunCommand(home, {"versions", target.string()});
  EXPECT_EQ(outside.code, 1);
  EXPECT_NE(outside.output.find("This file is not in a synced storage."), std::string::npos) << outside.output;
}
