#define LOG_MODULE "./src/autoPolicy"
#include "autoPolicy.h"
#include "autopSettings.h"

#include <cerrno>
#include <cstdlib>

#include "autopMessages.h"
#include "device.h"
#include "log.h"
#include "timeutil.h"

namespace {

constexpr int32_t kSecondsPerDay = 86400;
constexpr int kWeeklyCandidates = 8;

void postStartToOwner(const chThreadTimer& timer) {
  if (chThreadLocal* owner = timer.hostThread()) owner->PostThreadMsg(MSG_START_AUTO_PROVISION, 0, 0);
}

bool parseInteger(const std::string& text, long& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  out = strtol(text.c_str(), &end, 10);
  return errno == 0 && end && *end == '\0';
}

}  // namespace

void repeatPolicy::Load(const REGHANDLE& handle) {
  timer_.KillTimer();
  interval_ = 0;
  if (registryGetInt(handle, autop_key::kEnableRepeat, 0) == 0) return;
  int32_t minutes = registryGetInt(handle, autop_key::kRepeatMinutes, 60);
  if (minutes <= 0) return;
  interval_ = static_cast<uint64_t>(minutes) * 60000u;
  timer_.SetTimer(interval_);
  LOG_IFO("Set repeatPolicy timer [%dm]", minutes);
}

void repeatPolicy::OnTimer() {
  postStartToOwner(timer_);
  if (interval_ > 0) timer_.SetTimer(interval_);
}

int32_t weeklyPolicy::parseTime(const std::string& text) {
  size_t colon = text.find(':');
  long hours = 0, minutes = 0;
  if (colon == std::string::npos || !parseInteger(text.substr(0, colon), hours) ||
      !parseInteger(text.substr(colon + 1), minutes))
    return -1;
  return static_cast<int32_t>((minutes + hours * 60) * 60);
}

uint32_t weeklyPolicy::parseMask(const std::string& text) {
  uint32_t mask = 0;
  for (char c : text) {
    if (c < '0' || c > '6') break;
    mask |= 1u << (c - '0');
  }
  return mask;
}

void weeklyPolicy::Load(const REGHANDLE& handle) {
  mask_ = 0;
  timer_.KillTimer();
  if (registryGetInt(handle, autop_key::kEnableWeekly, 0) != 0) {
    mask_ = parseMask(registryGetString(handle, autop_key::kWeeklyMask, ""));
    int32_t begin = parseTime(registryGetString(handle, autop_key::kWeeklyBeginTime, ""));
    int32_t end = parseTime(registryGetString(handle, autop_key::kWeeklyEndTime, ""));
    double r = rand() / 2147483647.0;
    // A window that crosses midnight, or an empty one, reaches into the next day.
    int32_t span = begin < end ? end - begin : end - begin + kSecondsPerDay;
    secondOfDay_ = (begin + static_cast<int32_t>(r * span)) % kSecondsPerDay;
  }
  Schedule();
}

int weeklyPolicy::Schedule() {
  nextMoment_.clear();
  if (mask_ == 0) return 0;
  if (!netIsTrustedLocalTime()) {
    LOG_IFO("Skip Weekly AutoPrivision for untrust local time.");
    return 0;
  }
  const chTime now(netGetLocalTime());
  const int hour = secondOfDay_ / 3600, minute = secondOfDay_ / 60 % 60, second = secondOfDay_ % 60;
  for (int day = 0; day < kWeeklyCandidates; ++day) {
    // Built from the date and the wall-clock time, so that the zone rules of that very day apply.
    chTime candidate(now.GetYear(), now.GetMonth(), now.GetDay() + day, hour, minute, second);
    int weekday = candidate.GetDayOfWeek() % 7;  // 7 (Sunday) is bit 0
    int32_t ahead = candidate.GetTime() - now.GetTime();
    if (!(mask_ & (1u << weekday)) || ahead <= 0) continue;
    timer_.SetTimer(static_cast<uint64_t>(ahead) * 1000u);
    nextMoment_ = candidate.Format("%Y-%m-%d %H:%M:%S");
    LOG_WAR("Weekly AutoProvision will active at : %s", nextMoment_.c_str());
    return 1;
  }
  brisaTrace(2, "Assertion failed : %s", "FALSE");
  return 0;
}

void weeklyPolicy::OnTimer() {
  postStartToOwner(timer_);
  Schedule();
}

policyManger::~policyManger() { Stop(); }

void policyManger::Start() {
  started_ = true;
  monitorId_ = registryMonitorSection(kSystemIni, kAutoProvisionSection, [this](const REGHANDLE& handle) {
    OnSectionChanged(handle);
  });
  LoadBoth(registryOpen(kSystemIni, kAutoProvisionSection));
}

void policyManger::LoadBoth(const REGHANDLE& handle) {
  loadedSection_ = registrySectionText(handle);
  repeat.Load(handle);
  weekly.Load(handle);
}

void policyManger::Stop() {
  started_ = false;
  if (monitorId_) registryStopMonitor(monitorId_);
  monitorId_ = 0;
  repeat.Stop();
  weekly.Stop();
}

int policyManger::OnSectionChanged(const REGHANDLE& handle) {
  LoadBoth(handle);
  return 1;
}

void policyManger::ReloadAfterRun() {
  if (!started_) return;
  REGHANDLE handle = registryOpen(kSystemIni, kAutoProvisionSection);
  if (registrySectionText(handle) != loadedSection_)
    LoadBoth(handle);
  else
    repeat.Load(handle);
}

void policyManger::ReloadIfChanged() {
  if (!started_) return;
  REGHANDLE handle = registryOpen(kSystemIni, kAutoProvisionSection);
  if (registrySectionText(handle) != loadedSection_) LoadBoth(handle);
}

bool policyManger::OnTimerMessage(const msgObject& msg) {
  if (msg.message != MSG_THREAD_TIMER) return false;
  if (msg.wParam == repeat.timer().id()) {
    repeat.OnTimer();
    return true;
  }
  if (msg.wParam == weekly.timer().id()) {
    weekly.OnTimer();
    return true;
  }
  return false;
}
