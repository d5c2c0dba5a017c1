// Every wait of the service goes through this clock: sleeps, the millisecond tick, calendar time and
// the time-outs of the message loop. Tests install a fake clock that advances at once, so waits of an
// hour cost nothing. A daemon started with PROVISOR_FAKE_CLOCK=1 uses the fake clock too.
#pragma once

#include <cstdint>

class Clock {
 public:
  virtual ~Clock() = default;
  // Milliseconds since an arbitrary start; wraps at 2^32 like the phone's tick.
  virtual uint32_t tickMs() = 0;
  // Calendar time in seconds since the epoch (32-bit on the target).
  virtual int32_t nowSeconds() = 0;
  virtual void sleepMs(uint32_t ms) = 0;
  // Longest real wait the message loop may block for when it wants to wait `ms`; the fake clock
  // keeps real waits short and advances itself by the rest.
  virtual int realWaitMs(int ms) = 0;
  // Longest real wait for another application's answer when the caller allows `ms`. A fake clock
  // gives a live peer a moment of real time to answer; past it the peer counts as silent and the
  // fake clock moves on by the whole `ms` (waited).
  virtual int realAnswerWaitMs(int ms) = 0;
  // Called by the message loop when a wait of `ms` ended without a message.
  virtual void waited(int ms) = 0;
};

class RealClock : public Clock {
 public:
  uint32_t tickMs() override;
  int32_t nowSeconds() override;
  void sleepMs(uint32_t ms) override;
  int realWaitMs(int ms) override { return ms; }
  int realAnswerWaitMs(int ms) override { return ms; }
  void waited(int) override {}
};

// Starts at a fixed calendar time (or one given) and moves only when somebody waits on it.
class FakeClock : public Clock {
 public:
  explicit FakeClock(int32_t startSeconds = 1700000000);
  ~FakeClock() override;
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  uint32_t tickMs() override;
  int32_t nowSeconds() override;
  void sleepMs(uint32_t ms) override;
  int realWaitMs(int ms) override;
  int realAnswerWaitMs(int ms) override;
  void waited(int ms) override;
  void advanceMs(uint64_t ms);
  // The real time a peer has to answer (1 s unless set): a test whose peer never answers sets it
  // short.
  void setAnswerGraceMs(int ms);
  uint64_t elapsedMs() const;  // total advanced since construction

 private:
  struct State;
  State* state_;
};

// The process-wide clock (not C's clock(), hence the name). setClock returns the previous one; nullptr restores the real clock.
Clock& serviceClock();
Clock* setClock(Clock* clock);

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
