// A named mutex shared between processes: a lock file $PROVISOR_ROOT/tmp/<name>.lock held with
// flock, so a crashed holder releases it automatically.
#pragma once

#include <cstdint>
#include <string>

class chMutex {
 public:
  chMutex() = default;
  ~chMutex();
  chMutex(const chMutex&) = delete;
  chMutex& operator=(const chMutex&) = delete;

  bool OpenMutex(const std::string& name);
  // Waits up to timeoutMs (negative: no limit) on the service clock. True when held.
  bool Lock(int32_t timeoutMs = -1);
  void Unlock();
  void CloseMutex();
  bool IsLocked() const { return locked_; }

 private:
  int fd_ = -1;
  bool locked_ = false;
};

// Holds a named mutex for a scope.
class chMutexLock {
 public:
  chMutexLock(chMutex& mutex, int32_t timeoutMs = -1) : mutex_(mutex), held_(mutex.Lock(timeoutMs)) {}
  ~chMutexLock() {
    if (held_) mutex_.Unlock();
  }
  bool held() const { return held_; }

 private:
  chMutex& mutex_;
  bool held_;
};
