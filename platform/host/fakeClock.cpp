#include "fakeClock.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <thread>

namespace {

// Real time between two looks at the descriptors of a wait that the clock cannot end yet.
constexpr int kRealSliceMs = 5;
// A live peer on this machine answers within milliseconds; a second leaves room for a loaded one.
constexpr int kDefaultAnswerGraceMs = 1000;
// After its wait ends a thread holds the clock where it is for this much real time, or until it
// waits again: the work between two waits of a loop takes no time on the clock, and no other
// thread's longer wait jumps past it meanwhile.
constexpr uint64_t kHoldAfterWakeMs = 50;
constexpr uint64_t kNoEnd = UINT64_MAX;

uint64_t realMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// One thread's part in the clock's timeline.
struct Timeline {
  std::thread::id owner;
  bool waiting = false;
  uint64_t endMs = 0;       // while waiting: the wait's end on the clock
  uint64_t graceEndMs = 0;  // while waiting: real time before which the clock may not pass endMs
  uint64_t holdEndMs = 0;   // while not waiting: real time until which the clock stays
};

}  // namespace

struct FakeClock::State {
  mutable std::mutex mutex;
  int32_t startSeconds;
  uint64_t elapsedMs = 0;
  int answerGraceMs = kDefaultAnswerGraceMs;
  std::list<Timeline> timelines;

  Timeline& timelineOfThisThread() {
    const std::thread::id self = std::this_thread::get_id();
    for (Timeline& t : timelines)
      if (t.owner == self) return t;
    timelines.push_back(Timeline{self});
    return timelines.back();
  }

  void hold(Timeline& t) {
    t.waiting = false;
    t.holdEndMs = realMs() + kHoldAfterWakeMs;
  }

  // Moves the clock to the earliest end among the waits, unless a thread between two waits holds
  // it or that wait's peer still has real time to answer. Called with the mutex held.
  void moveToEarliestEnd() {
    const uint64_t now = realMs();
    timelines.remove_if([now](const Timeline& t) { return !t.waiting && t.holdEndMs <= now; });
    const Timeline* earliest = nullptr;
    for (const Timeline& t : timelines) {
      if (!t.waiting) return;
      if (!earliest || t.endMs < earliest->endMs) earliest = &t;
    }
    if (!earliest || earliest->endMs == kNoEnd || earliest->graceEndMs > now) return;
    elapsedMs = std::max(elapsedMs, earliest->endMs);
  }
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

int FakeClock::poll(pollfd* fds, size_t count, int timeoutMs, int peerGraceMs) {
  if (timeoutMs == 0) {
    // A look without a wait still marks the thread as one that takes part in the timeline.
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->hold(state_->timelineOfThisThread());
    return count ? ::poll(fds, static_cast<nfds_t>(count), 0) : 0;
  }
  Timeline* self;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    self = &state_->timelineOfThisThread();
    self->waiting = true;
    self->endMs = timeoutMs < 0 ? kNoEnd : state_->elapsedMs + static_cast<uint64_t>(timeoutMs);
    const int grace = std::min(std::max(peerGraceMs, 0), state_->answerGraceMs);
    self->graceEndMs = realMs() + static_cast<uint64_t>(grace);
  }
  int result = 0;
  for (;;) {
    if (count) {
      int ready = ::poll(fds, static_cast<nfds_t>(count), kRealSliceMs);
      if (ready != 0 && !(ready < 0 && errno == EINTR)) {
        result = ready;
        break;
      }
    }
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->moveToEarliestEnd();
      if (state_->elapsedMs >= self->endMs) break;
    }
    // Another wait ends first, a thread holds the clock or a peer still has its grace.
    if (!count) ::poll(nullptr, 0, kRealSliceMs);
  }
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->hold(*self);
  return result;
}

void FakeClock::setAnswerGraceMs(int ms) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->answerGraceMs = ms;
}

void FakeClock::advanceMs(uint64_t ms) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->elapsedMs += ms;
}

uint64_t FakeClock::elapsedMs() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->elapsedMs;
}

void installStartupClock() {
  const char* wanted = getenv("PROVISOR_FAKE_CLOCK");
  if (!wanted || strcmp(wanted, "1") != 0) return;
  static FakeClock fast;
  setClock(&fast);
}
