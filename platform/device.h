// Facts and services of the phone's device library.
// Host build: facts come from $PROVISOR_ROOT/host/device.ini, section "device": mac (12 lower-case
// hexadecimal digits), ip, network_state (default 2), network_type (default 0), time_trusted
// (default 1), family (forces the device family). A missing mac or ip comes from the kernel's
// interfaces as on the phone, else 000000000000 and 127.0.0.1.
// Phone build (PROVISOR_PHONE_BUILD): no host file is read. MAC, address and network state come from
// the kernel's interfaces (kernelNetworkFacts); the network type is 0 (wired: the phone's network
// port); the local time is trusted once the clock is past the build's date; the device family
// follows the hardware version alone.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

constexpr const char* kHostDeviceIni = "/host/device.ini";

// The network state: kNetworkUp (2) when the phone can reach a server.
constexpr int32_t kNetworkUp = 2;
int32_t netGetNetworkSta();
// What the kernel says about the network: the interface that is up and not loopback, preferring one
// with carrier and an IPv4 address. `state`: kNetworkUp with carrier and an address, 1 with carrier
// only, 0 when no interface is up with carrier. `mac` is "" when no up interface has a hardware
// address, `ip` "" when there is no IPv4 address.
struct KernelNetworkFacts {
  std::string mac;
  std::string ip;
  int32_t state = 0;
};
KernelNetworkFacts kernelNetworkFacts();
// The forced device family of the host build (section "device", key "family"); always "" on the
// phone, whose family follows its hardware version.
std::string deviceFamilyOverride();
int32_t netGetNetworkType();
std::string netGetMACText();
std::string netGetLocalIP();
// Resolves a host name to an address text ("" when it fails). `family`: 2 IPv4 only, 10 IPv6 only,
// anything else: the first address of either family.
std::string netGetHostIPString(const std::string& host, int family);
bool IsValidIPV6(const std::string& text);
// Local calendar time (seconds, service clock) and whether it was set from a trusted source.
int32_t netGetLocalTime();
bool netIsTrustedLocalTime();

// Boot-loader environment, kept in $PROVISOR_ROOT/host/bootenv.ini on the host. 0 on success.
constexpr const char* kHostBootEnv = "/host/bootenv.ini";
int userenv_set(const std::string& name, const std::string& value);
// Several names in one replacement of the environment: a power loss leaves all of them or none.
int userenv_set_all(const std::vector<std::pair<std::string, std::string>>& values);
std::string userenv_get(const std::string& name);

// The platform's protection of stored passwords. On the host: AES-128-CBC with a fixed device key
// (the MD5 digest of a constant of the host build) and a random IV per value, written as
// "ENC:" + base64(IV || cipher). Equal values give different texts. 0 on success; -1 for a text
// that is not of that form or does not decrypt with valid padding.
int pw_data_encrypt(const std::string& plain, std::string& out);
int pw_data_decrypt(const std::string& protectedText, std::string& out);

// The platform trace (level 1..5); goes to the log with the "./platform" module path.
void brisaTrace(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Text of the current errno.
std::string brisaTransLastError();
