// The update policies: the service provisions itself every N minutes (repeatPolicy) and once on
// chosen weekdays at a random moment inside a daily window (weeklyPolicy). Both read section
// "AutoProvision" of /config/system/system.ini and are read again whenever another application
// changes that section. A policy never runs provisioning itself: it posts MSG_START_AUTO_PROVISION
// to the thread that owns its timer (the service thread), which queues it behind any run in progress.
//
// Local time and daylight saving: the weekly moment is a wall-clock time of day. Each candidate is
// built from the calendar date and that time of day through the platform's local time (the zone
// rules decide the offset of each day), never by adding 86 400 seconds to an earlier moment. So a
// day of 23 or 25 hours still gets its run at the same wall-clock time; a moment inside the hour
// that is skipped in spring comes out an hour later on that day; in autumn a moment inside the
// repeated hour is taken at its first occurrence, and once that passed the day's candidate is behind
// `now`, so the repeated hour gives no second run. No record of past runs is kept: a timer message
// handled late, behind a run that lasted past midnight, still finds that day's moment.
//
// The one policyManger instance lives beside the service object for the life of the process; the
// service starts it in normal mode only.
#pragma once

#include <cstdint>
#include <string>

#include "msgqueue.h"
#include "registry.h"

class repeatPolicy {
 public:
  virtual ~repeatPolicy() = default;
  // Kills the timer; with bEnableRepeat and nRepeatMinutes above 0 arms it once for that period.
  void Load(const REGHANDLE& handle);
  // The timer fired: ask for a run and arm again for the same period.
  void OnTimer();
  void Stop() { timer_.KillTimer(); }
  const chThreadTimer& timer() const { return timer_; }
  uint64_t interval() const { return interval_; }

 private:
  chThreadTimer timer_;
  uint64_t interval_ = 0;  // milliseconds, 0 when off
};

class weeklyPolicy {
 public:
  virtual ~weeklyPolicy() = default;
  // Reads the mask and the window, draws a new moment inside it, then schedules.
  void Load(const REGHANDLE& handle);
  // Arms the timer for the next masked day's moment still ahead: 1 when armed, else 0.
  int Schedule();
  // The timer fired: ask for a run and schedule the next one.
  void OnTimer();
  void Stop() {
    timer_.KillTimer();
    nextMoment_.clear();
  }
  const chThreadTimer& timer() const { return timer_; }
  uint32_t mask() const { return mask_; }
  int32_t secondOfDay() const { return secondOfDay_; }
  // The moment the timer is armed for ("" when it is not armed).
  const std::string& nextMoment() const { return nextMoment_; }

  // "HH:MM" as seconds after midnight; -1 without a colon or when a part is not an integer.
  static int32_t parseTime(const std::string& text);
  // Digits 0 (Sunday) to 6 (Saturday) from the start of the text, up to the first other character.
  static uint32_t parseMask(const std::string& text);

 private:
  chThreadTimer timer_;
  uint32_t mask_ = 0;        // bit 0 Sunday .. bit 6 Saturday
  std::string nextMoment_;
  int32_t secondOfDay_ = 0;  // the drawn moment
};

class policyManger {
 public:
  virtual ~policyManger();
  // Monitors the section and loads both policies; called once by the service's Start.
  void Start();
  void Stop();
  // Another application changed the section: both policies are read again.
  int OnSectionChanged(const REGHANDLE& handle);
  // After every run: the repeat period counts from the end of that run, and when the run itself
  // changed the section (which the monitor does not report to its own process) both policies are
  // read again. Nothing while the policies are not started (zero-touch mode): there runs come only
  // from messages.
  void ReloadAfterRun();
  // After this process changed settings outside a run (a pushed file applied): both policies are
  // read again when the section differs from what they were loaded from.
  void ReloadIfChanged();
  // MSG_WEEKLY_CHECK: the local time may have become trusted.
  void WeeklyCheck() { weekly.Schedule(); }
  // A thread timer message: true when it belonged to one of the policies.
  bool OnTimerMessage(const msgObject& msg);

  repeatPolicy repeat;
  weeklyPolicy weekly;

 private:
  // Reads both policies from the section and remembers the text they were read from.
  void LoadBoth(const REGHANDLE& handle);

  uint32_t monitorId_ = 0;
  bool started_ = false;
  std::string loadedSection_;  // the section's text at the last load of both policies
};
