// The launch sequence: the sources of a provisioning URL tried in a fixed order until one reaches a
// server (the DHCP options the network stack saved, the configured server, a URL handed over by
// another application, the plug-and-play answer). Every source ends in autoUpgrade::UpgradeFromURL.
// Each entry returns true when a server was reached.
//
// Every entry takes the run's context (autopContext.h): the sequence reads the power-on mark and the
// zero-touch mode from it and hands it on to every download.
#pragma once

#include <cstdint>
#include <string>

#include "autopContext.h"
#include "autopInfo.h"

namespace autoLaunch {

// The default sequence of a run (also the power-on and the network-change run).
bool launchUpgrade(const autopContext& context);
// A given URL, or the configured one when the text is empty.
bool launchUrlUpgrade(const autopContext& context, const std::string& url);
// The URL, credentials and AES keys of a record another application sent.
bool launchUpgradeWithInfo(const autopContext& context, const AutopInfo* info);
// Hands the multicast address to the plug-and-play thread; its answer comes back as a URL message.
bool launchPnpUpgrade(const autopContext& context);
// The DHCP options: the user's option first, then listSystemOptions in order.
bool launchDhcpUpgrade(const autopContext& context, bool waitNetwork);
// strServerURL with strUserName and strPassword.
bool launchConfigUrlUpgrade(const autopContext& context);
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
