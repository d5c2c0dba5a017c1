// Calendar time: fields, day of week numbering, formatting, spans, the service clock.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <vector>

#include "clock.h"
#include "testRoot.h"
#include "timeutil.h"

namespace {

// Pins the local time zone for the test and restores it after.
class UtcZone {
 public:
  UtcZone() {
    const char* tz = getenv("TZ");
    had_ = tz != nullptr;
    if (tz) previous_ = tz;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~UtcZone() {
    if (had_)
      setenv("TZ", previous_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  bool had_ = false;
  std::string previous_;
};

}  // namespace

TEST(TimeUtil, FieldsDayOfWeekAndFormat) {
  UtcZone utc;
  chTime monday(2024, 1, 1, 8, 30, 15);
  EXPECT_EQ(monday.GetTime(), 1704097815);
  EXPECT_EQ((std::vector<int>{monday.GetYear(), monday.GetMonth(), monday.GetDay(), monday.GetHour(), monday.GetMinute(),
                              monday.GetSecond(), monday.GetDayOfWeek()}),
            (std::vector<int>{2024, 1, 1, 8, 30, 15, 1}));
  EXPECT_EQ(monday.Format("%Y-%m-%d %H:%M:%S"), "2024-01-01 08:30:15");
  EXPECT_EQ(monday.GetLocalTm().tm_yday, 0);

  chTime sunday = monday + chTimeSpan(6, 0, 0, 0);
  EXPECT_EQ(sunday.GetDayOfWeek(), 7);
  EXPECT_EQ(sunday.GetDay(), 7);
  EXPECT_EQ((sunday - chTimeSpan(1, 0, 0, 0)).GetDayOfWeek(), 6);
  EXPECT_EQ((sunday - monday).GetTotalSeconds(), 6 * 86400);
  EXPECT_EQ(chTimeSpan(0, 1, 2, 3).GetTotalSeconds(), 3723);
  EXPECT_EQ(chTime(2024, 2, 29, 0, 0, 0).GetDayOfWeek(), 4);
  EXPECT_EQ(monday.Format(nullptr), "");
}

TEST(TimeUtil, NowFollowsTheServiceClock) {
  FakeClock fake(1700000000);
  Clock* previous = setClock(&fake);
  EXPECT_EQ(chTime::Now().GetTime(), 1700000000);
  fake.advanceMs(90000);
  EXPECT_EQ(chTime::Now().GetTime(), 1700000090);
  setClock(previous);
}
