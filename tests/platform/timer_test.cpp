// Thread timers keep their time in 64-bit milliseconds and fire once or repeatedly as armed, until
// killed; a loop ended by a handler returns its exit code. All on the fake clock.
#include <gtest/gtest.h>

#include <vector>

#include "msgqueue.h"
#include "testRoot.h"

namespace {

// Records which timer fired at which fake time; a timer of id `quitId` ends the loop with its id.
class TimerThread : public chThreadLocal {
 public:
  TimerThread(FakeClock& clock, uint32_t quitId) : chThreadLocal("timer_test"), clock_(clock), quitId_(quitId) {}
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message != MSG_THREAD_TIMER) return false;
    fired.push_back({msg.wParam, clock_.elapsedMs()});
    if (msg.wParam == quitId_) Quit(static_cast<int>(quitId_));
    return true;
  }
  std::vector<std::pair<uint32_t, uint64_t>> fired;  // timer id, fake time

 private:
  FakeClock& clock_;
  uint32_t quitId_;
};

using ThreadTimer = testing_support::RootedTest;

TEST_F(ThreadTimer, LongIntervalsWaitInFullOneShotsFireOnceRepeatersUntilKilled) {
  constexpr uint32_t kLong = 1, kOneShot = 2, kKilled = 3, kQuit = 4;
  TimerThread thread(fakeClock, kQuit);
  uCSystemShareHelper::CreateLocalThread(thread);
  const uint64_t longMs = (uint64_t{1} << 31) + 5000;  // about 24.9 days, past a 32-bit signed count
  ASSERT_TRUE(timerSetThreadTimer(kLong, longMs, false));
  ASSERT_TRUE(timerSetThreadTimer(kOneShot, 1000, false));
  ASSERT_TRUE(timerSetThreadTimer(kKilled, 500, true));
  ASSERT_TRUE(timerKillThreadTimer(kKilled));
  ASSERT_FALSE(thread.IsThreadTimerArmed(kKilled));
  chThreadTimer repeat;
  ASSERT_TRUE(repeat.SetTimer(1500, true));
  ASSERT_TRUE(timerSetThreadTimer(kQuit, 5000, false));
  EXPECT_EQ(thread.Run(), static_cast<int>(kQuit));
  EXPECT_TRUE(repeat.IsTimerRuning());
  repeat.KillTimer();
  EXPECT_FALSE(repeat.IsTimerRuning());
  EXPECT_FALSE(thread.IsThreadTimerArmed(kOneShot));
  EXPECT_TRUE(thread.IsThreadTimerArmed(kLong));

  // Then the long one, alone, at its full time.
  ASSERT_TRUE(timerSetThreadTimer(kQuit, longMs + 1000, false));
  EXPECT_EQ(thread.Run(), static_cast<int>(kQuit));
  uCSystemShareHelper::DestroyLocalThread(thread);

  const uint32_t r = repeat.id();
  std::vector<uint32_t> order;
  for (const auto& [id, atMs] : thread.fired) order.push_back(id);
  ASSERT_EQ(order, (std::vector<uint32_t>{kOneShot, r, r, r, kQuit, kLong, kQuit}));
  EXPECT_GE(thread.fired[0].second, 1000u);
  EXPECT_GE(thread.fired[5].second, longMs);
  EXPECT_FALSE(thread.IsThreadTimerArmed(kLong));
}

}  // namespace
