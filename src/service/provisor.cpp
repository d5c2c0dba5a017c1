#define LOG_MODULE "./src/provisor"
#include "provisor.h"
#include "autopSettings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "autoLaunch.h"
#include "autoParser.h"
#include "autoUpgrade.h"
#include "autopMessages.h"
#include "autopTranslator.h"
#include "clock.h"
#include "device.h"
#include "firmwareSource.h"
#include "log.h"
#include "paths.h"
#include "privateTmp.h"
#include "randomSpread.h"
#include "registry.h"
#include "termination.h"

namespace {

constexpr const char* kMainModule = "./src/main";
constexpr const char* kVersion = "3.0.0.80";
constexpr const char* kBuildDate = "Oct 17 2012";
constexpr const char* kBuildTime = "14:27:42";
constexpr const char* kDefaultHostName = "ORIN-PH";
constexpr int32_t kNetworkWaitSeconds = 30;
constexpr uint64_t kConsoleKeyPollMs = 100;
constexpr int32_t kPnpWaitMs = 10000;

enum ConsoleKey { kKeyBack = 8, kKeyTab = 9, kKeyEsc = 27 };

}  // namespace

std::string messageExtraText(const msgObject& msg) {
  const char* data = static_cast<const char*>(msg.GetExtraData());
  return data ? std::string(data, strnlen(data, msg.GetExtraSize())) : std::string();
}

provisorObject::provisorObject(bool zeroTouch) : chThreadLocal(kThreadProvisor) {
  context.translator = &table;
  // An applied item that needs a restart announces it; the restart follows the run.
  context.requestReboot = [this] { AnnounceReboot(); };
  context.zeroTouch = zeroTouch;
  context.status = &status;
}

int provisorObject::LoadTranslationTable() { return table.loadDefaultTable() ? 1 : 0; }

provisorObject::~provisorObject() = default;

bool provisorObject::TryThreadMessage(msgObject& msg) {
  switch (msg.message) {
    case MSG_START_AUTO_PROVISION:
    case MSG_NETWORK_CHANGED:
    case AP_MSG_UPDATE_CONFIG:
      return OnLaunchAutoProvision(msg);
    case MSG_RESPOND_URL:
      return OnPnpResponseMessage(msg);
    case MSG_THREAD_TIMER:
      OnTimerMessage(msg);
      return true;
    case MSG_START_AUTO_PROVISION_URL:
      return OnStartAutoProvisionUrl(msg);
    case AP_MSG_PASSED_ON:
      return false;
    case AP_MSG_AUTOP_CHECK_AUTOP_RESULT:
      return OnCheckAutopResult(msg);
    case MSG_SET_HOST_NAME:
      return OnSetHostName(msg);
    case MSG_GET_AUTO_PROVISION:
      return OnGetAutoProvision(msg);
    case AP_MSG_REPARSE_CONFIG:
      return OnReparseConfig(msg);
    case MSG_WEEKLY_CHECK:
      return OnWeeklyCheck(msg);
    case AP_MSG_CWMP_DOWNLOAD_ROM:
      return OnCwmpDownloadRom(msg);
    default:
      return false;
  }
}

bool provisorObject::OnTimerMessage(msgObject& msg) {
  // The policy timers are the policy manager's own; every other timer is a binding of this object.
  if (!policies.OnTimerMessage(msg)) OnTimer(msg);
  return true;
}

bool provisorObject::OnCheckAutopResult(msgObject& msg) {
  if (resultPending) {
    LOG_IFO("Receive SIP MSG[AP_MSG_AUTOP_CHECK_AUTOP_RESULT] ! Will ReplyMessage [%d]", resultPending);
    msg.ReplyMessage(resultPending);
    resultPending = 0;
  }
  // The second reply is the one the asker keeps.
  LOG_IFO("Receive Message [AP_MSG_AUTOP_CHECK_AUTOP_RESULT] ! Will ReplyMessage [%d]", context.powerOnState);
  msg.ReplyMessage(context.powerOnState);
  return true;
}

bool provisorObject::OnSetHostName(msgObject& msg) {
  if (msg.GetExtraSize() == 0) return false;
  std::string hostName = messageExtraText(msg);
  if (hostName.empty()) hostName = kDefaultHostName;
  if (userenv_set("HOST_NAME", hostName) != 0) {
    brisaTrace(2, "Fail to set user env 'HOST_NAME' to value '%s' !", hostName.c_str());
    return false;
  }
  return true;
}

bool provisorObject::OnGetAutoProvision(msgObject& msg) {
  LOG_IFO("Receive Message [MSG_GET_AUTO_PROVISION] ! Will ReplyMessage [%d]", context.runState);
  msg.ReplyMessage(context.runState);
  return true;
}

bool provisorObject::OnReparseConfig(msgObject& msg) {
  if (msg.message != AP_MSG_REPARSE_CONFIG) {
    LOG_ERR("Message Error!");
    return false;
  }
  // Settings another application pushed to /tmp/XML.cfg: applied once, without a download.
  autoParser parser(context);
  parser.updateConfig(true);
  policies.ReloadIfChanged();
  return true;
}

void provisorObject::OnConsoleKeyTimer(msgObject&) {
  int key = keyboard.getch();
  switch (key) {
    case -1:
      return;
    case kKeyTab:
      printf("key TAB ");
      PostThreadMsg(MSG_START_AUTO_PROVISION, 0, 0);
      break;
    case kKeyBack:
      printf("key BACK ");
      LoadTranslationTable();
      break;
    case kKeyEsc:
      printf("key ESC ");
      PostThreadMsg(MSG_THREAD_QUIT, 0, 0);
      break;
    default:
      printf("iKey = %.8X\n", static_cast<unsigned>(key));
      break;
  }
  fflush(stdout);
}

void provisorObject::SetPnpTimer(int32_t milliseconds) {
  uint64_t ms = milliseconds == -1 ? static_cast<uint64_t>(kPnpWaitMs) : static_cast<uint64_t>(milliseconds);
  SetTimer(timerPnpRequest, ms, this, &provisorObject::OnPnpResponse);
  context.runState = 2;
}

void provisorObject::StartPnpOrPowerOn() {
  // The discovery thread must be there to take the request; a failure leaves only the wait. With
  // plug-and-play off it only logs why it stays idle.
  if (!pnpManager.Start()) LOG_ERR("Can't start thread [%s] !", kThreadPnpManager);
  if (brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kEnablePnp, 0)) {
    while (netGetNetworkSta() != kNetworkUp && networkWaitCount < kNetworkWaitSeconds) {
      ++networkWaitCount;
      LOG_IFO("PNP Network Fail,sleep 1 seconds");
      if (!SleepUnlessQuit(1000)) return;
    }
    if (netGetNetworkSta() == kNetworkUp) {
      autoLaunch::launchPnpUpgrade(context);
      SetPnpTimer(kPnpWaitMs);
      return;
    }
    LOG_WAR("PNP Check Network Fail");
  }
  ArmPowerOnTimer();
}

void provisorObject::ArmPowerOnTimer() {
  const int32_t spreadSeconds =
      brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kPowerOnRandomDelay, 0);
  const uint32_t delayMs = powerOnDelayMs(spreadSeconds);
  if (spreadSeconds > 0) LOG_IFO("Power-on run in %u ms (spread over %d s)", delayMs, spreadSeconds);
  SetPnpTimer(static_cast<int32_t>(delayMs));
}

int provisorObject::Start() {
  LoadTranslationTable();
  if (!chProcessLocal::LaunchLocalThread(*this)) {
    LOG_ERR("Can't launch thread [%s] !", name().c_str());
    return 0;
  }
  // Keys come only from a terminal: a daemon started with a pipe or /dev/null polls nothing.
  if (keyboard.isTerminal()) SetTimer(consoleKeyTimer, kConsoleKeyPollMs, this, &provisorObject::OnConsoleKeyTimer);
  if (context.zeroTouch) {
    LOG_IFO("Zero-sp-touch launch Autop,do not PNP!!!");
    return 1;
  }
  StartPnpOrPowerOn();
  policies.Start();
  return 1;
}

void provisorObject::Stop() {
  chProcessLocal::ShutdownLocalThread(*this);
  LOG_CHECK(IsCalledByThisThread());
  KillTimer(consoleKeyTimer);
  KillTimer(timerPnpRequest);
  policies.Stop();
  pnpManager.Stop();
}

int provisorMain(int argc, char** argv) {
  installStartupClock();
  // The entry's own records carry the entry module's path.
  ::log(1, LOG_PREFIX "provisor version = %s build at %s %s", kMainModule, __LINE__, kVersion, kBuildDate,
        kBuildTime);
  seedRandomGenerator();
  preparePrivateTmpDir();

  const bool zeroTouch = argc == 2 && strcmp(argv[1], "-byzero") == 0;
  provisorObject service(zeroTouch);
  uCSystemShareHelper::CreateLocalThread(service);
  if (zeroTouch) ::log(3, LOG_PREFIX "WAR Run by Zero-sp-Touch Thread !", kMainModule, __LINE__);

  if (!installTerminationHandlers(service)) LOG_ERR("Can't watch for the end of the process !");

  if (!service.Start()) {
    releaseTerminationHandlers();
    uCSystemShareHelper::DestroyLocalThread(service);
    return 1;
  }
  int result = service.Run();
  service.Stop();
  releaseTerminationHandlers();
  uCSystemShareHelper::DestroyLocalThread(service);
  return result;
}
