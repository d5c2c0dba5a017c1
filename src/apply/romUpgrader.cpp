#define LOG_MODULE "./src/fileUpgrader"
#include "romUpgrader.h"

#include <cstdlib>

#include "log.h"
#include "romInstaller.h"

namespace {

struct FirmwareLocation {
  std::string scheme, host, port, user, password, name, httpUrl;
};

// Which field of the location each item key fills.
struct LocationKey {
  const char* key;
  std::string FirmwareLocation::*field;
};
const LocationKey kLocationKeys[] = {
    {"server_type", &FirmwareLocation::scheme}, {"server_ip", &FirmwareLocation::host},
    {"server_port", &FirmwareLocation::port},   {"login_name", &FirmwareLocation::user},
    {"login_pswd", &FirmwareLocation::password}, {"firmware_name", &FirmwareLocation::name},
    {"http_url", &FirmwareLocation::httpUrl},
};

bool isHttpScheme(const std::string& scheme) { return scheme == "http" || scheme == "https"; }

}  // namespace

std::string composeFirmwareUrl(const autopItemList& items) {
  FirmwareLocation location;
  for (const auto& item : items) {
    if (!item) continue;
    for (const LocationKey& k : kLocationKeys)
      if (item->key == k.key) location.*k.field = item->value;
  }
  if (isHttpScheme(location.scheme)) {
    const std::string& base = location.httpUrl;
    bool slash = !base.empty() && base.back() == '/';
    return base + (slash ? "" : "/") + location.name;
  }
  ns_net::autopUrl url;
  url.scheme = location.scheme;
  url.user = location.user;
  url.password = location.password;
  url.host = location.host;
  if (!location.port.empty()) url.port = static_cast<int32_t>(strtol(location.port.c_str(), nullptr, 10));
  url.path = "/" + location.name;
  return url.ToText();
}

autoRomUpgrader::~autoRomUpgrader() = default;

int autoRomUpgrader::upgradeItem(autopItem* item) {
  LOG_IFO("");
  LOG_IFO("***** Upgrade ROM File ***** ");
  if (!item) return 0;
  std::unique_ptr<romInstaller> installer = createRomInstaller();
  if (!installer) {
    LOG_ERR("Can't get rom parser for Dev Type!");
    return 0;
  }
  int result = installer->install(item->value.c_str());
  if (result == 1) item->changed = true;
  return result;
}

int autoRomUpgrader::upgrade(autopItemList& items) {
  if (items.empty()) return 0;
  if (items.size() == 1) return upgradeItem(items.front().get());
  const autopItem* first = items.front().get();
  if (!first) return 0;
  autopItem built = *first;
  built.key = "url";
  built.value = composeFirmwareUrl(items);
  int result = upgradeItem(&built);
  if (result == 1)
    for (auto& item : items)
      if (item) item->changed = true;
  return result;
}
