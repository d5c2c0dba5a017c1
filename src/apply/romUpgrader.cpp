#define LOG_MODULE "./src/fileUpgrader"
#include "romUpgrader.h"

#include "log.h"

// Waiting for the firmware issue (see the header).

autoRomUpgrader::~autoRomUpgrader() = default;

int autoRomUpgrader::upgradeItem(autopItem*) {
  LOG_WAR("Firmware upgrade not built yet, nothing flashed");
  return 0;
}

int autoRomUpgrader::upgrade(autopItemList& items) {
  if (items.empty()) return 0;
  return upgradeItem(items.front().get());
}
