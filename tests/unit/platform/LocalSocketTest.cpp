// The local socket: the line protocol, the single instance lock, and a server
// that takes only peers of its own user.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Clock.h"
#include "LocalSocket.h"
#include "PollMainLoop.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

TEST(LocalSocket, FieldsSurviveTheLine) {
  const std::vector<std::vector<std::string>> cases = {
      {"status"},
      {"login", "https://x", "Ålice", "pa\tss\\word\n2"},
      {"select", "", "a\\tb"},
      {"folders", "Docs/with\\backslash"},
  };
  for (const auto& fields : cases) {
    std::string line = LineChannel::Join(fields);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(LineChannel::Split(line), fields) << line;
  }
  EXPECT_FALSE(LineChannel::Split("bad\\x"));
  EXPECT_FALSE(LineChannel::Split("ends\\"));
}

class LocalSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / ("cv-socket-" + std::to_string(getpid()));
    fs::create_directories(folder_);
    chmod(folder_.c_str(), 0777);  // the folder would keep others out; the server must too
    path_ = (folder_ / "s.socket").string();
  }
  void TearDown() override { fs::remove_all(folder_); }

  // Runs a server that answers "hello" to each peer it takes.
  void Serve(uid_t allowed) {
    server_ = std::make_unique<LocalServer>(
        loop_, path_, allowed,
        [this](int fd) {
          LineChannel channel(fd);
          channel.WriteLine({"hello"});
          ++taken_;
        },
        [this](const std::string&) { ++refused_; });
    std::string error;
    ASSERT_TRUE(server_->Start(error)) << error;
    thread_ = std::thread([this] { loop_.Run(); });
  }
  void StopServing() {
    loop_.Quit(0);
    thread_.join();
    server_.reset();
  }
  // What a peer reads first: "hello", or "" when it was shut out.
  static std::string FirstWord(const std::string& path) {
    std::string error;
    auto channel = LineChannel::Connect(path, error);
    if (!channel) return "no connection: " + error;
    auto line = channel->ReadLine(5s);
    return line && !line->empty() ? (*line)[0] : "";
  }

  fs::path folder_;
  std::string path_;
  Clock clock_;
  PollMainLoop loop_{clock_};
  std::unique_ptr<LocalServer> server_;
  std::thread thread_;
  std::atomic<int> taken_{0};
  std::atomic<int> refused_{0};
};

TEST_F(LocalSocketTest, OwnPeersAreTakenOthersShutOut) {
  Serve(getuid());
  EXPECT_EQ(FirstWord(path_), "hello");
  struct stat info {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  StopServing();
  EXPECT_FALSE(fs::exists(path_));

  Serve(getuid() + 1);  // as if this process were somebody else
  EXPECT_EQ(FirstWord(path_), "");
  StopServing();
  EXPECT_EQ(taken_, 1);
  EXPECT_EQ(refused_, 1);
}

TEST_F(LocalSocketTest, APeerOfAnotherUserIsRefused) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  Serve(getuid());
  chmod(path_.c_str(), 0666);  // past the file's mode, the uid check still stands
  pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    _exit(FirstWord(path_) == "" ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  StopServing();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(taken_, 0);
  EXPECT_EQ(refused_, 1);
}

TEST_F(LocalSocketTest, OneInstanceHoldsTheLock) {
  std::string error;
  const std::string lockPath = (folder_ / "lock").string();
  auto first = InstanceLock::TryAcquire(lockPath, error);
  ASSERT_TRUE(first) << error;
  EXPECT_FALSE(InstanceLock::TryAcquire(lockPath, error));
  EXPECT_EQ(error, "");  // held, not broken
  first.reset();
  EXPECT_TRUE(InstanceLock::TryAcquire(lockPath, error));
}

}  // namespace
