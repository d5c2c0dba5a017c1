// A clock that runs faster than real time, for the host build only (tests, the demo, and programs
// started with PROVISOR_FAKE_CLOCK=1). It starts at a fixed calendar time and moves only when every
// thread that takes part is waiting on it, and then only to the earliest end among those waits:
// each thread wakes at exactly its own end, in the order of the ends, however the threads are
// scheduled. A thread takes part from its first call of poll; between two waits it holds the clock
// for a few tens of milliseconds of real time (its work between waits costs no clock time), after
// which it counts as gone. Descriptors are still polled for real, a few milliseconds at a time, so a
// message or a peer's answer that arrives meanwhile ends a wait as it would on the phone.
#pragma once

#include <cstdint>

#include "clock.h"

class FakeClock : public Clock {
 public:
  explicit FakeClock(int32_t startSeconds = 1700000000);
  ~FakeClock() override;
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  uint32_t tickMs() override;
  int32_t nowSeconds() override;
  int poll(pollfd* fds, size_t count, int timeoutMs, int peerGraceMs = 0) override;

  // Moves the clock on by `ms` at once (a test's own step).
  void advanceMs(uint64_t ms);
  // Caps the real time any peer gets to answer (1 s unless set): a test whose peer never answers
  // sets it short.
  void setAnswerGraceMs(int ms);
  uint64_t elapsedMs() const;  // total advanced since construction

 private:
  struct State;
  State* state_;
};
