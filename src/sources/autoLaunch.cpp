#define LOG_MODULE "./src/autoUpgrade"
#include "autoLaunch.h"
#include "autopSettings.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "autoParserCrypt.h"
#include "autoUpgrade.h"
#include "autopMessages.h"
#include "autopUrl.h"
#include "clock.h"
#include "device.h"
#include "firmwareUrl.h"
#include "inifile.h"
#include "log.h"
#include "msgqueue.h"
#include "privateTmp.h"
#include "redact.h"
#include "registry.h"

namespace autoLaunch {
namespace {

// Names the source a run is trying in its status record.
void noteSource(const autopContext& context, const std::string& source) {
  if (context.status) context.status->source = source;
}

constexpr const char* kDhcpOptionStore = "/tmp/valdrun_dhcp_options";
constexpr size_t kMaxDhcpOptionStore = 65536;
constexpr const char* kDhcpSection = "DHCP";
constexpr const char* kDefaultSystemOptions = "66,43";
constexpr int32_t kWiredNetwork = 0;
constexpr uint32_t kNetworkPollMs = 1000;
constexpr uint32_t kNetworkWaitMs = 120000;

// Set once a run has finished since power-on (or a zero-touch or URL run began before that).
bool powerOnMarkSet(const autopContext& context) { return context.powerOnState != 0; }

std::string setting(const char* key, const char* defaultValue = "") {
  return brisaGetProfileString(kSystemIni, kAutoProvisionSection, key, defaultValue);
}
int32_t settingInt(const char* key, int32_t defaultValue) {
  return brisaGetProfileInt(kSystemIni, kAutoProvisionSection, key, defaultValue);
}

// At power-on the configured server is used only when bEnablePoweron allows it.
bool configUrlAllowed(const autopContext& context) {
  return powerOnMarkSet(context) || settingInt(autop_key::kEnablePowerOn, 0) != 0;
}

bool isHexDigits(const std::string& text) {
  for (char c : text)
    if (!isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

std::vector<std::string> splitOptions(const std::string& list) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t comma = list.find(',', start);
    std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    size_t first = item.find_first_not_of(" \t"), last = item.find_last_not_of(" \t");
    if (first != std::string::npos) out.push_back(item.substr(first, last - first + 1));
    if (comma == std::string::npos) return out;
    start = comma + 1;
  }
}

// Tries one DHCP option of the store; false when it has no value or reaches no server.
bool tryDhcpOption(const autopContext& context, const iniFile& store, const std::string& option, const char* kind) {
  if (option.empty()) return false;
  std::string value = store.GetTextValue(kDhcpSection, option, "");
  if (value.empty()) return false;
  LOG_DEB("URL = %s\n", urlForLog(value).c_str());
  std::string url = dhcpOptionText(value);
  LOG_IFO("%s option %s = %s", kind, logEscaped(option).c_str(), urlForLog(url).c_str());
  noteSource(context, "dhcp option " + option);
  return autoUpgrade::UpgradeFromURL(context, url);
}

}  // namespace

bool waitNetworkReady() {
  for (uint32_t waited = 0;; waited += kNetworkPollMs) {
    LOG_IFO("Wait network done to upgrade");
    if (netGetNetworkSta() == kNetworkUp) return true;
    if (waited >= kNetworkWaitMs) break;
    brisaSleep(kNetworkPollMs);
  }
  LOG_IFO("Network not ready, skip upgrade");
  return false;
}

std::string dhcpOptionText(const std::string& value) {
  // Decided here: a value is hexadecimal when it is nothing but pairs of hexadecimal digits; a
  // server name or URL always holds a "." or "/" and stays as it is.
  if (value.size() < 2 || value.size() % 2 != 0 || !isHexDigits(value)) return value;
  std::string out;
  for (size_t i = 0; i < value.size(); i += 2) {
    unsigned byte = 0;
    if (sscanf(value.c_str() + i, "%2x", &byte) != 1) return value;
    if (!out.empty()) out += ".";
    out += std::to_string(byte);
  }
  return out;
}

std::string composeUrl(const std::string& url, const std::string& user, const std::string& password,
                       bool protectedPassword) {
  if (user.empty() && password.empty()) return url;
  ns_net::autopUrl parsed;
  // A local file has no log-in; a URL that names its own user keeps it.
  if (!parsed.Parse(url) || parsed.scheme == "file" || !parsed.user.empty() || !parsed.password.empty()) return url;
  std::string plain = password;
  // A stored password is in the platform's protected form only while value protection is on.
  if (protectedPassword && !password.empty() && valueEncryptionInUse() && pw_data_decrypt(password, plain) != 0)
    plain = password;
  parsed.user = user;
  parsed.password = plain;
  return parsed.ToText();
}

bool launchConfigUrlUpgrade(const autopContext& context) {
  LOG_IFO("***** Launch Config URL Upgrade *****");
  std::string url =
      composeUrl(setting(autop_key::kServerUrl), setting(autop_key::kUserName), setting(autop_key::kPassword), true);
  noteSource(context, "configured server");
  return autoUpgrade::UpgradeFromURL(context, url);
}

bool launchDhcpUpgrade(const autopContext& context, bool waitNetwork) {
  if (context.zeroTouch) {
    LOG_IFO("Zero-sp-touch launch Autop,do not update by DHCP!!");
    return false;
  }
  LOG_IFO("***** Launch DHCP Upgrade *****");
  if (waitNetwork && !waitNetworkReady()) return false;
  if (settingInt(autop_key::kEnableDhcpOption, 1) == 0 || netGetNetworkType() != kWiredNetwork) return false;
  iniFile store;
  // The network stack writes it in the shared /tmp: never followed through a link, bounded.
  std::string storeText;
  if (!readSharedTmpFile(kDhcpOptionStore, kMaxDhcpOptionStore, storeText) || storeText.size() > kMaxDhcpOptionStore)
    return false;
  store.LoadFromText(storeText);
  if (tryDhcpOption(context, store, setting(autop_key::kUserDhcpOptions), "user")) return true;
  for (const std::string& option : splitOptions(setting(autop_key::kSystemDhcpOptions, kDefaultSystemOptions)))
    if (tryDhcpOption(context, store, option, "system")) return true;
  return false;
}

bool launchUpgrade(const autopContext& context) {
  LOG_IFO("%s", "");
  LOG_IFO("***** Launch Upgrade *****");
  if (!waitNetworkReady()) return false;
  LOG_DEB("Not launch pnp upgrade by policy!");
  if (settingInt(autop_key::kUrlPriority, 0) == 0) {
    if (launchDhcpUpgrade(context, false)) return true;
    return configUrlAllowed(context) && launchConfigUrlUpgrade(context);
  }
  if (configUrlAllowed(context) && launchConfigUrlUpgrade(context)) return true;
  return launchDhcpUpgrade(context, false);
}

bool launchUrlUpgrade(const autopContext& context, const std::string& url) {
  LOG_IFO("***** Launch URL Upgrade *****");
  if (!waitNetworkReady()) return false;
  if (url.empty()) return launchConfigUrlUpgrade(context);
  noteSource(context, "given URL");
  return autoUpgrade::UpgradeFromURL(context, url);
}

bool launchUpgradeWithInfo(const autopContext& context, const AutopInfo* info) {
  LOG_IFO("***** %-30s *****", "Launch Upgrade With AutopInfo");
  if (!info) {
    LOG_ERR("The AutopInfo pointer is NULL !");
    return false;
  }
  if (!waitNetworkReady()) return false;
  std::string url =
      composeUrl(autopInfoText(info->url), autopInfoText(info->userName), autopInfoText(info->password), true);
  noteSource(context, "request record");
  return autoUpgrade::UpgradeFromURL(context, url, info);
}

bool tr069Update() { return tr069DownloadRom() != 0; }

bool launchPnpUpgrade(const autopContext& context) {
  if (context.zeroTouch) {
    LOG_IFO("Zero-sp-touch launch Autop,do not update by PNP!!");
    return false;
  }
  LOG_IFO("***** Launch PNP Upgrade *****");
  if (settingInt(autop_key::kEnablePnp, 0) == 0) {
    LOG_IFO("Skipped ! PNP Mode is Closed.");
    return false;
  }
  std::string address = setting(autop_key::kPnpMulticastIp, kDefaultPnpMulticast);
  in_addr parsed;
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
    LOG_WAR("PNP Server IP [%s] is Invalid !", logEscaped(address).c_str());
    return false;
  }
  LOG_IFO("PNP Server IP = %s", address.c_str());
  // The text travels with its terminating zero, as the plug-and-play thread expects it.
  return msgPostMsgToThreadEx(msgGetThreadByName(kThreadPnpManager), AP_MSG_PNP_REQUEST, 0, 0,
                              static_cast<uint32_t>(address.size() + 1), address.c_str());
}

}  // namespace autoLaunch
