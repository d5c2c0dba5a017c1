// The phone's device facts: what the running system says. The MAC, address and state of the network
// interface that is up come from the kernel; no host file is read and the family has no override.
#define LOG_MODULE "./platform/device"
#include <ctime>
#include <string>

#include "device.h"
#include "log.h"

namespace {

constexpr const char* kNoMac = "000000000000";
constexpr const char* kNoIp = "127.0.0.1";

// A clock that was never set starts in 1970; one past the build's own date has been set.
bool clockWasSet() {
  struct tm built {};
  if (!strptime(__DATE__, "%b %d %Y", &built)) return true;
  return static_cast<int64_t>(time(nullptr)) >= static_cast<int64_t>(timegm(&built));
}

}  // namespace


int32_t netGetNetworkSta() { return kernelNetworkFacts().state; }

// The phone's one network port is wired.
int32_t netGetNetworkType() { return 0; }

std::string netGetMACText() {
  std::string mac = kernelNetworkFacts().mac;
  return mac.empty() ? kNoMac : mac;
}

std::string netGetLocalIP() {
  std::string ip = kernelNetworkFacts().ip;
  return ip.empty() ? kNoIp : ip;
}

bool netIsTrustedLocalTime() { return clockWasSet(); }

std::string deviceFamilyOverride() { return ""; }
