// Thread timers keep their time in 64-bit milliseconds and fire once or repeatedly as armed; all on
// the fake clock.
#include <gtest/gtest.h>

#include <vector>

#include "clock.h"
#include "msgqueue.h"

namespace {

// Records which timer fired at which fake time; a timer of id `quitId` ends the loop.
class TimerThread : public chThreadLocal {
 public:
  TimerThread(FakeClock& clock, uint32_t quitId) : chThreadLocal("timer_test"), clock_(clock), quitId_(quitId) {}
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message != MSG_THREAD_TIMER) return false;
    fired.push_back({msg.wParam, clock_.elapsedMs()});
    if (msg.wParam == quitId_) Quit(0);
    return true;
  }
  struct Fire {
    uint32_t id;
    uint64_t atMs;
  };
  std::vector<Fire> fired;

 private:
  FakeClock& clock_;
  uint32_t quitId_;
};

class ThreadTimerTest : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = setClock(&clock); }
  void TearDown() override { setClock(previous_); }
  FakeClock clock;

 private:
  Clock* previous_ = nullptr;
};

constexpr uint32_t kLong = 1, kOneShot = 2, kQuit = 3;

TEST_F(ThreadTimerTest, IntervalsPastTwoToTheThirtyFirstWaitTheirFullTimeAndOneShotsFireOnce) {
  TimerThread thread(clock, kQuit);
  uCSystemShareHelper::CreateLocalThread(thread);
  const uint64_t longMs = (uint64_t{1} << 31) + 5000;  // about 24.9 days
  ASSERT_TRUE(timerSetThreadTimer(kLong, longMs, false));
  ASSERT_TRUE(timerSetThreadTimer(kOneShot, 1000, false));
  ASSERT_TRUE(timerSetThreadTimer(kQuit, longMs + 1000, false));
  EXPECT_EQ(thread.Run(), 0);
  uCSystemShareHelper::DestroyLocalThread(thread);

  ASSERT_EQ(thread.fired.size(), 3u);
  EXPECT_EQ(thread.fired[0].id, kOneShot);
  EXPECT_GE(thread.fired[0].atMs, 1000u);
  EXPECT_LT(thread.fired[0].atMs, longMs);
  EXPECT_EQ(thread.fired[1].id, kLong);
  EXPECT_GE(thread.fired[1].atMs, longMs);
  EXPECT_EQ(thread.fired[2].id, kQuit);
  EXPECT_FALSE(thread.IsThreadTimerArmed(kLong));
  EXPECT_FALSE(thread.IsThreadTimerArmed(kOneShot));
}

TEST_F(ThreadTimerTest, RepeatingTimersFireUntilKilled) {
  TimerThread thread(clock, kQuit);
  uCSystemShareHelper::CreateLocalThread(thread);
  ASSERT_TRUE(timerSetThreadTimer(kLong, 1000, true));
  ASSERT_TRUE(timerSetThreadTimer(kQuit, 3500, false));
  EXPECT_EQ(thread.Run(), 0);
  EXPECT_TRUE(thread.IsThreadTimerArmed(kLong));
  EXPECT_TRUE(timerKillThreadTimer(kLong));
  EXPECT_FALSE(thread.IsThreadTimerArmed(kLong));
  uCSystemShareHelper::DestroyLocalThread(thread);
  ASSERT_EQ(thread.fired.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(thread.fired[i].id, kLong);
}

}  // namespace
