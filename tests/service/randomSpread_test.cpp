// Phones that boot in the same second must not come to their server together: the generator's seed
// mixes the time with the MAC and the process id, so the weekly moments they draw differ.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "autoPolicy.h"
#include "daemon.h"
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

}  // namespace
