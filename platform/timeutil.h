// Calendar time of the support library: a point in local time and a span between two. Seconds are
// int32_t on every build, as the phone's time_t, so the host sees the phone's year-2038 limit:
// times saturate at 2038-01-19 03:14:07 UTC instead of wrapping to 1901.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

class chTimeSpan {
 public:
  explicit chTimeSpan(int32_t seconds = 0) : seconds_(seconds) {}
  chTimeSpan(int32_t days, int32_t hours, int32_t minutes, int32_t seconds)
      : seconds_(((days * 24 + hours) * 60 + minutes) * 60 + seconds) {}
  int32_t GetTotalSeconds() const { return seconds_; }

 private:
  int32_t seconds_;
};

// Seconds since the epoch as the calendar keeps them; `year` is the one asked for, which tells the
// phone's mktime() failure (-1) past the limit from 1969-12-31 23:59:59.
int32_t calendarSeconds(time_t seconds, int year);

class chTime {
 public:
  explicit chTime(int32_t seconds = 0) : seconds_(seconds) {}
  chTime(int year, int month, int day, int hour, int minute, int second);
  static chTime Now();  // service clock

  int GetYear() const;
  int GetMonth() const;
  int GetDay() const;
  int GetHour() const;
  int GetMinute() const;
  int GetSecond() const;
  // 1 = Monday .. 7 = Sunday.
  int GetDayOfWeek() const;
  struct tm GetLocalTm() const;
  std::string Format(const char* pattern) const;
  int32_t GetTime() const { return seconds_; }

  chTime operator+(const chTimeSpan& span) const { return chTime(seconds_ + span.GetTotalSeconds()); }
  chTime operator-(const chTimeSpan& span) const { return chTime(seconds_ - span.GetTotalSeconds()); }
  chTimeSpan operator-(const chTime& other) const { return chTimeSpan(seconds_ - other.seconds_); }

 private:
  int32_t seconds_;
};
