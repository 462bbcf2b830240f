// `corvalink-sync share` against the local server: links printed for shares
// inside and outside, and a policy without outside shares that says so.

#include "E2EFixture.h"

class ShareCommandTest : public E2ETest {};

TEST_F(ShareCommandTest, SharesInsideAndOutsideAndThePolicysLock) {
  Write(root_ / "policy.xml",
        "<Policy><Settings><ExternalSharing>false</ExternalSharing><InternalSharing>true</InternalSharing>"
        "</Settings></Policy>");
  StartServer({"--user", "bob:pw", "--user", "carol:pw", "--policy", "carol=" + (root_ / "policy.xml").string()});
  const std::string home = MakeClientHome("alice");
  Write(ServerDocs() / "report.txt", "numbers");
  Write(ClientDocs(home) / "report.txt", "numbers");
  const std::string file = (ClientDocs(home) / "report.txt").string();

  struct Case {
    std::vector<std::string> arguments;
    int code;
    std::string output;
  } cases[] = {
      {{"share", file, "--to", "bob", "--days", "3"}, 0, "Item was shared successfully.\nreport.txt: https://devserver/s/1 (expires "},
      {{"share", file, "--external", "--to", "x@example.com", "y@example.com", "--days", "0"}, 0,
       "report.txt: https://devserver/s/3 (no expiry)"},
      {{"share", file, "--to", "nobody"}, 1, "No user \"nobody\" was found on the server."},
      {{"share", file}, 1, "Please add at least one recipient."},
      {{"share", "--to", "bob"}, 64, "say which files to share"},
  };
  for (const auto& c : cases) {
    auto run = RunCommand(home, c.arguments);
    EXPECT_EQ(run.code, c.code) << run.output;
    EXPECT_NE(run.output.find(c.output), std::string::npos) << run.output;
  }

  // carol's administrator allows no shares outside.
  const std::string carol = MakeClientHome("carol");
  Write(ClientDocs(carol) / "report.txt", "numbers");
  const auto configuration = std::filesystem::path(carol) / "Corvalink/.Settings/Configuration.xml";
  std::string text = Read(configuration);
  text.replace(text.find("<UserName>alice</UserName><Password>secret"), 42, "<UserName>carol</UserName><Password>pw");
  Write(configuration, text);
  auto refused = RunCommand(carol, {"share", (ClientDocs(carol) / "report.txt").string(), "--external", "--to",
                                    "x@example.com"});
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.output.find("Sharing outside the organisation is turned off by the administrator."),
            std::string::npos)
      << refused.output;
}
