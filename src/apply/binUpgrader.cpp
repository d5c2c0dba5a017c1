#define LOG_MODULE "./src/fileUpgrader"
#include "binUpgrader.h"

#include "log.h"

// Waiting for the resource-file issue (see the header).

autoBinUpgrader::~autoBinUpgrader() = default;

int autoBinUpgrader::upgrade(autopItemList& items) {
  LOG_WAR("Resource file upgrade not built yet, %u item(s) left as they are", static_cast<unsigned>(items.size()));
  return 0;
}
