#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "WorkerThreads.h"

TEST(WorkerThreads, JoinAllWaitsForJobsAndJobsStartedByJobs) {
  std::atomic<int> done{0};
  WorkerThreads workers;
  for (int i = 0; i < 4; ++i) {
    workers.Start([&] {
      ++done;
      workers.Start([&] { ++done; });
    });
  }
  workers.JoinAll();
  EXPECT_EQ(done, 8);
  EXPECT_EQ(workers.Running(), 0u);
}

TEST(CancelFlag, HooksRunOnceAndAFlagRaisedAlreadyTakesNoHook) {
  CancelFlag flag;
  int first = 0;
  int removed = 0;
  CancelFlag::HookId kept = flag.AddHook([&] { ++first; });
  CancelFlag::HookId gone = flag.AddHook([&] { ++removed; });
  ASSERT_NE(kept, 0u);
  flag.RemoveHook(gone);
  flag.Cancel();
  flag.Cancel();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(removed, 0);
  EXPECT_TRUE(flag.IsCancelled());
  // Raised: the caller must give up by itself, nothing would ever call the hook.
  EXPECT_EQ(flag.AddHook([&] { ++first; }), 0u);
  // Lowered for the next piece of work, hooks are taken again.
  flag.Reset();
  EXPECT_NE(flag.AddHook([&] { ++first; }), 0u);
  flag.Cancel();
  EXPECT_EQ(first, 2);
}

TEST(CancelFlag, ABindingHoldsForItsThreadOnlyAndNests) {
  CancelFlag outer;
  CancelFlag inner;
  EXPECT_EQ(CancelFlag::ForThisThread(), nullptr);
  {
    CancelFlag::Binding a(outer);
    {
      CancelFlag::Binding b(inner);
      EXPECT_EQ(CancelFlag::ForThisThread(), &inner);
      CancelFlag* seenElsewhere = &inner;
      std::thread([&] { seenElsewhere = CancelFlag::ForThisThread(); }).join();
      EXPECT_EQ(seenElsewhere, nullptr);
    }
    EXPECT_EQ(CancelFlag::ForThisThread(), &outer);
    EXPECT_FALSE(CancelFlag::ThisThreadCancelled());
    outer.Cancel();
    EXPECT_TRUE(CancelFlag::ThisThreadCancelled());
  }
  EXPECT_EQ(CancelFlag::ForThisThread(), nullptr);
  EXPECT_FALSE(CancelFlag::ThisThreadCancelled());
}
