// States the sync must come out of by itself: an item that changed its kind on
// one side or both, and a record or a configuration that cannot be read.

#include <signal.h>

#include <filesystem>
#include <fstream>

#include "E2EFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

using TreeMap = std::map<std::string, std::string>;
constexpr const char* kFolder = "<folder>";

void MakeTree(const fs::path& folder, const TreeMap& tree) {
  for (const auto& [relative, content] : tree) {
    if (content == kFolder) {
      fs::create_directories(folder / relative);
    } else {
      fs::create_directories((folder / relative).parent_path());
      std::ofstream(folder / relative, std::ios::binary) << content;
    }
  }
}

// Takes away what stands at relative and puts tree there instead.
void Replace(const fs::path& folder, const std::string& relative, const TreeMap& tree) {
  fs::remove_all(folder / relative);
  MakeTree(folder, tree);
}

struct TypeChange {
  const char* name;
  TreeMap before;  // on the server, synced once
  bool onServer;   // where the kind changes
  std::string path;
  TreeMap replacement;
  TreeMap otherSide;  // written on the other side at the same time
  TreeMap expected;   // both sides at the end
  // Content the replaced item held, found again on the server (a version) or
  // in the client's Trash.
  std::string keptOnServer;
  std::string keptInTrash;
};

const TypeChange kTypeChanges[] = {
    {"LocalFileBecomesAFolder",
     {{"thing", "server thing\n"}, {"keep.txt", "keep\n"}},
     false,
     "thing",
     {{"thing/mine.txt", "mine\n"}, {"thing/deeper/more.txt", "more\n"}},
     {},
     {{"keep.txt", "keep\n"},
      {"thing", kFolder},
      {"thing/mine.txt", "mine\n"},
      {"thing/deeper", kFolder},
      {"thing/deeper/more.txt", "more\n"}},
     "server thing\n",
     ""},
    {"LocalFolderBecomesAFile",
     {{"dir/a.txt", "a\n"}, {"dir/sub/b.txt", "b\n"}},
     false,
     "dir",
     {{"dir", "now a file\n"}},
     {},
     {{"dir", "now a file\n"}},
     "b\n",
     ""},
    {"ServerFileBecomesAFolder",
     {{"thing", "server thing\n"}},
     true,
     "thing",
     {{"thing/inner/x.txt", "x\n"}},
     {},
     {{"thing", kFolder}, {"thing/inner", kFolder}, {"thing/inner/x.txt", "x\n"}},
     "",
     "server thing\n"},
    {"ServerFolderBecomesAFile",
     {{"dir/a.txt", "a\n"}, {"dir/sub/b.txt", "b\n"}},
     true,
     "dir",
     {{"dir", "now a file\n"}},
     {},
     {{"dir", "now a file\n"}},
     "",
     "b\n"},
    // Both sides changed: the server's item keeps the name, the user's goes up
    // as a local copy.
    {"LocalFolderAgainstAServerEdit",
     {{"thing", "v1\n"}},
     false,
     "thing",
     {{"thing/mine.txt", "mine\n"}},
     {{"thing", "v2, edited on the server\n"}},
     {{"thing", "v2, edited on the server\n"},
      {"thing - localcopy", kFolder},
      {"thing - localcopy/mine.txt", "mine\n"}},
     "",
     ""},
    {"ServerFolderAgainstALocalEdit",
     {{"plan.txt", "v1\n"}},
     true,
     "plan.txt",
     {{"plan.txt/x.txt", "x\n"}},
     {{"plan.txt", "edited here, longer than before\n"}},
     {{"plan.txt", kFolder}, {"plan.txt/x.txt", "x\n"}, {"plan - localcopy.txt", "edited here, longer than before\n"}},
     "",
     ""},
    // New on both sides, of one size: only the server's hash tells them apart.
    {"NewFileOfTheSameSizeOnBothSides",
     {},
     false,
     "twin.txt",
     {{"twin.txt", "local words\n"}},
     {{"twin.txt", "server text\n"}},
     {{"twin.txt", "server text\n"}, {"twin - localcopy.txt", "local words\n"}},
     "",
     ""},
};

void PrintTo(const TypeChange& change, std::ostream* out) { *out << change.name; }

class TypeChangeTest : public E2ETest, public ::testing::WithParamInterface<TypeChange> {};

}  // namespace

TEST_P(TypeChangeTest, ConvergesInOneOrTwoPassesAndLosesNothing) {
  const TypeChange& change = GetParam();
  MakeTree(ServerDocs(), change.before);
  StartServer();
  std::string home = MakeClientHome("alice");
  ASSERT_EQ(RunOnce(home), 0);
  ASSERT_EQ(Tree(ClientDocs(home)), Tree(ServerDocs()));

  const fs::path changed = change.onServer ? ServerDocs() : ClientDocs(home);
  const fs::path other = change.onServer ? ClientDocs(home) : ServerDocs();
  Replace(changed, change.path, change.replacement);
  MakeTree(other, change.otherSide);

  auto converged = [&] { return Tree(ClientDocs(home)) == change.expected && Tree(ServerDocs()) == change.expected; };
  for (int pass = 0; pass < 2 && !converged(); ++pass) RunOnce(home);
  EXPECT_EQ(Tree(ClientDocs(home)), change.expected);
  EXPECT_EQ(Tree(ServerDocs()), change.expected);
  EXPECT_EQ(RunOnce(home), 0) << "a pass after the change must end in step";
  if (!change.keptOnServer.empty()) {
    EXPECT_TRUE(SomeFileHolds(ServerState(), change.keptOnServer));
  }
  if (!change.keptInTrash.empty()) {
    EXPECT_TRUE(SomeFileHolds(TrashOf(home), change.keptInTrash));
  }
  EXPECT_EQ(ExceptionLog(home), "");
}

INSTANTIATE_TEST_SUITE_P(E2E, TypeChangeTest, ::testing::ValuesIn(kTypeChanges),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(E2ETest, KindChangesMadeWhileTheClientRunsReachTheServer) {
  Write(ServerDocs() / "thing", "a file first\n");
  Write(ServerDocs() / "dir/a.txt", "a\n");
  StartServer();
  std::string home = MakeClientHome("alice");
  auto client = StartClient(home);
  auto inStep = [&] { return Tree(ClientDocs(home)) == Tree(ServerDocs()); };
  ASSERT_TRUE(WaitFor(inStep)) << client->Output();
  ASSERT_TRUE(WaitForPassInStep(*client));

  Replace(ClientDocs(home), "thing", {{"thing/mine.txt", "mine\n"}, {"thing/deeper/more.txt", "more\n"}});
  Replace(ClientDocs(home), "dir", {{"dir", "a file now\n"}});
  ASSERT_TRUE(WaitFor([&] {
    return inStep() && fs::is_directory(ServerDocs() / "thing") && fs::is_regular_file(ServerDocs() / "dir");
  })) << client->Output();
  EXPECT_EQ(Read(ServerDocs() / "thing/deeper/more.txt"), "more\n");
  EXPECT_EQ(Read(ServerDocs() / "dir"), "a file now\n");
  EXPECT_TRUE(SomeFileHolds(ServerState(), "a file first\n"));
  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0);
  EXPECT_EQ(RunOnce(home), 0);
  EXPECT_EQ(ExceptionLog(home), "");
}

TEST_F(E2ETest, ARecordOfJunkIsRebuiltAndDeletionsAreFollowedAgain) {
  Write(ServerDocs() / "a.txt", "a\n");
  Write(ServerDocs() / "b.txt", "b\n");
  Write(ServerDocs() / "sub/c.txt", "c\n");
  StartServer();
  std::string home = MakeClientHome("alice");
  ASSERT_EQ(RunOnce(home), 0);
  const fs::path record = fs::path(home) / "Corvalink/.Settings/DownloadedFiles.xml";
  Write(record, "junk, not a record <<<");
  // Changed on one side since: no record can say which, so it goes through the
  // first sync's flow and nothing is overwritten.
  Write(ClientDocs(home) / "b.txt", "b, edited while the record was lost\n");

  auto client = StartClient(home);
  ASSERT_TRUE(WaitFor([&] { return client->CountLines("Notification: ") >= 1; })) << client->Output();
  ASSERT_TRUE(WaitForPassInStep(*client));
  const std::string rebuilt = Read(record);
  for (const char* name : {"/a.txt<", "/sub<", "/sub/c.txt<"}) {
    EXPECT_NE(rebuilt.find(std::string("Docs") + name), std::string::npos) << name << "\n" << rebuilt;
  }
  EXPECT_EQ(Read(ServerDocs() / "b.txt"), "b\n");
  EXPECT_TRUE(WaitFor([&] { return Read(ServerDocs() / "b - localcopy.txt") == "b, edited while the record was lost\n"; }))
      << client->Output();

  // Deletions on either side are followed again, to the server's versions and
  // the client's Trash.
  fs::remove(ClientDocs(home) / "a.txt");
  fs::remove(ServerDocs() / "sub/c.txt");
  ASSERT_TRUE(WaitFor([&] {
    return !fs::exists(ServerDocs() / "a.txt") && !fs::exists(ClientDocs(home) / "sub/c.txt");
  })) << client->Output();
  EXPECT_TRUE(SomeFileHolds(ServerState(), "a\n"));
  EXPECT_TRUE(SomeFileHolds(TrashOf(home), "c\n"));
  EXPECT_TRUE(WaitFor([&] { return Tree(ClientDocs(home)) == Tree(ServerDocs()); })) << client->Output();
  EXPECT_EQ(client->CountLines("DownloadedFiles.xml"), 1) << client->Output();
  client->Signal(SIGTERM);
  EXPECT_EQ(client->Wait(30s), 0);
  EXPECT_EQ(RunOnce(home), 0);
}

TEST_F(E2ETest, AConfigurationOfJunkIsToldWithItsCopyAndHowToSignInAgain) {
  StartServer();
  std::string home = MakeClientHome("alice");
  const fs::path settings = fs::path(home) / "Corvalink/.Settings";
  Write(settings / "Configuration.xml", "junk, not a configuration");
  auto client = StartClient(home, true);
  EXPECT_EQ(client->Wait(30s), 2) << client->Output();
  const std::string output = client->Output();
  EXPECT_EQ(output.find("No account is signed in"), std::string::npos) << output;
  EXPECT_NE(output.find("Configuration.xml could not be read"), std::string::npos) << output;
  EXPECT_NE(output.find("Sign in again"), std::string::npos) << output;
  bool copyNamed = false;
  for (const auto& entry : fs::directory_iterator(settings)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("Configuration.xml.broken-", 0) != 0) continue;
    EXPECT_EQ(Read(entry.path()), "junk, not a configuration");
    copyNamed |= output.find(entry.path().string()) != std::string::npos;
  }
  EXPECT_TRUE(copyNamed) << output;
  const auto status = RunCommand(home, {"status"});
  EXPECT_EQ(status.code, 2) << status.output;
  EXPECT_NE(status.output.find("Configuration.xml could not be read; its copy is kept in " + settings.string()),
            std::string::npos)
      << status.output;
}
