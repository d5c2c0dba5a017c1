// The repeat and weekly policies on a thread of their own, all on the fake clock: when they ask for
// runs, how the weekly moment is drawn and found, untrusted time, daylight-saving days and a change
// of the section by another process.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "autoPolicy.h"
#include "autopMessages.h"
#include "registry.h"
#include "testRoot.h"
#include "timeutil.h"

using namespace testing_support;

namespace {

constexpr uint32_t kGiveUpTimer = 0xdead;

// The service thread as the policies see it: records when runs were asked for; a run takes
// `runSeconds` and re-arms the repeat policy at its end, as the service does.
class PolicyThread : public chThreadLocal {
 public:
  PolicyThread(policyManger& manager, size_t quitAfter, int32_t runSeconds = 0)
      : chThreadLocal("policy_test"), manager_(manager), quitAfter_(quitAfter), runSeconds_(runSeconds) {}
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message == MSG_THREAD_TIMER && msg.wParam == kGiveUpTimer) {
      Quit(1);
      return true;
    }
    if (manager_.OnTimerMessage(msg)) return true;
    if (msg.message != MSG_START_AUTO_PROVISION) return false;
    starts.push_back(serviceClock().nowSeconds());
    brisaSleep(static_cast<uint32_t>(runSeconds_) * 1000u);
    manager_.ReloadAfterRun();
    if (starts.size() == quitAfter_) Quit(0);
    return true;
  }
  // Starts the policies on this thread and runs until enough runs were asked for (0) or a month of
  // fake time passed without them (1).
  int run(bool giveUpTimer = true) {
    uCSystemShareHelper::CreateLocalThread(*this);
    manager_.Start();
    if (giveUpTimer) timerSetThreadTimer(kGiveUpTimer, 40ull * 86400 * 1000, false);
    int code = Run();
    manager_.Stop();
    uCSystemShareHelper::DestroyLocalThread(*this);
    return code;
  }
  std::vector<int32_t> starts;

 private:
  policyManger& manager_;
  size_t quitAfter_;
  int32_t runSeconds_;
};

// Every test starts in UTC; the zone is left set after it, as no other test here depends on it.
class PolicyTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    zone("UTC0");
  }
  static void zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }
  void keys(const std::string& text) {
    root->write("/config/system/system.ini", "[AutoProvision]\n" + text);
    registryResetCache();
  }
};

// Loading the section on the thread that owns the timers: what each policy arms.
TEST_F(PolicyTest, LoadingArmsOnlyWhatTheSectionAsksFor) {
  chThreadLocal owner("policy_owner");
  uCSystemShareHelper::CreateLocalThread(owner);
  for (const char* text :
       {"bEnableRepeat = 0\n", "bEnableRepeat = 1\nnRepeatMinutes = 0\n", "bEnableRepeat = 1\nnRepeatMinutes = -5\n"}) {
    SCOPED_TRACE(text);
    keys(text);
    repeatPolicy repeat;
    repeat.Load(registryOpen("/config/system/system.ini", "AutoProvision"));
    EXPECT_EQ(repeat.interval(), 0u);
    EXPECT_FALSE(repeat.timer().IsTimerRuning());
  }

  // The weekly moment is drawn inside the window, [from, to] taken modulo a day.
  const struct {
    const char *begin, *end;
    int32_t from, to;
  } windows[] = {{"08:00", "09:30", 28800, 34200},
                 {"22:00", "02:00", 79200, 86400 + 7200},
                 {"08:00", "08:00", 28800, 28800 + 86400}};
  srand(7);
  for (const auto& w : windows) {
    SCOPED_TRACE(w.begin + std::string("-") + w.end);
    keys(std::string("bEnableWeekly = 1\nstrWeeklyMask = 0123456\nstrWeeklyBeginTime = ") + w.begin +
         "\nstrWeeklyEndTime = " + w.end + "\n");
    bool wrapped = false;
    for (int i = 0; i < 40; ++i) {
      weeklyPolicy weekly;
      weekly.Load(registryOpen("/config/system/system.ini", "AutoProvision"));
      int32_t moment = weekly.secondOfDay();
      ASSERT_TRUE(moment >= 0 && moment < 86400) << moment;
      EXPECT_LE(moment < w.from ? moment + 86400 : moment, w.to);
      wrapped = wrapped || moment < w.from;
    }
    // Windows that reach past midnight do draw moments on the far side of it.
    EXPECT_EQ(wrapped, w.to > 86400);
  }
  EXPECT_EQ(weeklyPolicy::parseMask("135x6"), (1u << 1) | (1u << 3) | (1u << 5));
  EXPECT_EQ(weeklyPolicy::parseMask("7123"), 0u);
  EXPECT_EQ(weeklyPolicy::parseTime("8:5"), 8 * 3600 + 5 * 60);
  EXPECT_EQ(weeklyPolicy::parseTime("0800"), -1);
  EXPECT_EQ(weeklyPolicy::parseTime("08:x"), -1);

  // Untrusted time arms nothing until the weekly check finds it trusted.
  root->write("/host/device.ini", "[device]\ntime_trusted = 0\n");
  keys("bEnableWeekly = 1\nstrWeeklyMask = 0123456\nstrWeeklyBeginTime = 08:00\nstrWeeklyEndTime = 09:00\n");
  LogCapture log;
  weeklyPolicy weekly;
  weekly.Load(registryOpen("/config/system/system.ini", "AutoProvision"));
  EXPECT_FALSE(weekly.timer().IsTimerRuning());
  root->write("/host/device.ini", "[device]\ntime_trusted = 1\n");
  EXPECT_EQ(weekly.Schedule(), 1);
  EXPECT_TRUE(weekly.timer().IsTimerRuning());
  EXPECT_TRUE(log.contains("Weekly AutoProvision will active at : 2023-11-15 08:"));
  weekly.Stop();
  uCSystemShareHelper::DestroyLocalThread(owner);
}

// Each run falls at its wall-clock moment on the next day of the mask, up to the eighth candidate;
// under Central European rules the days of 23 and 25 hours get exactly one run each too. The fake
// UTC cases start on Tuesday 2023-11-14 at 22:13:20.
TEST_F(PolicyTest, WeeklyRunsFallOnTheMaskedDaysAtTheirLocalMoment) {
  const char* cet = "CET-1CEST,M3.5.0,M10.5.0/3";
  const int32_t kTuesday = 1700000000;
  const struct {
    const char* zone;
    int32_t startUtc;
    const char *mask, *begin, *end;
    std::vector<std::string> expected;
  } cases[] = {
      {"UTC0", kTuesday, "2", "23:00", "23:01", {"2023-11-14 23:00"}},  // later today
      // Past today: Thursday, then Tuesday a week on.
      {"UTC0", kTuesday, "24", "21:00", "21:01", {"2023-11-16 21:00", "2023-11-21 21:00"}},
      {"UTC0", kTuesday, "2", "21:00", "21:01", {"2023-11-21 21:00"}},  // only today's bit: a week on
      // Noon local the day before the change: 02:30 does not exist, then comes twice.
      {cet, 1711796400, "0123456", "02:30", "02:31", {"2024-03-31 03:30", "2024-04-01 02:30", "2024-04-02 02:30"}},
      {cet, 1729936800, "0123456", "02:30", "02:31", {"2024-10-27 02:30", "2024-10-28 02:30", "2024-10-29 02:30"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mask + std::string(" ") + c.begin + " " + c.zone);
    zone(c.zone);
    FakeClock clock(c.startUtc);
    ScopedClock useFake(clock);
    keys(std::string("bEnableWeekly = 1\nstrWeeklyMask = ") + c.mask + "\nstrWeeklyBeginTime = " + c.begin +
         "\nstrWeeklyEndTime = " + c.end + "\n");
    policyManger manager;
    PolicyThread thread(manager, c.expected.size());
    EXPECT_EQ(thread.run(), 0);
    std::vector<std::string> seen;
    for (int32_t s : thread.starts) seen.push_back(chTime(s).Format("%Y-%m-%d %H:%M"));
    EXPECT_EQ(seen, c.expected);
  }
}

// The repeat interval counts from the end of the last run, which takes ten minutes here.
TEST_F(PolicyTest, AChangeOfTheSectionByAnotherProcessReloadsBothPolicies) {
  // Nothing is armed at first, so the fake clock stands still until the section changes.
  keys("bEnableRepeat = 0\nnRepeatMinutes = 600\n");
  policyManger manager;
  PolicyThread thread(manager, 2, 600);
  std::atomic<bool> done{false};
  std::thread editor([this, &thread, &done] {
    usleep(200000);
    root->write("/tmp/system.ini.new",
                "[AutoProvision]\nbEnableRepeat = 1\nnRepeatMinutes = 7\nbEnableWeekly = 1\nstrWeeklyMask = 3\n"
                "strWeeklyBeginTime = 10:00\nstrWeeklyEndTime = 11:00\n");
    runCommand("mv '" + root->host("/tmp/system.ini.new") + "' '" + root->host("/config/system/system.ini") + "'");
    for (int i = 0; i < 1000 && !done; ++i) usleep(10000);
    if (!done) thread.Quit(1);  // the change was never noticed
  });
  const int32_t start = serviceClock().nowSeconds();
  int code = thread.run(false);
  done = true;
  editor.join();
  EXPECT_EQ(code, 0);
  EXPECT_EQ(thread.starts, (std::vector<int32_t>{start + 7 * 60, start + 24 * 60}));
  EXPECT_EQ(manager.weekly.mask(), 1u << 3);
}

}  // namespace

// A repeat run from 23:13 to 00:51 holds the weekly timer of 23:30 in the queue past midnight: the
// next weekly moment is that same evening, not a day later.
TEST_F(PolicyTest, AWeeklyMomentHandledAfterMidnightKeepsTheNextDay) {
  FakeClock clock(1700000000);  // Tuesday 2023-11-14 22:13:20
  ScopedClock useFake(clock);
  keys("bEnableRepeat = 1\nnRepeatMinutes = 60\nbEnableWeekly = 1\nstrWeeklyMask = 0123456\n"
       "strWeeklyBeginTime = 23:30\nstrWeeklyEndTime = 23:31\n");
  LogCapture log;
  policyManger manager;
  PolicyThread thread(manager, 2, 98 * 60);
  EXPECT_EQ(thread.run(), 0);
  std::vector<std::string> seen;
  for (int32_t s : thread.starts) seen.push_back(chTime(s).Format("%Y-%m-%d %H:%M"));
  EXPECT_EQ(seen, (std::vector<std::string>{"2023-11-14 23:13", "2023-11-15 00:51"}));
  EXPECT_TRUE(log.contains("Weekly AutoProvision will active at : 2023-11-15 23:30")) << log.text();
}
