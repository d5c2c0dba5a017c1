#include "randomSpread.h"

#include <unistd.h>

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

