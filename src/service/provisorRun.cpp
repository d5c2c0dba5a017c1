// The frame of one provisioning run on the service thread: the wait while the phone is in a call,
// the Begin and End lines, the choice of launch from the message that asked for the run, the result
// broadcast, and the restart of the phone when one was announced.
#define LOG_MODULE "./src/provisor"
#include <algorithm>
#include <cstring>

#include "autoLaunch.h"
#include "autopMessages.h"
#include "autopSettings.h"
#include "baseMethod.h"
#include "callMethod.h"
#include "clock.h"
#include "firmwareSource.h"
#include "inifile.h"
#include "log.h"
#include "paths.h"
#include "provisor.h"
#include "redact.h"
#include "timeutil.h"
#include "device.h"
#include "registry.h"

namespace {

constexpr uint32_t kTalkBudgetMs = 3600u * 1000u;
// The last question, when the hour is used up, still gets this long for its answer.
constexpr uint32_t kLastTalkQueryMs = 1000;
constexpr int32_t kRunTalkStepSeconds = 60;
constexpr int32_t kRebootTalkStepSeconds = 5;
constexpr uint32_t kFlushWaitMs = 5000;
constexpr int32_t kDefaultUnregisterDelaySeconds = 3;
constexpr int32_t kMaxUnregisterDelaySeconds = 60;
constexpr uint32_t kUpdateWithInfo = 2;
constexpr uint32_t kUpdateThenReboot = 2;

const char* resultWord(int32_t result) { return result ? "OK" : "FAIL"; }

void warnIfAfterFailed(int handled) {
  if (handled == 0) LOG_WAR("Exception occur in AfterAutoProvision function !");
}

// The status record's name for what asked for a run. The policies ask with the same message as
// another application does.
const char* triggerOf(uint32_t message) {
  switch (message) {
    case MSG_NETWORK_CHANGED:
      return "network change";
    case AP_MSG_UPDATE_CONFIG:
      return "update request";
    default:
      return "start request (another application, repeat or weekly)";
  }
}

AutopInfo recordFromMessage(const msgObject& msg) { return autopInfoFromBytes(msg.GetExtraData(), msg.GetExtraSize()); }

void logSystemConfig() {
  LOG_IFO("To Check System Config ... ");
  if (!pathFileExist(kSystemIni)) {
    LOG_ERR("The Autop Config File Lost !!!!");
    return;
  }
  iniFile system;
  if (!system.LoadFromFile(kSystemIni)) {
    LOG_WAR("Can't open autop file [%s]", kSystemIni);
    return;
  }
  std::string url = urlForLog(system.GetTextValue(kAutoProvisionSection, autop_key::kServerUrl, ""));
  LOG_IFO("Current Autoprovision URL [%s]", url.c_str());
}

}  // namespace

uint32_t unregisterDelayMs(int32_t configuredSeconds) {
  if (configuredSeconds <= 0) return 0;
  return static_cast<uint32_t>(std::min(configuredSeconds, kMaxUnregisterDelaySeconds)) * 1000u;
}

// The hour is one of the clock: the answer waits of a phone application that does not answer count
// against it as well as the sleeps. SIGTERM ends the wait at once, as a failure without the
// "Skipped" line.
bool provisorObject::WaitWhileTalking(int32_t stepSeconds) {
  LOG_IFO("Check Talklogic Status ...");
  const uint32_t start = brisaGetTickCount();
  auto leftMs = [start] {
    uint32_t spent = brisaGetTickCount() - start;
    return spent >= kTalkBudgetMs ? 0u : kTalkBudgetMs - spent;
  };
  for (;;) {
    const int32_t answerMs = static_cast<int32_t>(
        std::min<uint32_t>(std::max(leftMs(), kLastTalkQueryMs), static_cast<uint32_t>(kTalkStatusTimeoutMs)));
    // No answer at all counts as busy: a phone that cannot say it is idle is not restarted.
    int32_t idle = msgSendMsgToThreadTimeoutEx(msgGetThreadByName(kThreadPhone), MSG_CHECK_TALK_STATUS, 0, 1, 0,
                                               nullptr, answerMs);
    if (idle != 0) return true;
    if (QuitRequested()) return false;
    const uint32_t left = leftMs();
    if (left < 1000) {
      LOG_ERR("Talking ..., Skipped !");
      return false;
    }
    const uint32_t delayMs = std::min(static_cast<uint32_t>(stepSeconds) * 1000u, left);
    LOG_IFO("Talking, Delay [%d] seconds ... ", static_cast<int32_t>((delayMs + 999) / 1000));
    if (!SleepUnlessQuit(delayMs)) return false;
  }
}

bool provisorObject::BeginRun(const char* trigger) {
  // A run that follows the plug-and-play wait already logged its Begin.
  if (context.runState == 0) {
    LOG_IFO("%s", "");
    LOG_IFO("<<<<<< Autoprovision Begin >>>>>>");
  }
  if (!WaitWhileTalking(kRunTalkStepSeconds)) return false;
  context.runState = 1;
  status.clear();
  status.startedAt = serviceClock().nowSeconds();
  status.trigger = trigger;
  return true;
}

bool provisorObject::OnLaunchAutoProvision(msgObject& msg) {
  if (!BeginRun(triggerOf(msg.message))) return false;
  LOG_IFO("***** Lanuch AutoProvision [X%X] *****", msg.message);
  if (context.powerOnState == 0) {
    // The first run after power-on is always the plug-and-play or power-on run.
    if (!context.zeroTouch) {
      LOG_DEB("Have not update first time!");
      return false;
    }
    context.powerOnState = 1;
    LOG_DEB("OnLaunchAutoProvision POWER_ON:NO-UPDATING");
  }
  int32_t result = 0;
  switch (msg.message) {
    case MSG_NETWORK_CHANGED:
      // The same sources as the default run: a new network may have brought new DHCP options.
      LOG_IFO("Receive MSG_NETWORK_CHANGED MSG to OnLaunchAutoProvision!!");
      result = autoLaunch::launchUpgrade(context) ? 1 : 0;
      break;
    case AP_MSG_UPDATE_CONFIG:
      LOG_IFO("Receive AP_MSG_UPDATE_CONFIG MSG to OnLaunchAutoProvision!!");
      result = UpdateConfig(msg);
      break;
    case MSG_START_AUTO_PROVISION:
      LOG_IFO("Receive MSG_START_AUTO_PROVISION MSG to OnLaunchAutoProvision!!");
      result = autoLaunch::launchUpgrade(context) ? 1 : 0;
      break;
    default:
      LOG_IFO("Receive NO MSG to OnLaunchAutoProvision!!");
      result = autoLaunch::launchUpgrade(context) ? 1 : 0;
      break;
  }
  warnIfAfterFailed(AfterAutoProvision(result));
  return true;
}

int32_t provisorObject::UpdateConfig(msgObject& msg) {
  LOG_DEB("UpdateConfig MSG,wParam=%d,lParam=%d", static_cast<int32_t>(msg.wParam), static_cast<int32_t>(msg.lParam));
  if (msg.wParam == kUpdateWithInfo && msg.lParam == 0) {
    if (msg.GetExtraSize() == 0) {
      LOG_ERR("Can't get autop_info data from AP_MSG_UPDATE_CONFIG msg !");
      return 0;
    }
    AutopInfo info = recordFromMessage(msg);
    return autoLaunch::launchUpgradeWithInfo(context, &info) ? 1 : 0;
  }
  if (msg.lParam == kUpdateThenReboot) {
    LOG_DEB("SIP Update and then Force to reboot!");
    LOG_DEB("%s", "");
    int32_t result = autoLaunch::launchUpgrade(context) ? 1 : 0;
    AnnounceReboot();
    return result;
  }
  return autoLaunch::launchUpgrade(context) ? 1 : 0;
}

void provisorObject::AnnounceReboot() {
  if (rebootPending) return;
  if (!WaitWhileTalking(kRebootTalkStepSeconds)) return;
  msgBroadpostThreadMsg(MSG_REBOOT_REQUEST, 0, 0);
  rebootPending = 1;
}

bool provisorObject::OnPnpResponseMessage(msgObject& msg) {
  if (!BeginRun(msg.message == MSG_RESPOND_URL ? "plug-and-play" : "power-on")) return false;  // the timer stays armed
  LOG_IFO("%s", "");
  LOG_IFO("Receive Pnp AutoProvision request !!");
  const bool waiting = FindTimer(timerPnpRequest) != nullptr;
  int32_t result = 0;
  if (msg.message == MSG_THREAD_TIMER && waiting) {
    KillTimer(timerPnpRequest);
    LOG_DEB("Pnp request timer has reached.kill timerPnpRequest timer!!");
    result = autoLaunch::launchUpgrade(context) ? 1 : 0;
  } else if (msg.message == MSG_RESPOND_URL && waiting) {
    LOG_DEB("Pnp,Receive MSG_RESPOND_URL MSG,timerPnpRequest is not NULL!!");
    KillTimer(timerPnpRequest);
    std::string url = messageExtraText(msg);
    if (url.empty()) {
      LOG_WAR("The PNP URL is empty !!");
    } else {
      LOG_DEB("PNP url=%s", urlForLog(url).c_str());
      result = autoLaunch::launchUrlUpgrade(context, url) ? 1 : 0;
    }
    // A bad or empty answer still leaves the phone its power-on run.
    if (result <= 0) result = autoLaunch::launchUpgrade(context) ? 1 : 0;
  } else if (msg.message == MSG_RESPOND_URL) {
    LOG_DEB("Pnp,Receive MSG_RESPOND_URL MSG,timerPnpRequest is NULL!!");
    std::string url = messageExtraText(msg);
    if (url.empty()) {
      LOG_WAR("The PNP URL is empty !!");
      context.runState = 0;
      return true;
    }
    result = autoLaunch::launchUrlUpgrade(context, url) ? 1 : 0;
  } else {
    LOG_WAR("Unknown PNP response !!");
    context.runState = 0;
    return true;
  }
  FinishPnpRun(msg, result);
  return true;
}

int32_t provisorObject::FinishPnpRun(const msgObject& msg, int32_t result) {
  if (context.powerOnState != 2) {
    context.powerOnState = 2;
    LOG_DEB("OnLaunchAutoProvision AUTOP_POWER_ON_END");
  }
  resultPending = 1;
  if (!rebootPending && msg.message == MSG_RESPOND_URL)
    msgPostMsgToThread(msgGetThreadByName(kThreadPnpManager), AP_MSG_PNP_DONE, 0, 0);
  int handled = AfterAutoProvision(result == 1 ? 1 : 0);
  warnIfAfterFailed(handled);
  return handled;
}

bool provisorObject::OnStartAutoProvisionUrl(msgObject& msg) {
  if (!BeginRun("URL request")) return false;
  if (context.powerOnState == 0) context.powerOnState = 1;
  int32_t result = autoLaunch::launchUrlUpgrade(context, messageExtraText(msg)) ? 1 : 0;
  LOG_IFO("Upgrade finished [%s] !", resultWord(result));
  warnIfAfterFailed(AfterAutoProvision(result));
  return true;
}

bool provisorObject::OnWeeklyCheck(msgObject&) {
  policies.WeeklyCheck();
  return true;
}

// The TR-069 agent's firmware request is no provisioning run: no Begin, no busy wait, no result
// broadcast. A good image header arms safe mode, and the reboot installs it.
bool provisorObject::OnCwmpDownloadRom(msgObject&) {
  LOG_IFO("provisorObject::OnCwmpDownloadRom");
  if (autoLaunch::tr069Update()) RebootNow();
  return true;
}

int provisorObject::AfterAutoProvision(int32_t result) {
  LOG_IFO("Upgrade finished [%s] !", resultWord(result));
  if (context.runState == 1) context.runState = 0;
  if (context.runState == 2) {
    LOG_IFO("Wait for pnp request ...");
    return 1;
  }
  context.powerOnState = 2;
  resultPending = 1;
  msgBroadpostThreadMsg(BROAD_MSG_AUTOP_RESULT, 0, static_cast<uint32_t>(result));
  RecordRunStatus(result != 0);
  if (result && context.zeroTouch) {
    // Found by the zero-touch start: the redirection service is not needed any more.
    LOG_IFO("Autop Success,Close Redirect!");
    brisaSetProfileInt(kSystemIni, "Redirect", "Enable", 0);
  }
  if (rebootPending) RebootNow();
  // The next repeat counts from the end of this run; settings the run changed take effect now.
  policies.ReloadAfterRun();
  LOG_IFO("<<<<<< Autoprovision End >>>>>>");
  LOG_IFO("%s", "");
  return 1;
}

void provisorObject::RecordRunStatus(bool succeeded) {
  status.finished = true;
  status.succeeded = succeeded;
  status.rebootPending = rebootPending != 0;
  status.firmwareVersion = currentFirmwareDevice().runningVersion;
  // The repeat timer counts from the end of this run.
  const int32_t repeatSeconds = static_cast<int32_t>(policies.repeat.interval() / 1000);
  status.nextRepeat = repeatSeconds ? chTime(netGetLocalTime() + repeatSeconds).Format("%Y-%m-%d %H:%M:%S") : "";
  status.nextWeekly = policies.weekly.nextMoment();
  if (!writeRunStatus(status)) LOG_WAR("Can't write the run's status record");
}

int provisorObject::RebootNow() {
  LOG_IFO("Checking Talk Status ... ");
  if (!WaitWhileTalking(kRebootTalkStepSeconds)) return 0;
  LOG_IFO("To Flush All RegFile !!");
  LOG_WAR("Write file by [registryFlush] directly !!");
  if (callTextMethod("regFlushAllFile()") != "1") LOG_WAR("Fail to flush all file !!");
  LOG_IFO("Sleep 5s for flushing all reg file !!");
  // SIGTERM during the waits before the restart ends the process instead: the files are flushed.
  if (!SleepUnlessQuit(kFlushWaitMs)) return 0;
  logSystemConfig();
  int32_t delay = brisaGetRegistryInt(kSystemIni, "sipServerOptions", "UnregisterOnReboot",
                                      kDefaultUnregisterDelaySeconds);
  const uint32_t delayMs = unregisterDelayMs(delay);
  LOG_IFO("Sip unregister on reboot need delay %ds !", static_cast<int32_t>(delayMs / 1000));
  if (delayMs > 0) {
    msgBroadpostThreadMsg(BROAD_MSG_SIP_UNREGISTER, 0, 0);
    if (!SleepUnlessQuit(delayMs)) return 0;
  }
  LOG_IFO("To reboot !!");
  // Backs the log up and restarts; returns only when even the system call failed.
  return reboot() == 0 ? 1 : 0;
}
