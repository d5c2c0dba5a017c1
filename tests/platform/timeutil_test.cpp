// The calendar's 32-bit end (2038-01-19 03:14:07 UTC, as on the phone): dates past it stay at its
// last second on every build instead of wrapping into the past.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

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

TEST_F(TimeUtil, DatesPastTheCalendarsEndStayAtItsLastSecond) {
  EXPECT_EQ(chTime(2038, 1, 19, 3, 14, 7).GetTime(), INT32_MAX);
  EXPECT_EQ(chTime(2038, 1, 19, 3, 14, 8).GetTime(), INT32_MAX);
  EXPECT_EQ(chTime(2038, 1, 19, 3, 14, 6).GetTime(), INT32_MAX - 1);
  EXPECT_EQ(chTime(1969, 12, 31, 23, 59, 59).GetTime(), -1);  // a real second, not a failure
  EXPECT_EQ(calendarSeconds(static_cast<time_t>(-1), 2050), INT32_MAX);
  EXPECT_EQ(calendarSeconds(static_cast<time_t>(-1), 1969), -1);
}

}  // namespace
