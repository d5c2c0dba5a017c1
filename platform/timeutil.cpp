// Calendar time in the phone's local time zone. Seconds are 32-bit as on the target, whose time_t
// is 32-bit too: the calendar ends at 2038-01-19 03:14:07 UTC.
#include "timeutil.h"

#include <cstdint>

#include "clock.h"

namespace {

constexpr size_t kFormatBuffer = 256;

}  // namespace

chTime::chTime(int year, int month, int day, int hour, int minute, int second) {
  struct tm parts {};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;  // let the zone rules decide
  seconds_ = calendarSeconds(mktime(&parts), year);
}

// A date past the end of the 32-bit calendar is its last second: the phone's mktime() answers -1
// there, a 64-bit host's would wrap to 1901 in the cast; either would put a future date in the
// past and make every "next time" due at once.
int32_t calendarSeconds(time_t seconds, int year) {
  int64_t wide = static_cast<int64_t>(seconds);
  constexpr int kLastYear = 2038;
  if ((wide == -1 && year >= kLastYear) || wide > INT32_MAX) return INT32_MAX;
  if (wide < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(wide);
}

chTime chTime::Now() { return chTime(serviceClock().nowSeconds()); }

struct tm chTime::GetLocalTm() const {
  time_t t = seconds_;
  struct tm parts {};
  localtime_r(&t, &parts);
  return parts;
}

int chTime::GetYear() const { return GetLocalTm().tm_year + 1900; }
int chTime::GetMonth() const { return GetLocalTm().tm_mon + 1; }
int chTime::GetDay() const { return GetLocalTm().tm_mday; }
int chTime::GetHour() const { return GetLocalTm().tm_hour; }
int chTime::GetMinute() const { return GetLocalTm().tm_min; }
int chTime::GetSecond() const { return GetLocalTm().tm_sec; }

int chTime::GetDayOfWeek() const {
  int weekday = GetLocalTm().tm_wday;  // 0 = Sunday
  return weekday == 0 ? 7 : weekday;
}

std::string chTime::Format(const char* pattern) const {
  if (!pattern) return "";
  struct tm parts = GetLocalTm();
  char text[kFormatBuffer];
  size_t length = strftime(text, sizeof(text), pattern, &parts);
  return std::string(text, length);
}
