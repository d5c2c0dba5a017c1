#define LOG_MODULE "./src/romInstaller"
#include "romInstaller.h"

#include <new>

#include "autopMessages.h"
#include "baseMethod.h"
#include "clock.h"
#include "device.h"
#include "deviceFamily.h"
#include "firmware.h"
#include "firmwareSource.h"
#include "log.h"
#include "msgqueue.h"
#include "safeMode.h"
#include "redact.h"

namespace {

constexpr uint32_t kQuitSettleMs = 3000;
constexpr uint32_t kQuitRetryMs = 5000;
constexpr uint32_t kServerWaitMs = 3000;

// The phone's applications, stopped by name before the flashing tool takes over.
const char* const kApplications[] = {"GuiApp.sh", "SipApp.sh", "TalkLogicApp.sh", "ScreenApp.sh",
                                     "TR069.sh",  "FrameApp.sh", "VpmApp.sh"};
// What keeps running besides them: the shell, logging and the network links.
const char* const kKeepList[] = {"sh", "-sh", "syslogd", "openvpn", "dot1x.exe", "pppd", "pppoe", "telnetd"};
constexpr int kCount(const char* const* first, const char* const* last) { return static_cast<int>(last - first); }

struct FamilyInstaller {
  const char* family;
  romInstaller* (*make)();
};
const FamilyInstaller kInstallers[] = {
    {"lyra", [] { return static_cast<romInstaller*>(new (std::nothrow) lyra_romInstaller()); }},
    {"orin", [] { return static_cast<romInstaller*>(new (std::nothrow) orin_romInstaller()); }},
    {"duna", [] { return static_cast<romInstaller*>(new (std::nothrow) duna_romInstaller()); }},
};

// A URL record a transfer can start from: a host, a path and a port other than 0.
bool usableLocation(const std::string& location) {
  ns_net::autopUrl url;
  return url.Parse(location) && !url.host.empty() && !url.path.empty() && url.port != 0;
}

}  // namespace

romInstaller::~romInstaller() = default;

int romInstaller::checkHeader(const char* location, int attempts) {
  int status = checkFirmwareHeader(location, attempts);
  // The image the phone already runs: nothing to install, no safe mode, no stopped process, no reboot.
  if (status == FW_ALREADY_INSTALLED) m_alreadyInstalled = true;
  return status == FW_OK || status == FW_ALREADY_INSTALLED ? 1 : 0;
}

int romInstaller::install(const char* location) {
  if (!location) {
    LOG_ERR("Unexpected null pointer !");
    return 0;
  }
  LOG_IFO("");
  LOG_IFO("***** Upgrade Rom File ****");
  if (!prepare(location)) return 0;
  if (m_alreadyInstalled) {
    finish();
    return kRomAlreadyInstalled;
  }
  if (!apply()) return 0;
  finish();
  return 1;
}

int romInstaller::prepare(const char* location) {
  ns_net::autopUrl url;
  if (!location || !url.Parse(location) || !url.IsValid()) {
    LOG_AT(1, "ERR", "The rom server url is invalid !");
    return 0;
  }
  if (!openDownload(location)) {
    LOG_AT(1, "ERR", "Can't connect to server !");
    return 0;
  }
  m_location = location;
  return 1;
}

int romInstaller::finish() {
  m_download.Close();
  return 1;
}

int romInstaller::openDownload(const std::string& location) {
  ns_net::autopUrl url;
  url.Parse(location);
  for (int attempt = 1; attempt <= kRomOpenAttempts; ++attempt) {
    if (m_download.OpenDownloadStream(url, -1)) return 1;
    LOG_AT(1, "ERR", "Can't connect to server!retry %d", attempt);
  }
  LOG_AT(1, "ERR", "Open DownloadStream fail!!");
  return 0;
}

// ---------------------------------------------------------------------------------------------

// Everything that can refuse the image is decided here, before apply stops any application: the
// location and the header (family, model, version, signature) at the server.
int lyra_romInstaller::prepare(const char* location) {
  if (!location || !usableLocation(location)) {
    LOG_AT(1, "ERR", "The rom server url is invalid !");
    return 0;
  }
  if (!checkHeader(location, kRomOpenAttempts)) return 0;
  m_location = location;
  return 1;
}

int lyra_romInstaller::quitOtherProcesses() {
  LOG_ERR("Kill other processes ... ");
  msgThreadHandle phone = msgGetThreadByName(kThreadPhone);
  // Without a phone application there is no call to wait for.
  if (!phone.empty() &&
      msgSendMsgToThreadTimeoutEx(phone, MSG_ROM_UPGRADE_REQUEST, 0, 0, 0, nullptr, kTalkStatusTimeoutMs) == 0) {
    LOG_IFO("talking....update later!");
    return 0;
  }
  brisaSleep(kQuitSettleMs);
  killProcesses(kApplications, kCount(std::begin(kApplications), std::end(kApplications)), false);
  for (int pass = 0; pass < 2; ++pass)
    killProcesses(kKeepList, kCount(std::begin(kKeepList), std::end(kKeepList)), true);
  return 1;
}

int lyra_romInstaller::apply() {
  m_result = 0;
  m_download.Close();
  ns_net::autopUrl url;
  url.Parse(m_location);
  while (!quitOtherProcesses()) {
    LOG_IFO("lyra_romParser::QuitOtherProcesses");
    brisaSleep(kQuitRetryMs);
  }
  LOG_IFO("Wait 3 seconds for server ...");
  brisaSleep(kServerWaitMs);
  // From here the applications are gone: a failure restarts the phone rather than leave it up
  // without them.
  if (url.host.empty() || url.path.empty() || url.port == 0) {
    LOG_AT(1, "ERR", "The rom server url is invalid !");
    return rebootAfterFailure();
  }
  if (!openDownload(m_location)) return rebootAfterFailure();
  LOG_DEB("-------ParserRomFile");
  LOG_IFO("Parse rom file finished !");
  backupLog();
  // The flashing tool takes the opened download from here.
  std::unique_ptr<firmwareImageSource> image = downloadImageSource(m_download, m_location);
  int status = firmwareFlashFromSource(*image, currentFirmwareDevice());
  if (status < 0) {
    LOG_ERR("Flasher refused the rom file ! status description = %s", firmware_GetStatusName(status));
    return rebootAfterFailure();
  }
  LOG_ERR("Flasher is controlling the device. Sleep (1 hour) till reboot");
  brisaSleep(kRomHandOverSleepMs);
  m_result = 1;
  return 1;
}

int lyra_romInstaller::rebootAfterFailure() {
  LOG_AT(1, "ERR", "Fail to parse rom file !");
  reboot();
  return 0;
}

// ---------------------------------------------------------------------------------------------

// The same header check as duna: an installer that looked at nothing would reboot the phone on every
// run, also for the firmware it already runs.
int orin_romInstaller::prepare(const char* location) {
  if (!location) {
    LOG_NULL_POINTER();
    return 0;
  }
  if (!checkHeader(location)) return 0;
  m_location = location;
  return 1;
}

// ---------------------------------------------------------------------------------------------

int duna_romInstaller::prepare(const char* location) {
  if (!location) {
    LOG_NULL_POINTER();
    return 0;
  }
  if (!checkHeader(location)) return 0;
  m_location = location;
  return 1;
}

int duna_romInstaller::apply() { return armSafeMode(m_location); }

// ---------------------------------------------------------------------------------------------

std::unique_ptr<romInstaller> createRomInstallerFor(const std::string& family) {
  for (const FamilyInstaller& row : kInstallers)
    if (family == row.family) return std::unique_ptr<romInstaller>(row.make());
  return nullptr;
}

std::unique_ptr<romInstaller> createRomInstaller() { return createRomInstallerFor(deviceFamily()); }
