#include <gtest/gtest.h>

#include <atomic>

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
