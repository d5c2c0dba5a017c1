// Phones that boot in the same second must not come to their server together: the generator's seed
// mixes the time with the MAC and the process id, so the weekly moments they draw differ.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "autoPolicy.h"
#include "daemon.h"
#include "provisor.h"
#include "randomSpread.h"
#include "registry.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kWeeklyAllDay =
    "[AutoProvision]\nbEnableWeekly = 1\nstrWeeklyMask = 0123456\nstrWeeklyBeginTime = 00:00\n"
    "strWeeklyEndTime = 23:59\n";

// Each input alone moves the seed: a mix that dropped any of them would give two phones one moment.
TEST(RandomSeed, EveryInputChangesTheSeed) {
  const uint32_t base = mixedRandomSeed(1700000000, "001565aabbcc", 1234);
  const struct {
    const char* name;
    int32_t seconds;
    const char* mac;
    uint32_t pid;
  } cases[] = {
      {"next second", 1700000001, "001565aabbcc", 1234},
      {"next MAC", 1700000000, "001565aabbcd", 1234},
      {"first MAC digit", 1700000000, "101565aabbcc", 1234},
      {"next process", 1700000000, "001565aabbcc", 1235},
      {"time and MAC moved together", 1700000001, "001565aabbcd", 1234},
  };
  for (const auto& c : cases) EXPECT_NE(mixedRandomSeed(c.seconds, c.mac, c.pid), base) << c.name;
  EXPECT_EQ(mixedRandomSeed(1700000000, "001565aabbcc", 1234), base);
}

class RandomSpreadTest : public RootedTest {};

// A thousand phones with consecutive MACs (as a fleet is delivered) boot in the same second, all as
// the same process id: a day-long window gives nearly a thousand different moments.
TEST_F(RandomSpreadTest, AFleetBootedInOneSecondDrawsDistinctWeeklyMoments) {
  chThreadLocal owner("spread_owner");
  uCSystemShareHelper::CreateLocalThread(owner);
  root->write("/config/system/system.ini", kWeeklyAllDay);
  registryResetCache();
  const REGHANDLE handle = registryOpen("/config/system/system.ini", "AutoProvision");
  std::set<int32_t> moments;
  const int kPhones = 1000;
  for (int i = 0; i < kPhones; ++i) {
    char mac[13];
    snprintf(mac, sizeof(mac), "001565%06x", 0x100000 + i);
    srand(mixedRandomSeed(1700000000, mac, 4242));
    weeklyPolicy weekly;
    weekly.Load(handle);
    weekly.Stop();
    moments.insert(weekly.secondOfDay());
  }
  // Uniform draws among 86 340 seconds collide about 6 times in a thousand.
  EXPECT_GE(moments.size(), kPhones * 98u / 100u);
  uCSystemShareHelper::DestroyLocalThread(owner);
}

// Two daemons with different MACs start on the fake clock, so in the very same second: their weekly
// moments differ.
TEST(RandomSpreadDaemon, TwoPhonesBootedInTheSameSecondDrawDifferentWeeklyMoments) {
  const std::string marker = "Weekly AutoProvision will active at : ";
  std::string moments[2];
  const char* macs[2] = {"001565000001", "001565000002"};
  for (int i = 0; i < 2; ++i) {
    TempRoot root;
    root.write("/host/device.ini", std::string("[device]\nmac = ") + macs[i] + "\nip = 127.0.0.1\n");
    root.write("/config/system/system.ini", kWeeklyAllDay);
    DaemonProcess daemon(root.path(), {}, true);
    ASSERT_TRUE(daemon.waitForLog(marker, 20000)) << daemon.log();
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    const std::string log = daemon.log();
    moments[i] = log.substr(log.find(marker) + marker.size(), 19);
  }
  EXPECT_NE(moments[0], moments[1]);
}

// The service as started in normal mode, in this process on the fake clock: it notes how much fake
// time passed when its plug-and-play wait timer (which starts the power-on run) fired, and stops.
class PowerOnProbe : public provisorObject {
 public:
  explicit PowerOnProbe(FakeClock& clock) : clock_(clock) {}
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message != MSG_THREAD_TIMER) return provisorObject::TryThreadMessage(msg);
    firedAfterMs = clock_.elapsedMs() - startMs_;
    Quit(0);
    return true;
  }
  // Milliseconds of fake time from Start to the first timer, or -1 when Start failed.
  int64_t run() {
    uCSystemShareHelper::CreateLocalThread(*this);
    startMs_ = clock_.elapsedMs();
    const bool started = Start();
    if (started) Run();
    Stop();
    uCSystemShareHelper::DestroyLocalThread(*this);
    return started ? static_cast<int64_t>(firedAfterMs) : -1;
  }
  uint64_t firedAfterMs = 0;

 private:
  FakeClock& clock_;
  uint64_t startMs_ = 0;
};

class PowerOnDelayTest : public RootedTest {
 protected:
  int64_t powerOnAfterMs(const std::string& keys, unsigned seed) {
    root->write("/config/system/system.ini", "[AutoProvision]\n" + keys);
    registryResetCache();
    srand(seed);
    PowerOnProbe service(fakeClock);
    return service.run();
  }
};

// Without a spread the power-on run starts half a second after start; a spread draws a moment up to
// its bound, and a bound past a day is held to one day.
TEST_F(PowerOnDelayTest, ThePowerOnRunWaitsARandomMomentUpToItsBound) {
  const struct {
    const char* keys;
    int64_t atLeastMs, atMostMs;
  } cases[] = {
      {"", 500, 500},
      {"nPowerOnRandomDelay = 0\n", 500, 500},
      {"nPowerOnRandomDelay = -30\n", 500, 500},
      {"nPowerOnRandomDelay = x\n", 500, 500},
      {"nPowerOnRandomDelay = 60\n", 500, 60000},
      {"nPowerOnRandomDelay = 2000000000\n", 500, 86400000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.keys);
    for (unsigned seed : {1u, 2u, 3u}) {
      const int64_t ms = powerOnAfterMs(c.keys, seed);
      EXPECT_GE(ms, c.atLeastMs);
      EXPECT_LE(ms, c.atMostMs);
    }
  }
}

// Forty phones with a one-minute spread: their runs cover the minute rather than bunching.
TEST_F(PowerOnDelayTest, PhonesWithASpreadStartAcrossTheWholeWindow) {
  std::set<int64_t> seconds;
  int64_t first = INT64_MAX, last = 0;
  for (unsigned phone = 0; phone < 40; ++phone) {
    const int64_t ms = powerOnAfterMs("nPowerOnRandomDelay = 60\n", mixedRandomSeed(1700000000, "001565aabbcc", phone));
    ASSERT_GE(ms, 500);
    seconds.insert(ms / 1000);
    first = std::min(first, ms);
    last = std::max(last, ms);
  }
  EXPECT_GE(seconds.size(), 25u);
  EXPECT_LT(first, 15000);
  EXPECT_GT(last, 45000);
}

}  // namespace
