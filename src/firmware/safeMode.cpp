#define LOG_MODULE "./src/romInstaller"
#include "safeMode.h"

#include "autopUrl.h"
#include "device.h"
#include "firmware.h"
#include "firmwareSource.h"
#include "log.h"
#include "redact.h"

int checkFirmwareHeader(const std::string& location, int attempts) {
  LOG_DEB("firmware_Upgrade-verify rom header ...");
  int status = FW_ERR_OPEN;
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    status = firmware_Upgrade(firmwareStreams(), location.c_str(), kHeaderCheckTimeoutMs, false, true, false);
    if (status != FW_ERR_OPEN || attempts == 1) break;
    LOG_AT(1, "ERR", "Can't connect to server!retry %d", attempt);
    if (attempt == attempts) {
      LOG_AT(1, "ERR", "Open DownloadStream fail!!");
      return status;
    }
  }
  LOG_DEB("upgrade status = %d", status);
  if (status == FW_ALREADY_INSTALLED)
    LOG_IFO("The rom file is the running firmware, nothing to upgrade");
  else if (status < 0)
    LOG_AT(1, "ERR", "Invalid rom header! status description = %s", firmware_GetStatusName(status));
  return status;
}

int armSafeMode(const std::string& location) {
  ns_net::autopUrl url;
  std::string shown = url.Parse(location) && url.IsValid() ? url.LogText() : urlForLog(location);
  LOG_IFO("To set userenv[BOOTMODE] to value[safemode]");
  LOG_IFO("To set userenv[strUpgradeURL] to value[%s]", shown.c_str());
  if (userenv_set_all({{"BOOTMODE", "safemode"}, {"strUpgradeURL", location}}) != 0) {
    LOG_ERR("Fail to set user env 'BOOTMODE' to value 'safemode' !");
    return 0;
  }
  return 1;
}
