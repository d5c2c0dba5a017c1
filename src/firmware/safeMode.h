// The two steps every firmware path shares, written once: the header check at the image's location
// (the duna and orin installers, lyra before it stops anything, a TR-069 firmware URL) and the
// switch of the boot loader to safe mode with that location (duna, TR-069).
#pragma once

#include <string>

constexpr int kHeaderCheckTimeoutMs = 10000;

// The upgrade library's header check, with its log lines: FW_OK, FW_ALREADY_INSTALLED (the image is
// the running firmware; logged as nothing to upgrade) or the refusal. A server that cannot be
// reached is tried `attempts` times, each failure logged as the download opening logs it.
int checkFirmwareHeader(const std::string& location, int attempts = 1);

// BOOTMODE=safemode and strUpgradeURL=location in one write, so safe mode without its URL (or with
// an older one) never survives a power loss. 1, or 0 with the log line.
int armSafeMode(const std::string& location);
