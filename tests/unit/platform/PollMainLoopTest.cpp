#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "Clock.h"
#include "PollMainLoop.h"

using namespace std::chrono_literals;

TEST(PollMainLoop, TimerFiresAtOnceThenRepeatsOnTheScaledPeriod) {
  Clock clock(0.001);  // 40 s become 40 ms
  PollMainLoop loop(clock);
  int ticks = 0;
  auto started = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration firstTick{};
  loop.AddTimer(40s, [&] {
    if (++ticks == 1) firstTick = std::chrono::steady_clock::now() - started;
    if (ticks == 3) loop.Quit(7);
  }, true);
  EXPECT_EQ(loop.Run(), 7);
  EXPECT_EQ(ticks, 3);
  EXPECT_LT(firstTick, 30ms);  // the first tick does not wait for the period
}

TEST(PollMainLoop, PostedCallbacksRunOnTheLoopThreadAndHopsRunInlineThere) {
  Clock clock;
  PollMainLoop loop(clock);
  std::thread::id loopThread;
  std::atomic<bool> ranOnMain{false};
  bool inlineRan = false;
  std::thread worker([&] {
    loop.RunOnMain([&] {
      ranOnMain = loop.IsMainThread();
      // Already on the main thread: the hop runs at once, not later.
      loop.RunOnMain([&] { inlineRan = true; });
      EXPECT_TRUE(inlineRan);
      loopThread = std::this_thread::get_id();
      loop.Quit(0);
    });
  });
  loop.Run();
  worker.join();
  EXPECT_TRUE(ranOnMain);
  EXPECT_EQ(loopThread, std::this_thread::get_id());
}

TEST(PollMainLoop, ReadWatchAndCancelledTimer) {
  Clock clock(0.001);
  PollMainLoop loop(clock);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  int cancelledTicks = 0;
  auto timer = loop.AddTimer(1s, [&] { ++cancelledTicks; }, false);
  loop.CancelTimer(timer);
  std::string got;
  loop.AddReadWatch(fds[0], [&] {
    char buffer[16];
    ssize_t n = read(fds[0], buffer, sizeof buffer);
    got.assign(buffer, static_cast<std::size_t>(n));
    loop.Quit(0);
  });
  ASSERT_EQ(write(fds[1], "ping", 4), 4);
  loop.Run();
  EXPECT_EQ(got, "ping");
  EXPECT_EQ(cancelledTicks, 0);
  close(fds[0]);
  close(fds[1]);
}
