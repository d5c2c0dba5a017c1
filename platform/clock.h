// Every wait of the service goes through the process's clock: sleeps, the millisecond tick, calendar
// time and every wait on a descriptor (message loops, answers, sockets, child programs). The clock
// has exactly one way to wait, poll(), so a clock that runs faster than real time (the host's
// fakeClock.h, for tests and the demo) only has to implement that one call; nothing else in the
// service knows which clock it runs on.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>

class Clock {
 public:
  virtual ~Clock() = default;
  // Milliseconds since an arbitrary start; wraps at 2^32 like the phone's tick.
  virtual uint32_t tickMs() = 0;
  // Calendar time in seconds since the epoch (32-bit on the target).
  virtual int32_t nowSeconds() = 0;
  // poll(2) on `fds` for up to `timeoutMs` of this clock (-1: no limit; no descriptors: a plain
  // sleep). `peerGraceMs` is the real time a live peer behind the descriptors gets to answer before
  // a clock faster than real time may move past this wait's end. Interrupted waits go on; the
  // result is poll's: ready descriptors, 0 when the time passed, -1 on an error.
  virtual int poll(pollfd* fds, size_t count, int timeoutMs, int peerGraceMs = 0) = 0;
  // A wait on nothing but the time.
  void sleepMs(uint32_t ms);
};

class RealClock : public Clock {
 public:
  uint32_t tickMs() override;
  int32_t nowSeconds() override;
  int poll(pollfd* fds, size_t count, int timeoutMs, int peerGraceMs = 0) override;
};

// The process-wide clock (not C's clock(), hence the name), set only at start-up (and by the
// tests' scoped guard). setClock returns the previous one; nullptr restores the real clock.
Clock& serviceClock();
Clock* setClock(Clock* clock);
// The clock a program starts with: the real one, or on the host build the fast one when
// PROVISOR_FAKE_CLOCK=1 asks for it (the tests and the demo drive the daemon and the tool so).
void installStartupClock();

uint32_t brisaGetTickCount();
void brisaSleep(uint32_t ms);
void brisaSwitchToThread();

// A deadline on the service clock. A negative time-out never expires.
class chTimeout {
 public:
  explicit chTimeout(int32_t timeoutMs = -1) { Start(timeoutMs); }
  void Start(int32_t timeoutMs);
  bool IsTimeout() const;
  // Milliseconds left (0 when expired, -1 when unlimited).
  int32_t GetLeftMillisecond() const;

 private:
  uint32_t start_ = 0;
  int32_t timeout_ = -1;
};
