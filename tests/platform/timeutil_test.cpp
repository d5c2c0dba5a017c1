// Calendar time: fields, day of week numbering, formatting, spans, the service clock, and the
// calendar's 32-bit end (2038-01-19 03:14:07 UTC, as on the phone): dates past it stay at its last
// second on every build instead of wrapping into the past.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "clock.h"
#include "timeutil.h"

namespace {

// Local time is UTC for these tests (nothing else in this executable reads the time zone).
class TimeUtil : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

TEST_F(TimeUtil, FieldsDayOfWeekFormatAndTheServiceClock) {
  chTime monday(2024, 1, 1, 8, 30, 15);
  EXPECT_EQ(monday.GetTime(), 1704097815);
  EXPECT_EQ((std::vector<int>{monday.GetYear(), monday.GetMonth(), monday.GetDay(), monday.GetHour(), monday.GetMinute(),
                              monday.GetSecond(), monday.GetDayOfWeek(), monday.GetLocalTm().tm_yday}),
            (std::vector<int>{2024, 1, 1, 8, 30, 15, 1, 0}));
  EXPECT_EQ(monday.Format("%Y-%m-%d %H:%M:%S"), "2024-01-01 08:30:15");
  EXPECT_EQ(monday.Format(nullptr), "");

  chTime sunday = monday + chTimeSpan(6, 0, 0, 0);
  EXPECT_EQ(sunday.GetDayOfWeek(), 7);
  EXPECT_EQ((sunday - chTimeSpan(1, 0, 0, 0)).GetDayOfWeek(), 6);
  EXPECT_EQ((sunday - monday).GetTotalSeconds(), 6 * 86400);
  EXPECT_EQ(chTimeSpan(0, 1, 2, 3).GetTotalSeconds(), 3723);

  FakeClock fake(1700000000);
  Clock* previous = setClock(&fake);
  fake.advanceMs(90000);
  EXPECT_EQ(chTime::Now().GetTime(), 1700000090);
  setClock(previous);
}

TEST_F(TimeUtil, DatesPastTheCalendarsEndStayAtItsLastSecond) {
  EXPECT_EQ(chTime(2038, 1, 19, 3, 14, 7).GetTime(), INT32_MAX);
  EXPECT_EQ(chTime(2038, 1, 19, 3, 14, 8).GetTime(), INT32_MAX);
  EXPECT_EQ(chTime(2040, 6, 1, 0, 0, 0).GetTime(), INT32_MAX);
  EXPECT_EQ(chTime(2038, 1, 19, 3, 14, 6).GetTime(), INT32_MAX - 1);
  EXPECT_EQ(chTime(1969, 12, 31, 23, 59, 59).GetTime(), -1);  // a real second, not a failure
  EXPECT_EQ(calendarSeconds(static_cast<time_t>(-1), 2050), INT32_MAX);
  EXPECT_EQ(calendarSeconds(static_cast<time_t>(-1), 1969), -1);
}

}  // namespace
