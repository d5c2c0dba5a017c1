#include "clock.h"

#include <sched.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "timeutil.h"

namespace {

uint64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

RealClock& realClock() {
  static RealClock clock;
  return clock;
}

std::atomic<Clock*>& installedClock() {
  static std::atomic<Clock*> current{&realClock()};
  return current;
}

}  // namespace

void Clock::sleepMs(uint32_t ms) {
  // poll takes an int: a longer sleep (up to 49 days) is made of several.
  while (ms > 0) {
    const int step = static_cast<int>(ms > static_cast<uint32_t>(INT_MAX) ? INT_MAX : ms);
    poll(nullptr, 0, step);
    ms -= static_cast<uint32_t>(step);
  }
}

uint32_t RealClock::tickMs() { return static_cast<uint32_t>(monotonicMs()); }

int32_t RealClock::nowSeconds() {
  time_t now = time(nullptr);
  // -1 is how a 32-bit time() says the clock passed 2038; the calendar stops at its end then.
  return now == static_cast<time_t>(-1) ? INT32_MAX : calendarSeconds(now, 0);
}

int RealClock::poll(pollfd* fds, size_t count, int timeoutMs, int) {
  const uint64_t start = monotonicMs();
  int wait = timeoutMs;
  for (;;) {
    int ready = ::poll(fds, static_cast<nfds_t>(count), wait);
    if (ready >= 0 || errno != EINTR) return ready;
    if (timeoutMs < 0) continue;
    const uint64_t spent = monotonicMs() - start;
    if (spent >= static_cast<uint64_t>(timeoutMs)) return 0;
    wait = timeoutMs - static_cast<int>(spent);
  }
}

Clock& serviceClock() { return *installedClock().load(); }

Clock* setClock(Clock* next) { return installedClock().exchange(next ? next : &realClock()); }

uint32_t brisaGetTickCount() { return serviceClock().tickMs(); }

void brisaSleep(uint32_t ms) { serviceClock().sleepMs(ms); }

void brisaSwitchToThread() { sched_yield(); }

void chTimeout::Start(int32_t timeoutMs) {
  start_ = brisaGetTickCount();
  timeout_ = timeoutMs;
}

bool chTimeout::IsTimeout() const {
  if (timeout_ < 0) return false;
  return static_cast<uint32_t>(brisaGetTickCount() - start_) >= static_cast<uint32_t>(timeout_);
}

int32_t chTimeout::GetLeftMillisecond() const {
  if (timeout_ < 0) return -1;
  uint32_t spent = brisaGetTickCount() - start_;
  return spent >= static_cast<uint32_t>(timeout_) ? 0 : static_cast<int32_t>(timeout_ - spent);
}
