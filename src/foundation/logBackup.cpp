// Saving the RAM log to flash before a reboot, keeping two generations.
#define LOG_MODULE "./src/logBackup"
#include <sys/stat.h>
#include <unistd.h>

#include "baseMethod.h"
#include "log.h"
#include "paths.h"
#include "privateTmp.h"

namespace {

// The RAM log may have grown past what flash should take: its newest part is kept.
constexpr size_t kMaxBackup = 8u << 20;

// Whoever starts us leads standard output into the RAM log, in the shared /tmp: a link planted
// at its name is never followed, so no other file of the phone is copied to flash in its place.
bool saveRamLog(const char* ramLog, const char* flashLog) {
  UniqueFd in = openSharedTmpFile(ramLog);
  struct stat st;
  if (!in.valid() || fstat(in.get(), &st) != 0) return false;
  if (static_cast<uint64_t>(st.st_size) > kMaxBackup)
    lseek(in.get(), st.st_size - static_cast<off_t>(kMaxBackup), SEEK_SET);
  std::string text;
  char buffer[8192];
  ssize_t got;
  while (text.size() < kMaxBackup && (got = read(in.get(), buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(got));
  return writeFileAtomic(flashLog, text);
}

}  // namespace

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
  if (!saveRamLog(kRamLog, kLog0)) LOG_WAR("backup attlog failed !");
  return 0;
}
