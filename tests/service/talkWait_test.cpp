// The service's bounded waits on the fake clock, in this process: the talk wait with a phone
// application that takes every question and never answers, and the unregister delay before a restart.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "provisor.h"
#include "servers.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

// A socket where the phone application's thread would be: it takes every question, counts it and
// never answers.
class SilentPhone {
 public:
  explicit SilentPhone(const TempRoot& root) {
    root.write("/tmp/msgq/.keep", "");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = root.host("/tmp/msgq/app_vpPhone");
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    reader_ = std::thread([this] {
      char buffer[4096];
      while (!done_) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 20) > 0 && recv(fd_, buffer, sizeof(buffer), 0) > 0) ++questions;
      }
    });
  }
  ~SilentPhone() {
    done_ = true;
    reader_.join();
    close(fd_);
  }
  bool bound() const { return bound_; }
  std::atomic<int> questions{0};

 private:
  int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool bound_ = false;
  std::atomic<bool> done_{false};
  std::thread reader_;
};

class TalkWaitTest : public RootedTest {};

// The hour is one of the clock: the ten-second answer waits count as well as the pauses, so the
// questions are fewer than the hour's pauses would allow, and the wait ends within a second past it.
TEST_F(TalkWaitTest, APhoneThatNeverAnswersIsWaitedForAnHourOfTheClock) {
  fakeClock.setAnswerGraceMs(1);
  SilentPhone phone(*root);
  ASSERT_TRUE(phone.bound());
  provisorObject service;
  uCSystemShareHelper::CreateLocalThread(service);
  const struct {
    int32_t stepSeconds;
    int questions;  // one per pause and answer wait of 10 s, and the last one
  } cases[] = {{60, 3600 / 70 + 2}, {5, 3600 / 15 + 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stepSeconds);
    phone.questions = 0;
    const uint64_t before = fakeClock.elapsedMs();
    EXPECT_FALSE(service.WaitWhileTalking(c.stepSeconds));
    const uint64_t spent = fakeClock.elapsedMs() - before;
    EXPECT_GE(spent, 3600u * 1000u);
    EXPECT_LE(spent, 3601u * 1000u);
    EXPECT_TRUE(pollFor([&] { return phone.questions == c.questions; }, 5000)) << phone.questions;
  }
  uCSystemShareHelper::DestroyLocalThread(service);
}

TEST(UnregisterDelay, IsTheConfiguredSecondsUpToAMinute) {
  const struct {
    int32_t configured;
    uint32_t expectedMs;
  } cases[] = {{-5, 0},
               {0, 0},
               {3, 3000},
               {60, 60000},
               {61, 60000},
               // Seconds that wrap a 32-bit count of milliseconds.
               {4294968, 60000},
               {INT32_MAX, 60000}};
  for (const auto& c : cases) EXPECT_EQ(unregisterDelayMs(c.configured), c.expectedMs) << c.configured;
}

}  // namespace
