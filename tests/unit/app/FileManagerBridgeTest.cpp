// The file manager channel end to end: the plug-ins' C client against the
// client's socket server and bridge, on a temporary home with one storage.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "CVConfiguration.h"
#include "Clock.h"
#include "FileManagerBridge.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "PollMainLoop.h"
#include "TempHome.h"
#include "WorkerThreads.h"
#include "corvalink_fm_client.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

void Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}
std::string Read(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class FileManagerBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto site = std::make_shared<CVSharepoint>();
    site->Name = "Docs";
    CVConfiguration::Instance().fSpSites.push_back(site);
    fs::create_directories(docs_);
    fs::create_directories(home_.settings());
    std::string error;
    ASSERT_TRUE(server_.Start(error)) << error;
    bridge_.Start();
    loopThread_ = std::thread([this] { loop_.Run(); });
    client_ = cv_fm_open(socket_.c_str(), 2000);
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    cv_fm_close(client_);
    for (CvFmClient* subscriber : subscribers_) cv_fm_close(subscriber);
    loop_.Post([this] {
      bridge_.Stop();
      server_.Stop();
      loop_.Quit(0);
    });
    loopThread_.join();
    workers_.JoinAll();
    IconOverlayInFinderStaticMethods::ResetForTests();
  }
  void State(const std::string& relative, const std::string& state) {
    IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(docs_ + "/" + relative, state, false);
  }
  // The paths a subscriber is told of, until it has been told of count of them.
  std::set<std::string> Changed(CvFmClient* subscriber, std::size_t count) {
    std::set<std::string> paths;
    pollfd waiting{cv_fm_fd(subscriber), POLLIN, 0};
    auto add = [](const char* path, void* out) { static_cast<std::set<std::string>*>(out)->insert(path); };
    while (paths.size() < count && poll(&waiting, 1, 5000) == 1 && cv_fm_read_changed(subscriber, add, &paths) == 0) {
    }
    return paths;
  }

  TempHome home_;
  std::string docs_ = home_.root() + "/Docs";
  std::string socket_ = home_.settings() + "/fm.socket";
  Clock clock_{0.01};
  PollMainLoop loop_{clock_};
  FileManagerBridge bridge_{loop_, [this](const std::string&, const std::string& text) { told_.push_back(text); },
                            [this](const std::string& command, const std::vector<std::string>& paths) {
                              opened_.push_back(command + " " + std::to_string(paths.size()));
                              return true;
                            }};
  WorkerThreads workers_;
  LocalServer server_{loop_, socket_, getuid(),
                      [this](int fd) {
                        workers_.Start([this, fd] {
                          LineChannel channel(fd);
                          if (auto first = channel.ReadLine(2s); first && !first->empty()) {
                            bridge_.Serve(channel, (*first)[0]);
                          }
                        });
                      },
                      nullptr};
  std::thread loopThread_;
  CvFmClient* client_ = nullptr;
  std::vector<CvFmClient*> subscribers_;
  std::vector<std::string> told_;
  std::vector<std::string> opened_;
};

TEST_F(FileManagerBridgeTest, StatesComeFromTheCloneTreeAndHostilePathsGetNone) {
  State("a.txt", "");
  State("b.txt", "1");
  State("c.txt", "2");
  State("d.txt", "0");
  IconOverlayInFinderStaticMethods::CreateClonnedFolder(docs_ + "/Folder");
  State("Folder/in-step.txt", "");
  State("Busy/Deep/x.txt", "1");
  State("Broken/x.txt", "1");
  State("Broken/Deep/y.txt", "2");
  fs::create_directories(home_.root() + "/Other");
  IconOverlayInFinderStaticMethods::WriteFileStateToClonnedTreeForPath(home_.root() + "/Other/x", "", false);
  const std::vector<std::pair<std::string, int>> cases = {
      {docs_ + "/a.txt", CV_FM_STATE_IN_STEP},
      {docs_ + "/b.txt", CV_FM_STATE_IN_WORK},
      {docs_ + "/c.txt", CV_FM_STATE_FAILED},
      {docs_ + "/d.txt", CV_FM_STATE_IN_STEP},
      {docs_ + "/Folder", CV_FM_STATE_IN_STEP},  // folders by their files
      {docs_ + "/Busy", CV_FM_STATE_IN_WORK},
      {docs_ + "/Broken", CV_FM_STATE_FAILED},
      {docs_ + "/never-met.txt", CV_FM_STATE_NONE},
      {docs_ + "/Folder/../a.txt", CV_FM_STATE_NONE},
      {"Docs/a.txt", CV_FM_STATE_NONE},
      {home_.root() + "/Other/x", CV_FM_STATE_NONE},  // not a storage of the account
      {home_.path() + "/a.txt", CV_FM_STATE_NONE},
      {docs_ + "/tab\tand\nline", CV_FM_STATE_NONE},
  };
  for (const auto& [path, state] : cases) EXPECT_EQ(cv_fm_state(client_, path.c_str()), state) << path;

  const char* root = nullptr;
  const char* const* names = nullptr;
  ASSERT_EQ(cv_fm_storages(client_, &root, &names), 1);
  EXPECT_EQ(std::string(root), home_.root());
  EXPECT_EQ(std::string(names[0]), "Docs");
}

TEST_F(FileManagerBridgeTest, SendToCopiesIntoTheStorageRootAndNeverOverwrites) {
  const std::string outside = home_.path() + "/outside";
  Write(outside + "/new.txt", "new");
  Write(outside + "/second.txt", "second");
  Write(outside + "/taken.txt", "mine");
  Write(outside + "/folder/inner.txt", "inner");
  Write(docs_ + "/taken.txt", "theirs");
  struct Case {
    std::string storage;
    std::vector<std::string> items;
    int result;
  };
  const std::vector<Case> cases = {
      {"Docs", {outside + "/new.txt"}, 1},
      {"Docs", {outside + "/second.txt", outside + "/folder"}, 1},
      {"Docs", {outside + "/taken.txt"}, 0},
      {"Docs", {outside + "/new.txt"}, 0},  // already sent: the copy there stays
      {"Docs", {}, 0},
      {"Docs", {"outside/new.txt"}, 0},
      {"Docs", {home_.root()}, 0},  // the storages themselves
      {"../Docs", {outside + "/new.txt"}, 0},
      {"Shared In", {outside + "/new.txt"}, 0},
      {"Nope", {outside + "/new.txt"}, 0},
  };
  for (const auto& c : cases) {
    std::vector<const char*> items;
    for (const auto& item : c.items) items.push_back(item.c_str());
    EXPECT_EQ(cv_fm_send_to(client_, c.storage.c_str(), items.data(), static_cast<int>(items.size())), c.result)
        << c.storage << " " << (c.items.empty() ? "" : c.items[0]);
  }
  EXPECT_EQ(Read(docs_ + "/new.txt"), "new");
  EXPECT_EQ(Read(docs_ + "/folder/inner.txt"), "inner");
  EXPECT_EQ(Read(docs_ + "/taken.txt"), "theirs");
  EXPECT_FALSE(fs::exists(home_.root() + "/new.txt"));
  EXPECT_EQ(told_, (std::vector<std::string>{"File was sent to the root level of: Docs",
                                             "Files were sent to the root level of: Docs"}));
}

TEST_F(FileManagerBridgeTest, WindowsOpenOnItemsOfAStorageAsThePolicyAllows) {
  Write(docs_ + "/a.txt", "a");
  Write(docs_ + "/Folder/b.txt", "b");
  Write(home_.path() + "/outside.txt", "o");
  CVConfiguration::Instance().Corvalink.ExternalSharing = false;
  const char* const* commands = nullptr;
  ASSERT_EQ(cv_fm_windows(client_, &commands), 2);
  EXPECT_EQ(std::string(commands[0]) + " " + commands[1], "ShareToInternal ViewVersions");
  const std::string a = docs_ + "/a.txt", folder = docs_ + "/Folder", outside = home_.path() + "/outside.txt";
  struct Case {
    std::string command;
    std::vector<std::string> items;
    int result;
  };
  const std::vector<Case> cases = {
      {"ShareToInternal", {a, folder}, 1},
      {"ShareToExternal", {a}, 0},  // the policy allows no shares outside
      {"ShareToInternal", {}, 0},
      {"ShareToInternal", {a, outside}, 0},
      {"ShareToInternal", {docs_}, 0},  // a storage itself
      {"ShareToInternal", {docs_ + "/gone.txt"}, 0},
      {"ShareToInternal", {docs_ + "/Folder/../a.txt"}, 0},
      {"Versions", {a}, 0},
      {"ViewVersions", {a}, 1},
      {"ViewVersions", {folder}, 0},  // versions are kept of files
      {"ViewVersions", {a, docs_ + "/Folder/b.txt"}, 0},
      {"ViewVersions", {outside}, 0},
  };
  for (const auto& c : cases) {
    std::vector<const char*> items;
    for (const auto& item : c.items) items.push_back(item.c_str());
    EXPECT_EQ(cv_fm_open_window(client_, c.command.c_str(), items.data(), static_cast<int>(items.size())), c.result)
        << c.command << " " << (c.items.empty() ? "" : c.items.back());
  }
  EXPECT_EQ(opened_, (std::vector<std::string>{"ShareToInternal 2", "ViewVersions 1"}));
  // A client without windows offers none and opens none.
  FileManagerBridge headless(loop_, nullptr);
  EXPECT_EQ(headless.Answer({"WINDOWS"}), std::vector<std::string>{"WINDOWS"});
  EXPECT_EQ(headless.Answer({"OPEN", "ShareToInternal", a}),
            (std::vector<std::string>{"REFUSED", FileManagerBridge::kNoWindows}));
}

TEST_F(FileManagerBridgeTest, SubscribersAreToldTheChangedPaths) {
  subscribers_ = {cv_fm_subscribe(socket_.c_str(), 2000), cv_fm_subscribe(socket_.c_str(), 2000)};
  ASSERT_NE(subscribers_[0], nullptr);
  ASSERT_NE(subscribers_[1], nullptr);
  for (const char* name : {"/a.txt", "/Sub/b.txt", "/a.txt"}) {
    IconOverlayInFinderStaticMethods::RefreshFinderUsingScriptBridge(docs_ + name);
  }
  // The folders above a change, up to the storage's own, are drawn again too.
  const std::set<std::string> expected{docs_ + "/a.txt", docs_ + "/Sub/b.txt", docs_ + "/Sub", docs_};
  EXPECT_EQ(Changed(subscribers_[0], 4), expected);
  EXPECT_EQ(Changed(subscribers_[1], 4), expected);
}

TEST(FileManagerClient, AClientThatDoesNotAnswerTimesOut) {
  const std::string path = fs::temp_directory_path() / ("cv-silent-" + std::to_string(getpid()));
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(fd, 4), 0);  // takes connections into the backlog, never answers
  CvFmClient* client = cv_fm_open(path.c_str(), 50);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(cv_fm_state(client, "/x"), -1);
  EXPECT_EQ(cv_fm_state(client, "/x"), -1);  // and stays broken rather than reading a late answer
  cv_fm_close(client);
  close(fd);
  unlink(path.c_str());
  EXPECT_EQ(cv_fm_open(path.c_str(), 50), nullptr);
}

}  // namespace
