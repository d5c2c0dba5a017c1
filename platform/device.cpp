// The device library on the host: facts from $PROVISOR_ROOT/host/device.ini (read on every call, so
// a test or the demo can change them while the service runs), the boot-loader environment in
// $PROVISOR_ROOT/host/bootenv.ini, name resolution, the platform trace.
#define LOG_MODULE "./platform/device"
#include "device.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include "clock.h"
#include "inifile.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr const char* kDeviceSection = "device";
constexpr const char* kBootEnvSection = "env";
constexpr const char* kNoMac = "000000000000";
constexpr const char* kNoIp = "127.0.0.1";
constexpr int32_t kDefaultNetworkState = 2;
constexpr int32_t kDefaultNetworkType = 0;

std::string deviceValue(const std::string& key) {
  iniFile ini;
  ini.LoadFromFile(kHostDeviceIni);
  return ini.GetTextValue(kDeviceSection, key, "");
}

int32_t deviceInt(const std::string& key, int32_t defaultValue) {
  std::string text = deviceValue(key);
  if (text.empty()) return defaultValue;
  char* end = nullptr;
  long value = strtol(text.c_str(), &end, 10);
  return end == text.c_str() ? defaultValue : static_cast<int32_t>(value);
}

// "00:15:65:AB:CD:EF" or "001565abcdef" -> "001565abcdef"; "" when it is not a MAC address.
std::string normalizeMac(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (c == ':' || c == '-' || isspace(static_cast<unsigned char>(c))) continue;
    if (!isxdigit(static_cast<unsigned char>(c))) return "";
    digits += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return digits.size() == 12 ? digits : "";
}

// Walks the interfaces of the real machine that are up and not loopback.
template <typename Visit>
void forEachInterface(Visit visit) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return;
  for (ifaddrs* it = list; it; it = it->ifa_next) {
    if (!it->ifa_name || (it->ifa_flags & IFF_LOOPBACK)) continue;
    if (visit(*it)) break;
  }
  freeifaddrs(list);
}

std::string hostInterfaceMac() {
  std::string mac;
  forEachInterface([&mac](const ifaddrs& entry) {
    std::ifstream in(std::string("/sys/class/net/") + entry.ifa_name + "/address");
    std::string text;
    in >> text;
    mac = normalizeMac(text);
    if (mac == kNoMac) mac.clear();
    return !mac.empty();
  });
  return mac;
}

std::string hostInterfaceIp() {
  std::string ip;
  forEachInterface([&ip](const ifaddrs& entry) {
    if (!entry.ifa_addr || entry.ifa_addr->sa_family != AF_INET) return false;
    char text[INET_ADDRSTRLEN] = {0};
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
    if (!inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text))) return false;
    ip = text;
    return true;
  });
  return ip;
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

int32_t netGetNetworkSta() { return deviceInt("network_state", kDefaultNetworkState); }

int32_t netGetNetworkType() { return deviceInt("network_type", kDefaultNetworkType); }

std::string netGetMACText() {
  std::string mac = normalizeMac(deviceValue("mac"));
  if (mac.empty()) mac = hostInterfaceMac();
  return mac.empty() ? kNoMac : mac;
}

std::string netGetLocalIP() {
  std::string ip = deviceValue("ip");
  if (ip.empty()) ip = hostInterfaceIp();
  return ip.empty() ? kNoIp : ip;
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

bool netIsTrustedLocalTime() { return deviceInt("time_trusted", 1) != 0; }

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
