#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "clock.h"
#include "descriptor.h"
#include "fakeClock.h"

namespace {

// Waits of several threads end at exactly their own ends, in order, however the threads run: the
// clock never jumps past a shorter wait because a longer one started first.
TEST(FakeClockTest, WaitsOfSeveralThreadsEachEndAtTheirOwnEnd) {
  for (int round = 0; round < 5; ++round) {
    FakeClock clock;
    std::vector<uint32_t> shortWakes, longWakes;
    // Both threads take part before either waits, as the threads of a started service do.
    std::atomic<int> ready{0};
    auto takePart = [&] {
      clock.poll(nullptr, 0, 0);
      ++ready;
      while (ready < 2) std::this_thread::yield();
    };
    std::thread longSleeper([&] {
      takePart();
      clock.sleepMs(10000);
      longWakes.push_back(clock.tickMs());
      clock.sleepMs(3600000);
      longWakes.push_back(clock.tickMs());
    });
    std::thread shortSleeper([&] {
      takePart();
      for (int i = 0; i < 5; ++i) {
        clock.sleepMs(3000);
        shortWakes.push_back(clock.tickMs());
      }
    });
    longSleeper.join();
    shortSleeper.join();
    EXPECT_EQ(shortWakes, (std::vector<uint32_t>{3000, 6000, 9000, 12000, 15000})) << "round " << round;
    EXPECT_EQ(longWakes, (std::vector<uint32_t>{10000, 3610000})) << "round " << round;
  }
}

// A peer that answers within its grace of real time is heard, even while another thread sleeps an
// hour; one that stays silent ends the wait at its end on the clock.
TEST(FakeClockTest, APeerAnswersWithinItsGraceWhileAnotherThreadSleeps) {
  FakeClock clock;
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
  clock.poll(nullptr, 0, 0);  // this thread takes part before the sleeper starts
  std::thread sleeper([&] { clock.sleepMs(3600000); });
  std::thread peer([&] {
    usleep(100 * 1000);
    EXPECT_EQ(write(writeEnd.get(), "x", 1), 1);
  });
  pollfd pfd{readEnd.get(), POLLIN, 0};
  EXPECT_EQ(clock.poll(&pfd, 1, 30000, 1000), 1);
  EXPECT_LT(clock.elapsedMs(), 30000u);
  peer.join();
  char byte;
  ASSERT_EQ(read(readEnd.get(), &byte, 1), 1);
  const uint64_t before = clock.elapsedMs();
  EXPECT_EQ(clock.poll(&pfd, 1, 30000, 50), 0);
  EXPECT_EQ(clock.elapsedMs(), before + 30000);
  sleeper.join();
  EXPECT_GE(clock.elapsedMs(), 3600000u);
}

TEST(RealClockTest, PollEndsAtItsTimeOutAndSleepsSplitLongWaits) {
  RealClock clock;
  const uint32_t start = clock.tickMs();
  EXPECT_EQ(clock.poll(nullptr, 0, 30), 0);
  EXPECT_GE(clock.tickMs() - start, 30u);
}

}  // namespace
