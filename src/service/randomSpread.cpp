#include "randomSpread.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "clock.h"
#include "device.h"

namespace {

// The final mixing step of a well-known 32-bit hash: every input bit reaches every output bit.
uint32_t avalanche(uint32_t x) {
  x ^= x >> 16;
  x *= 0x85ebca6bu;
  x ^= x >> 13;
  x *= 0xc2b2ae35u;
  x ^= x >> 16;
  return x;
}

uint32_t textHash(const std::string& text) {
  uint32_t h = 2166136261u;  // FNV-1a
  for (unsigned char c : text) h = (h ^ c) * 16777619u;
  return h;
}

}  // namespace

uint32_t mixedRandomSeed(int32_t seconds, const std::string& macText, uint32_t processId) {
  uint32_t x = avalanche(static_cast<uint32_t>(seconds) ^ textHash(macText));
  return avalanche(x ^ (processId * 0x9e3779b9u));
}

void seedRandomGenerator() {
  srand(mixedRandomSeed(serviceClock().nowSeconds(), netGetMACText(), static_cast<uint32_t>(getpid())));
}

uint32_t powerOnDelayMs(int32_t configuredSeconds) {
  if (configuredSeconds <= 0) return kPowerOnDelayMs;
  const uint32_t boundMs = static_cast<uint32_t>(std::min(configuredSeconds, kMaxPowerOnRandomDelaySeconds)) * 1000u;
  if (boundMs <= kPowerOnDelayMs) return kPowerOnDelayMs;
  // At most 86 400 000 + 1 values: well inside rand()'s 31 bits, so the bias of the modulo is tiny.
  return kPowerOnDelayMs + static_cast<uint32_t>(rand()) % (boundMs - kPowerOnDelayMs + 1);
}
