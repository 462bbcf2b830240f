#include "InotifyEventStream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Clock.h"
#include "PollMainLoop.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using fileevents::kCreated;
using fileevents::kIsDir;
using fileevents::kModified;
using fileevents::kRemoved;
using fileevents::kRenamed;

namespace {

constexpr auto kHold = 50ms;

std::string MakeTempFolder(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
  if (!mkdtemp(pattern.data())) return "";
  return pattern;
}

void WriteFile(const std::string& path, const std::string& content = "x") {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  close(fd);
}

void Rename(const std::string& from, const std::string& to) {
  ASSERT_EQ(std::rename(from.c_str(), to.c_str()), 0) << from << " -> " << to;
}

// Like a recursive copy, 3 levels and 50 files: each folder made, then filled,
// then its subfolders. Without make it only lists the files.
std::vector<std::string> CopyTree(const std::string& top, bool make) {
  std::vector<std::string> files;
  auto folder = [&](const std::string& path) {
    if (make) mkdir(path.c_str(), 0755);
  };
  auto file = [&](const std::string& path) {
    files.push_back(path);
    if (make) WriteFile(path);
  };
  folder(top);
  for (int i = 0; i < 5; ++i) {
    std::string one = top + "/l1_" + std::to_string(i);
    folder(one);
    for (int f = 0; f < 2; ++f) file(one + "/f" + std::to_string(f));
    for (int j = 0; j < 2; ++j) {
      std::string two = one + "/l2_" + std::to_string(j);
      folder(two);
      for (int f = 0; f < 4; ++f) file(two + "/f" + std::to_string(f));
    }
  }
  return files;
}

class InotifyEventStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = MakeTempFolder("cvinotify");
    outside_ = MakeTempFolder("cvinotify-outside");
    ASSERT_FALSE(root_.empty());
    ASSERT_FALSE(outside_.empty());
    stream_ = std::make_unique<InotifyEventStream>(
        loop_,
        [this](const std::vector<FileEvent>& batch) {
          EXPECT_TRUE(loop_.IsMainThread());
          for (const auto& event : batch) {
            events_.push_back(event);
            batchOf_.push_back(batches_);
          }
          ++batches_;
          if (afterBatch_) afterBatch_();
        },
        [this](FileEventTrouble trouble, const std::string&) { troubles_.push_back(trouble); },
        [this](const std::string& line) { logs_.push_back(line); }, kHold);
  }

  void TearDown() override {
    stream_.reset();
    ExpectOnlyPairsHaveNeighbourIds();
    fs::remove_all(root_);
    fs::remove_all(outside_);
  }

  // Runs the loop until done holds or the time limit passes.
  bool RunUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    auto check = loop_.AddTimer(2ms, [&] {
      if (done() || std::chrono::steady_clock::now() >= deadline) loop_.Quit(0);
    }, true);
    loop_.Run();
    loop_.CancelTimer(check);
    return done();
  }

  // Events come in order, so once a marker written last is seen, so is the rest.
  void Settle() {
    std::string marker = root_ + "/marker" + std::to_string(markers_++);
    WriteFile(marker);
    ASSERT_TRUE(RunUntil([&] { return Has(marker, kModified); })) << marker;
  }

  // Index of the first event for path whose flags include all of flags, or -1.
  int Find(const std::string& path, std::uint32_t flags, std::size_t from = 0) const {
    for (std::size_t i = from; i < events_.size(); ++i) {
      if (events_[i].path == path && (events_[i].flags & flags) == flags) return static_cast<int>(i);
    }
    return -1;
  }
  bool Has(const std::string& path, std::uint32_t flags) const { return Find(path, flags) >= 0; }
  bool AnyPathContains(const std::string& part) const {
    for (const auto& event : events_) {
      if (event.path.find(part) != std::string::npos) return true;
    }
    return false;
  }

  // Pairs are told apart by their ids alone; the id check of TearDown does the rest.
  ::testing::AssertionResult IsPair(const std::string& from, const std::string& to, bool isDir) {
    const std::uint32_t flags = kRenamed | (isDir ? kIsDir : 0);
    for (std::size_t i = 0; i + 1 < events_.size(); ++i) {
      const auto& a = events_[i];
      const auto& b = events_[i + 1];
      if (a.path == from && b.path == to && b.id == a.id + 1 && a.flags == flags && b.flags == flags)
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no pair " << from << " -> " << to;
  }
  ::testing::AssertionResult IsLoneHalf(const std::string& path, bool isDir) {
    int i = Find(path, kRenamed);
    if (i < 0 || events_[i].flags != (kRenamed | (isDir ? kIsDir : 0)))
      return ::testing::AssertionFailure() << "no lone half " << path;
    bool paired = (i > 0 && events_[i - 1].id + 1 == events_[i].id) ||
                  (i + 1 < static_cast<int>(events_.size()) && events_[i].id + 1 == events_[i + 1].id);
    return paired ? ::testing::AssertionFailure() << path << " was paired" : ::testing::AssertionSuccess();
  }

  // The receiver pairs renames by ids alone: ids rise, and ids one apart are
  // always the two renamed halves of one batch.
  void ExpectOnlyPairsHaveNeighbourIds() {
    for (std::size_t i = 0; i + 1 < events_.size(); ++i) {
      const auto& a = events_[i];
      const auto& b = events_[i + 1];
      EXPECT_LT(a.id, b.id) << a.path << " then " << b.path;
      if (b.id != a.id + 1) continue;
      EXPECT_TRUE((a.flags & kRenamed) && (b.flags & kRenamed)) << a.path << " / " << b.path;
      EXPECT_EQ(batchOf_[i], batchOf_[i + 1]) << a.path << " / " << b.path;
      EXPECT_FALSE(i > 0 && events_[i - 1].id + 1 == a.id) << "three ids in a row at " << a.path;
    }
  }

  Clock clock_;
  PollMainLoop loop_{clock_};
  std::string root_;
  std::string outside_;
  std::unique_ptr<InotifyEventStream> stream_;
  std::vector<FileEvent> events_;
  std::vector<int> batchOf_;
  int batches_ = 0;
  std::function<void()> afterBatch_;
  std::vector<FileEventTrouble> troubles_;
  std::vector<std::string> logs_;
  int markers_ = 0;
};

TEST_F(InotifyEventStreamTest, CreateWriteAndRemoveCarryTheirKind) {
  ASSERT_TRUE(stream_->Start({root_ + "/"}));  // a trailing slash does not double in paths
  EXPECT_TRUE(stream_->IsRunning());
  const std::string file = root_ + "/a.txt";
  const std::string folder = root_ + "/d";
  WriteFile(file, "hello");
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ASSERT_TRUE(RunUntil([&] { return Has(file, kModified) && Has(folder, kCreated); }));
  EXPECT_EQ(events_[Find(file, kCreated)].flags, kCreated);
  EXPECT_LT(Find(file, kCreated), Find(file, kModified));
  EXPECT_EQ(events_[Find(folder, kCreated)].flags, kCreated | kIsDir);

  // The new folder is watched: what is written into it later is seen.
  WriteFile(folder + "/in.txt");
  ASSERT_TRUE(RunUntil([&] { return Has(folder + "/in.txt", kModified); }));
  ASSERT_EQ(unlink((folder + "/in.txt").c_str()), 0);
  ASSERT_EQ(rmdir(folder.c_str()), 0);
  ASSERT_EQ(unlink(file.c_str()), 0);
  ASSERT_TRUE(RunUntil([&] { return Has(file, kRemoved); }));
  EXPECT_EQ(events_[Find(folder + "/in.txt", kRemoved)].flags, kRemoved);
  EXPECT_EQ(events_[Find(folder, kRemoved)].flags, kRemoved | kIsDir);
  EXPECT_TRUE(troubles_.empty());
}

TEST_F(InotifyEventStreamTest, RenamesComeAsNeighbourPairsOldPathFirst) {
  fs::create_directories(root_ + "/x");
  fs::create_directories(root_ + "/y");
  fs::create_directories(root_ + "/dir/sub");
  WriteFile(root_ + "/a.txt");
  WriteFile(root_ + "/x/f.txt");
  WriteFile(root_ + "/doc");
  ASSERT_TRUE(stream_->Start({root_}));

  WriteFile(root_ + "/noise1");
  Rename(root_ + "/a.txt", root_ + "/b.txt");
  Rename(root_ + "/x/f.txt", root_ + "/y/g.txt");
  WriteFile(root_ + "/noise2");
  Rename(root_ + "/dir", root_ + "/dir2");
  // An editor's save: a hidden file written, then renamed over the document.
  WriteFile(root_ + "/.doc.swp", "new text");
  Rename(root_ + "/.doc.swp", root_ + "/doc");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/doc", kRenamed); }));

  EXPECT_TRUE(IsPair(root_ + "/a.txt", root_ + "/b.txt", false));
  EXPECT_TRUE(IsPair(root_ + "/x/f.txt", root_ + "/y/g.txt", false));
  EXPECT_TRUE(IsPair(root_ + "/dir", root_ + "/dir2", true));
  EXPECT_TRUE(IsPair(root_ + "/.doc.swp", root_ + "/doc", false));
  EXPECT_TRUE(Has(root_ + "/noise2", kModified));
}

TEST_F(InotifyEventStreamTest, RenameSplitOverTwoReadsIsStillOnePair) {
  WriteFile(root_ + "/old_a");
  ASSERT_TRUE(stream_->Start({root_}));
  // Every event here takes 32 bytes (a 5-letter name padded to 16). 2047 of them
  // before the rename put its first half last in a 64 KiB read, its second half
  // first in the next one.
  for (int i = 0; i < 1023; ++i) {
    char name[8];
    std::snprintf(name, sizeof name, "f%04d", i);
    int fd = open((root_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
  }
  ASSERT_EQ(mkdir((root_ + "/dnext").c_str(), 0755), 0);
  Rename(root_ + "/old_a", root_ + "/new_b");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/new_b", kRenamed); }));
  EXPECT_TRUE(IsPair(root_ + "/old_a", root_ + "/new_b", false));
}

TEST_F(InotifyEventStreamTest, RenamedFolderGivesItsNewPathToLaterEvents) {
  fs::create_directories(root_ + "/old/inner");
  ASSERT_TRUE(stream_->Start({root_}));
  Rename(root_ + "/old", root_ + "/new");
  // Queued behind the rename before the stream has read it.
  WriteFile(root_ + "/new/inner/f.txt");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/new/inner/f.txt", kModified); }));
  Rename(root_ + "/new/inner/f.txt", root_ + "/new/inner/g.txt");
  Rename(root_ + "/new/inner", root_ + "/new/moved");
  fs::create_directories(root_ + "/new/moved/made");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/new/moved/made", kCreated); }));

  EXPECT_TRUE(IsPair(root_ + "/old", root_ + "/new", true));
  EXPECT_TRUE(IsPair(root_ + "/new/inner/f.txt", root_ + "/new/inner/g.txt", false));
  EXPECT_TRUE(IsPair(root_ + "/new/inner", root_ + "/new/moved", true));
  EXPECT_EQ(events_[Find(root_ + "/new/inner/f.txt", kCreated)].flags, kCreated);
  for (std::size_t i = 0; i < events_.size(); ++i)
    EXPECT_EQ(events_[i].path.find(root_ + "/old/"), std::string::npos) << events_[i].path;
}

TEST_F(InotifyEventStreamTest, MoveOutOfTheTreeIsALoneHalfAfterTheHold) {
  fs::create_directories(root_ + "/sub/deep");
  WriteFile(root_ + "/f.txt");
  ASSERT_TRUE(stream_->Start({root_}));
  auto moved = std::chrono::steady_clock::now();
  Rename(root_ + "/f.txt", outside_ + "/f.txt");
  Rename(root_ + "/sub", outside_ + "/sub");
  std::chrono::steady_clock::duration firstSeen{};
  afterBatch_ = [&] {
    if (firstSeen == std::chrono::steady_clock::duration{} && Has(root_ + "/f.txt", kRenamed))
      firstSeen = std::chrono::steady_clock::now() - moved;
  };
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/f.txt", kRenamed) && Has(root_ + "/sub", kRenamed); }));
  EXPECT_GE(firstSeen, kHold);  // held for its second half first
  EXPECT_TRUE(IsLoneHalf(root_ + "/f.txt", false));
  EXPECT_TRUE(IsLoneHalf(root_ + "/sub", true));

  // The folder that left is no longer watched, nor is what is below it.
  WriteFile(outside_ + "/sub/late.txt");
  WriteFile(outside_ + "/sub/deep/late.txt");
  Settle();
  EXPECT_FALSE(AnyPathContains("late.txt"));
}

TEST_F(InotifyEventStreamTest, MovedInFolderIsWatchedAndWhatIsInsideIsReported) {
  fs::create_directories(outside_ + "/tree/inner/deep");
  WriteFile(outside_ + "/tree/a.txt");
  WriteFile(outside_ + "/tree/inner/b.txt");
  WriteFile(outside_ + "/tree/inner/deep/c.txt");
  WriteFile(outside_ + "/solo.txt");
  ASSERT_TRUE(stream_->Start({root_}));
  Rename(outside_ + "/solo.txt", root_ + "/solo.txt");
  Rename(outside_ + "/tree", root_ + "/tree");
  const std::string tree = root_ + "/tree";
  ASSERT_TRUE(RunUntil([&] { return Has(tree + "/inner/deep/c.txt", kCreated); }));

  EXPECT_TRUE(IsLoneHalf(root_ + "/solo.txt", false));
  EXPECT_TRUE(IsLoneHalf(tree, true));
  EXPECT_EQ(events_[Find(tree + "/a.txt", kCreated)].flags, kCreated);
  EXPECT_EQ(events_[Find(tree + "/inner", kCreated)].flags, kCreated | kIsDir);
  EXPECT_TRUE(Has(tree + "/inner/b.txt", kCreated));
  EXPECT_TRUE(Has(tree + "/inner/deep", kCreated | kIsDir));
  EXPECT_LT(Find(tree, kRenamed), Find(tree + "/inner/deep/c.txt", kCreated));

  WriteFile(tree + "/inner/deep/new.txt");
  ASSERT_TRUE(RunUntil([&] { return Has(tree + "/inner/deep/new.txt", kModified); }));
}

TEST_F(InotifyEventStreamTest, TreeWrittenRightAfterItsFolderAppearsLosesNoFile) {
  ASSERT_TRUE(stream_->Start({root_}));
  auto allSeen = [&](const std::vector<std::string>& files) {
    return std::all_of(files.begin(), files.end(),
                       [&](const auto& file) { return Has(file, kCreated) || Has(file, kModified); });
  };
  // Written while the stream reads, racing the watches of the new folders.
  const auto racing = CopyTree(root_ + "/racing", false);
  ASSERT_EQ(racing.size(), 50u);
  std::thread writer([&] { CopyTree(root_ + "/racing", true); });
  bool seen = RunUntil([&] { return allSeen(racing); });
  writer.join();
  EXPECT_TRUE(seen);
  for (const auto& file : racing) EXPECT_TRUE(Has(file, kCreated) || Has(file, kModified)) << file;

  // Written whole before the stream reads a single event: found by the scan alone.
  const auto before = CopyTree(root_ + "/before", true);
  ASSERT_TRUE(RunUntil([&] { return allSeen(before); }));
  EXPECT_TRUE(Has(root_ + "/before/l1_4/l2_1", kCreated | kIsDir));
}

TEST_F(InotifyEventStreamTest, SymbolicLinksAreNeverFollowed) {
  fs::create_directories(outside_ + "/target");
  fs::create_directories(outside_ + "/pack");
  WriteFile(outside_ + "/pack/real.txt");
  ASSERT_EQ(symlink((outside_ + "/target").c_str(), (root_ + "/link").c_str()), 0);
  ASSERT_EQ(symlink((outside_ + "/target").c_str(), (outside_ + "/pack/l").c_str()), 0);
  ASSERT_TRUE(stream_->Start({root_}));

  ASSERT_EQ(symlink((outside_ + "/target").c_str(), (root_ + "/link2").c_str()), 0);
  Rename(outside_ + "/pack", root_ + "/pack");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/pack/real.txt", kCreated); }));
  WriteFile(outside_ + "/target/written.txt");
  Settle();

  EXPECT_EQ(events_[Find(root_ + "/link2", kCreated)].flags, kCreated);
  EXPECT_EQ(events_[Find(root_ + "/pack/l", kCreated)].flags, kCreated);
  EXPECT_FALSE(AnyPathContains("written.txt"));
  EXPECT_FALSE(AnyPathContains("/link/"));
  EXPECT_FALSE(AnyPathContains("/link2/"));
  EXPECT_FALSE(AnyPathContains("/pack/l/"));
}

TEST_F(InotifyEventStreamTest, StopEndsEveryCallbackAndStartWorksAgain) {
  EXPECT_FALSE(stream_->Start({}));
  EXPECT_FALSE(stream_->Start({root_ + "/missing"}));
  EXPECT_FALSE(stream_->IsRunning());

  // Stopped by the receiver itself while a half is held: the hold never ends.
  WriteFile(root_ + "/held");
  ASSERT_TRUE(stream_->Start({root_}));
  Rename(root_ + "/held", outside_ + "/held");
  WriteFile(root_ + "/seen");
  afterBatch_ = [&] { stream_->Stop(); };
  ASSERT_TRUE(RunUntil([&] { return batches_ > 0; }));
  EXPECT_FALSE(stream_->IsRunning());
  WriteFile(root_ + "/after-stop");
  EXPECT_FALSE(RunUntil([&] { return batches_ > 1; }, 4 * kHold));
  afterBatch_ = nullptr;

  ASSERT_TRUE(stream_->Start({root_}));
  WriteFile(root_ + "/restarted");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/restarted", kModified); }));
  EXPECT_FALSE(AnyPathContains("after-stop"));
  EXPECT_FALSE(Has(root_ + "/held", kRenamed));

  // Gone with a half held and the timer armed: nothing comes (and nothing is touched).
  Rename(root_ + "/restarted", outside_ + "/restarted");
  int before = batches_;
  ASSERT_FALSE(RunUntil([&] { return batches_ > before; }, kHold / 2));
  stream_.reset();
  EXPECT_FALSE(RunUntil([&] { return batches_ > before; }, 4 * kHold));
}

TEST_F(InotifyEventStreamTest, KernelQueueOverflowIsToldAndTheStreamGoesOn) {
  int limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  if (limit <= 0 || limit > 65536) GTEST_SKIP() << "queue limit " << limit;
  ASSERT_TRUE(stream_->Start({root_}));
  // Three events per round, none merged with the one before.
  const std::string churn = root_ + "/churn";
  for (int i = 0; i < limit / 3 + 100; ++i) {
    WriteFile(churn);
    ASSERT_EQ(unlink(churn.c_str()), 0);
  }
  ASSERT_TRUE(RunUntil([&] { return !troubles_.empty(); }));
  EXPECT_EQ(troubles_.front(), FileEventTrouble::Overflow);
  EXPECT_TRUE(stream_->IsRunning());
  WriteFile(root_ + "/after.txt");
  ASSERT_TRUE(RunUntil([&] { return Has(root_ + "/after.txt", kModified); }));
  bool logged = false;
  for (const auto& line : logs_) logged = logged || line.find("overflow") != std::string::npos;
  EXPECT_TRUE(logged);
}

}  // namespace
