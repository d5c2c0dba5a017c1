// The weekly moments a fleet booted in one second draws, by the service's own weekly policy, under
// two seedings of the generator: the time alone (as the daemon seeded it before) and the time mixed
// with each phone's MAC and process id (as it does now). bench/fleet.sh reads its two lines; the
// daemons themselves give the figure of the second seeding again.
//
// usage: bench_fleet_moments PHONES [SECONDS [BEGIN END]]   (window as HH:MM, default 00:00-06:00)
#include <stdio.h>
#include <stdlib.h>

#include <set>
#include <string>

#include "autoPolicy.h"
#include "benchRoot.h"
#include "randomSpread.h"
#include "registry.h"

namespace {

int distinctMoments(int phones, const REGHANDLE& handle, uint32_t (*seedOf)(int32_t, int), int32_t seconds) {
  std::set<int32_t> moments;
  for (int phone = 0; phone < phones; ++phone) {
    srand(seedOf(seconds, phone));
    weeklyPolicy weekly;
    weekly.Load(handle);
    weekly.Stop();
    moments.insert(weekly.secondOfDay());
  }
  return static_cast<int>(moments.size());
}

uint32_t timeOnly(int32_t seconds, int) { return static_cast<uint32_t>(seconds); }

// The MACs bench/fleet.sh gives its phones; process ids as a fresh boot hands them out.
uint32_t timeMacAndProcess(int32_t seconds, int phone) {
  char mac[13];
  snprintf(mac, sizeof(mac), "001565%06x", phone);
  return mixedRandomSeed(seconds, mac, static_cast<uint32_t>(300 + phone));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3 && argc != 5) {
    fprintf(stderr, "usage: %s PHONES [SECONDS [BEGIN END]]\n", argv[0]);
    return 2;
  }
  const int phones = atoi(argv[1]);
  const int32_t seconds = argc >= 3 ? static_cast<int32_t>(atol(argv[2])) : 1700000000;
  const std::string begin = argc == 5 ? argv[3] : "00:00", end = argc == 5 ? argv[4] : "06:00";
  benchRoot();
  // The policy's log lines go to standard output; the figures go to standard error.
  brisaSetRegistryString("/config/system/system.ini", "AutoProvision", "bEnableWeekly", "1");
  brisaSetRegistryString("/config/system/system.ini", "AutoProvision", "strWeeklyMask", "0123456");
  brisaSetRegistryString("/config/system/system.ini", "AutoProvision", "strWeeklyBeginTime", begin);
  brisaSetRegistryString("/config/system/system.ini", "AutoProvision", "strWeeklyEndTime", end);
  const REGHANDLE handle = registryOpen("/config/system/system.ini", "AutoProvision");
  chThreadLocal owner("fleet_moments");
  uCSystemShareHelper::CreateLocalThread(owner);
  fprintf(stderr, "time only: %d distinct of %d\n", distinctMoments(phones, handle, timeOnly, seconds), phones);
  fprintf(stderr, "time, MAC and process id: %d distinct of %d\n",
          distinctMoments(phones, handle, timeMacAndProcess, seconds), phones);
  uCSystemShareHelper::DestroyLocalThread(owner);
  return 0;
}
