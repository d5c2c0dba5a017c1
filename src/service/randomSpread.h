// How a fleet of phones avoids coming to its server all at once. After a site's power cut every
// phone boots in the same second: seeded with the time alone, all of them would draw the same weekly
// moment week after week, and all would start their power-on run together. The generator is
// therefore seeded with the time mixed with the device's MAC and the process id (the weekly draw
// itself is unchanged), and the power-on run may be spread over a configured number of seconds.
#pragma once

#include <cstdint>
#include <string>

// The longest spread of the power-on run nPowerOnRandomDelay may ask for: one day.
constexpr int32_t kMaxPowerOnRandomDelaySeconds = 86400;
// The power-on run without a spread starts this long after start-up.
constexpr uint32_t kPowerOnDelayMs = 500;

// A 32-bit seed in which every bit of the time, of the MAC text and of the process id counts, so
// that phones differing in any one of them start their generators apart.
uint32_t mixedRandomSeed(int32_t seconds, const std::string& macText, uint32_t processId);

// Seeds rand() from the service clock, this device's MAC and this process.
void seedRandomGenerator();

// The wait before the power-on run for nPowerOnRandomDelay = `configuredSeconds`: 500 ms when 0 or
// less; otherwise a draw of rand() between 500 ms and that many seconds, at most one day.
uint32_t powerOnDelayMs(int32_t configuredSeconds);
