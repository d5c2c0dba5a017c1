// Scoped stand-ins for the little that stays process-wide: the clock and the statfs the free-space
// check uses (the root is TempRoot's, the log sink LogCapture's). Each puts back what was there when
// it goes, so a test that fails half-way leaves nothing behind for the next one; RootedTest resets
// all of them around every test besides.
#pragma once

#include "baseMethod.h"
#include "clock.h"

namespace testing_support {

class ScopedClock {
 public:
  explicit ScopedClock(Clock& clock) : previous_(setClock(&clock)) {}
  ~ScopedClock() { setClock(previous_); }
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

class ScopedStatfs {
 public:
  explicit ScopedStatfs(StatfsFunction function) { setPartitionStatfs(function); }
  ~ScopedStatfs() { setPartitionStatfs(nullptr); }
  ScopedStatfs(const ScopedStatfs&) = delete;
  ScopedStatfs& operator=(const ScopedStatfs&) = delete;
};

// Puts the process-wide settings back to what a program starts with: the real clock and statfs, an
// empty configuration cache. (The log sink is left to LogCapture, which a fixture may hold as a
// member from before its SetUp.)
void resetProcessWideState();

}  // namespace testing_support
