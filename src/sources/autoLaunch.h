// The launch sequence: the sources of a provisioning URL tried in a fixed order until one reaches a
// server (the DHCP options the network stack saved, the configured server, a URL handed over by
// another application, the plug-and-play answer). Every source ends in autoUpgrade::UpgradeFromURL.
// Each entry returns true when a server was reached.
//
// The service owns the two facts the sequence reads but never changes: whether a run has finished
// since power-on (the power-on mark) and the zero-touch mode. It binds them once at start.
#pragma once

#include <cstdint>
#include <string>

#include "autopInfo.h"

namespace autoLaunch {

// Where the sequence reads the service's state; nullptr reads as 0.
void bindServiceState(const int32_t* powerOnState, const int32_t* zeroTouch);

// The default sequence of a run (also the power-on and the network-change run).
bool launchUpgrade();
// A given URL, or the configured one when the text is empty.
bool launchUrlUpgrade(const std::string& url);
// The URL, credentials and AES keys of a record another application sent.
bool launchUpgradeWithInfo(const AutopInfo* info);
// Hands the multicast address to the plug-and-play thread; its answer comes back as a URL message.
bool launchPnpUpgrade();
// The DHCP options: the user's option first, then listSystemOptions in order.
bool launchDhcpUpgrade(bool waitNetwork);
// strServerURL with strUserName and strPassword.
bool launchConfigUrlUpgrade();
// The firmware image a TR-069 request names: header checked, safe mode armed for the next start.
bool tr069Update();

// Polls the network state every second for up to two minutes; false when it never came up.
bool waitNetworkReady();

// The URL with the user name and password put into it (only where the URL carries none of its own
// and names a server). With `protectedPassword` and the platform's value protection on, the
// password is turned back into text first (left as it is when it is not in the protected form).
// Never logged as it is: see urlForLog in redact.h.
std::string composeUrl(const std::string& url, const std::string& user, const std::string& password,
                       bool protectedPassword);
// A DHCP option value as a URL text: plain text as it is; a value of hexadecimal byte pairs only
// (for example c0a80a01) as the bytes in decimal joined with "." (192.168.10.1).
std::string dhcpOptionText(const std::string& value);

}  // namespace autoLaunch
