#include "clock.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "timeutil.h"

namespace {

uint64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// Real waits of the fake clock are kept this short so that a loop waiting for hours of fake time
// still notices a message that arrives meanwhile.
constexpr int kFakeRealWaitMs = 5;
// A live peer on this machine answers within milliseconds; a second leaves room for a loaded one.
constexpr int kFakeAnswerGraceMs = 1000;

bool fakeClockRequested() {
  const char* v = getenv("PROVISOR_FAKE_CLOCK");
  return v && strcmp(v, "1") == 0;
}

Clock* defaultClock() {
  static RealClock realClock;
  static FakeClock envFakeClock;
  return fakeClockRequested() ? static_cast<Clock*>(&envFakeClock) : static_cast<Clock*>(&realClock);
}

std::atomic<Clock*>& installedClock() {
  static std::atomic<Clock*> current{defaultClock()};
  return current;
}

}  // namespace

uint32_t RealClock::tickMs() { return static_cast<uint32_t>(monotonicMs()); }

int32_t RealClock::nowSeconds() {
  time_t now = time(nullptr);
  // -1 is how a 32-bit time() says the clock passed 2038; the calendar stops at its end then.
  return now == static_cast<time_t>(-1) ? INT32_MAX : calendarSeconds(now, 0);
}

void RealClock::sleepMs(uint32_t ms) {
  struct timespec ts;
  ts.tv_sec = ms / 1000;
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (nanosleep(&ts, &ts) != 0) {
  }
}

struct FakeClock::State {
  std::mutex mutex;
  int32_t startSeconds;
  uint64_t elapsedMs = 0;
  int answerGraceMs = kFakeAnswerGraceMs;
};

FakeClock::FakeClock(int32_t startSeconds) : state_(new State) { state_->startSeconds = startSeconds; }

FakeClock::~FakeClock() { delete state_; }

uint32_t FakeClock::tickMs() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return static_cast<uint32_t>(state_->elapsedMs);
}

int32_t FakeClock::nowSeconds() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->startSeconds + static_cast<int32_t>(state_->elapsedMs / 1000);
}

void FakeClock::sleepMs(uint32_t ms) { advanceMs(ms); }

int FakeClock::realWaitMs(int ms) { return ms < 0 ? kFakeRealWaitMs : std::min(ms, kFakeRealWaitMs); }

int FakeClock::realAnswerWaitMs(int ms) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return ms < 0 ? state_->answerGraceMs : std::min(ms, state_->answerGraceMs);
}

void FakeClock::setAnswerGraceMs(int ms) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->answerGraceMs = ms;
}

void FakeClock::waited(int ms) {
  if (ms > 0) advanceMs(static_cast<uint64_t>(ms));
}

void FakeClock::advanceMs(uint64_t ms) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->elapsedMs += ms;
}

uint64_t FakeClock::elapsedMs() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->elapsedMs;
}

Clock& serviceClock() { return *installedClock().load(); }

Clock* setClock(Clock* next) { return installedClock().exchange(next ? next : defaultClock()); }

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
