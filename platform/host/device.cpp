// The host's device facts: $PROVISOR_ROOT/host/device.ini, read on every call so that a test or the
// demo can change them while the service runs ([device] mac, ip, network_state, network_type,
// time_trusted, family); the kernel's interfaces fill in a missing MAC or address.
#define LOG_MODULE "./platform/device"
#include <cctype>
#include <cstdlib>
#include <string>

#include "device.h"
#include "inifile.h"
#include "log.h"

namespace {

constexpr const char* kDeviceSection = "device";
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

}  // namespace

int32_t netGetNetworkSta() { return deviceInt("network_state", kDefaultNetworkState); }

int32_t netGetNetworkType() { return deviceInt("network_type", kDefaultNetworkType); }

std::string netGetMACText() {
  std::string mac = normalizeMac(deviceValue("mac"));
  if (mac.empty()) mac = kernelNetworkFacts().mac;
  return mac.empty() ? kNoMac : mac;
}

std::string netGetLocalIP() {
  std::string ip = deviceValue("ip");
  if (ip.empty()) ip = kernelNetworkFacts().ip;
  return ip.empty() ? kNoIp : ip;
}

bool netIsTrustedLocalTime() { return deviceInt("time_trusted", 1) != 0; }

std::string deviceFamilyOverride() { return deviceValue("family"); }
