#define LOG_MODULE "./src/autoUpgrade"
#include "firmwareUrl.h"
#include "autopSettings.h"

#include <algorithm>
#include <cctype>

#include "autopUrl.h"
#include "device.h"
#include "firmware.h"
#include "firmwareSource.h"
#include "inifile.h"
#include "log.h"
#include "msgqueue.h"
#include "privateTmp.h"
#include "registry.h"
#include "safeMode.h"

namespace {

constexpr size_t kMaxRequestFile = 65536;

std::string lowerExtension(const std::string& name) {
  size_t dot = name.rfind('.');
  std::string ext = dot == std::string::npos ? "" : name.substr(dot);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return ext;
}

// Header check, then the two boot-loader values; 1 when both are in place, or when the image is the
// running firmware (done as asked, without safe mode or restart).
int switchToSafeMode(const std::string& urlText) {
  int status = checkFirmwareHeader(urlText);
  if (status == FW_ALREADY_INSTALLED) return 1;
  if (status < 0 || !armSafeMode(urlText)) return 0;
  msgBroadpostThreadMsg(kMsgSafeModeRebootRequest, 0, 1);
  LOG_IFO("Set SafeMode Success,Reboot...");
  return 1;
}

}  // namespace

std::string tr069RequestFile() {
  bool macName = brisaGetProfileInt(kSystemIni, "TR069Update", "UseTr069MacCfg", 0) != 0;
  return (macName ? "/tmp/" : "/tmp/tr069_") + netGetMACText() + ".cfg";
}

int tr069DownloadRom() {
  iniFile request;
  std::string requestText;  // written by another application in the shared /tmp: never via a link
  if (readSharedTmpFile(tr069RequestFile(), kMaxRequestFile, requestText) && requestText.size() <= kMaxRequestFile)
    request.LoadFromText(requestText);
  std::string urlText = request.GetTextValue("firmware", "http_url", "");
  std::string name = request.GetTextValue("firmware", "firmware_name", "");
  ns_net::autopUrl url;
  bool parsed = url.Parse(urlText);
  LOG_DEB("tr069 strURL=%s", parsed ? url.LogText().c_str() : "");
  int result = 0;
  if (lowerExtension(name) == ".rom" && parsed && url.IsValid()) result = switchToSafeMode(urlText);
  msgBroadpostThreadMsg(kMsgTr069RomResult, result ? 1 : 0, 0);
  return result;
}
