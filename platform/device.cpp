// The device library: the kernel's network facts, the boot-loader environment in $PROVISOR_ROOT/host/bootenv.ini (on the emulated phone a
// file of its persistent disk, where its boot loader reads it), name resolution, the platform trace.
// Where the device facts come from is the backend's: platform/host/device.cpp reads
// $PROVISOR_ROOT/host/device.ini, platform/phone/device.cpp asks the running system.
#define LOG_MODULE "./platform/device"
#include "device.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "clock.h"
#include "inifile.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr const char* kBootEnvSection = "env";
constexpr const char* kNoMac = "000000000000";
constexpr size_t kMacBytes = 6;

// "001565abcdef" from a 6-byte hardware address; "" for any other length or an all-zero address.
std::string macText(const unsigned char* bytes, size_t length) {
  if (length != kMacBytes) return "";
  char text[2 * kMacBytes + 1];
  for (size_t i = 0; i < kMacBytes; ++i) snprintf(text + 2 * i, 3, "%02x", bytes[i]);
  return text == std::string(kNoMac) ? "" : text;
}

struct InterfaceFacts {
  std::string name;
  std::string mac;
  std::string ip;
  bool running = false;
};

int32_t stateOf(const InterfaceFacts& facts) {
  if (!facts.running) return 0;
  return facts.ip.empty() ? 1 : kNetworkUp;
}

std::mutex& bootEnvMutex() {
  static std::mutex m;
  return m;
}

const char* traceWord(int level) {
  switch (level) {
    case 1:
    case 2: return "ERR";
    case 3: return "WAR";
    case 4: return "IFO";
    default: return "DEB";
  }
}

}  // namespace

KernelNetworkFacts kernelNetworkFacts() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  std::vector<InterfaceFacts> interfaces;  // in the kernel's order
  for (ifaddrs* it = list; it; it = it->ifa_next) {
    if (!it->ifa_name || (it->ifa_flags & IFF_LOOPBACK) || !(it->ifa_flags & IFF_UP)) continue;
    auto found = std::find_if(interfaces.begin(), interfaces.end(),
                              [&](const InterfaceFacts& f) { return f.name == it->ifa_name; });
    InterfaceFacts& facts = found != interfaces.end() ? *found : interfaces.emplace_back();
    facts.name = it->ifa_name;
    facts.running = (it->ifa_flags & IFF_RUNNING) != 0;
    if (!it->ifa_addr) continue;
    if (it->ifa_addr->sa_family == AF_PACKET) {
      const auto* link = reinterpret_cast<const sockaddr_ll*>(it->ifa_addr);
      facts.mac = macText(link->sll_addr, link->sll_halen);
    } else if (it->ifa_addr->sa_family == AF_INET && facts.ip.empty()) {
      char text[INET_ADDRSTRLEN] = {0};
      const auto* address = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
      if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text))) facts.ip = text;
    }
  }
  freeifaddrs(list);
  // The first interface of the best state; an interface without a hardware address (a tunnel) is
  // taken only when none has one.
  const InterfaceFacts* best = nullptr;
  for (const InterfaceFacts& facts : interfaces) {
    auto rank = [](const InterfaceFacts& f) { return stateOf(f) * 2 + (f.mac.empty() ? 0 : 1); };
    if (!best || rank(facts) > rank(*best)) best = &facts;
  }
  if (!best) return {};
  return {best->mac, best->ip, stateOf(*best)};
}

std::string netGetHostIPString(const std::string& host, int family) {
  if (host.empty()) return "";
  addrinfo hints{};
  hints.ai_family = family == AF_INET ? AF_INET : (family == AF_INET6 ? AF_INET6 : AF_UNSPEC);
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* results = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &results) != 0 || !results) return "";
  char text[INET6_ADDRSTRLEN] = {0};
  const void* address = nullptr;
  if (results->ai_family == AF_INET)
    address = &reinterpret_cast<const sockaddr_in*>(results->ai_addr)->sin_addr;
  else if (results->ai_family == AF_INET6)
    address = &reinterpret_cast<const sockaddr_in6*>(results->ai_addr)->sin6_addr;
  std::string ip;
  if (address && inet_ntop(results->ai_family, address, text, sizeof(text))) ip = text;
  freeaddrinfo(results);
  return ip;
}

bool IsValidIPV6(const std::string& text) {
  in6_addr address;
  return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

int32_t netGetLocalTime() { return serviceClock().nowSeconds(); }

int userenv_set(const std::string& name, const std::string& value) { return userenv_set_all({{name, value}}); }

int userenv_set_all(const std::vector<std::pair<std::string, std::string>>& values) {
  // The environment is "name=value" lines: a name or value that could break a line is refused.
  for (const auto& [name, value] : values)
    if (name.empty() || name.find_first_of("=[]\r\n#;") != std::string::npos ||
        value.find_first_of("\r\n") != std::string::npos)
      return -1;
  std::lock_guard<std::mutex> lock(bootEnvMutex());
  iniFile env;
  env.LoadFromFile(kHostBootEnv);
  for (const auto& [name, value] : values) env.SetTextValue(kBootEnvSection, name, value);
  return env.SaveToFile(kHostBootEnv) ? 0 : -1;
}

std::string userenv_get(const std::string& name) {
  std::lock_guard<std::mutex> lock(bootEnvMutex());
  iniFile env;
  env.LoadFromFile(kHostBootEnv);
  return env.GetTextValue(kBootEnvSection, name, "");
}

void brisaTrace(int level, const char* format, ...) {
  if (!format) return;
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  ::log(level, LOG_PREFIX "%s %s", "./platform/trace", __LINE__, traceWord(level), text);
}

std::string brisaTransLastError() { return strerror(errno); }
