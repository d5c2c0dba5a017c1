// Saving the RAM log to flash before a reboot, keeping two generations.
#define LOG_MODULE "./src/logBackup"
#include "baseMethod.h"
#include "log.h"
#include "paths.h"

int backupLog() {
  static const char* kRamLog = "/tmp/autop.log";
  static const char* kFlashDir = "/config/autop_log";
  static const char* kLog0 = "/config/autop_log/log.0";
  static const char* kLog1 = "/config/autop_log/log.1";

  LOG_IFO("backup attlog to flash ... ");
  if (!pathFileExist(kRamLog)) {
    LOG_IFO("skip backup! [%s] file not exist !", kRamLog);
    return 0;
  }
  makeDirs(kFlashDir);
  if (pathFileExist(kLog0)) copyFile(kLog0, kLog1);
  if (copyFile(kRamLog, kLog0) != 0) LOG_WAR("backup attlog failed !");
  return 0;
}
