// autoTimerInc: the service's small registry of timer bindings. Each binding ties a platform thread
// timer (by its 32-bit id) to a target object and the member function to call when that timer's
// message (MSG_THREAD_TIMER with the id in wParam) reaches the thread. Timers armed here fire again
// and again until killed.
#pragma once

#include <cstdint>
#include <functional>
#include <list>

#include "msgqueue.h"

class autoTimerInc {
 public:
  using Handler = std::function<void(msgObject&)>;
  struct Binding {
    uint32_t timerId;
    void* target;
    Handler handler;
  };

  autoTimerInc() = default;
  virtual ~autoTimerInc();
  autoTimerInc(const autoTimerInc&) = delete;
  autoTimerInc& operator=(const autoTimerInc&) = delete;

  // Binds (or rebinds) the timer id and arms it on the calling thread. 0 when the target, the id or
  // the handler is missing, else 1.
  int SetTimer(uint32_t timerId, uint64_t milliseconds, void* target, Handler handler);
  template <class T>
  int SetTimer(const chThreadTimer& timer, uint64_t milliseconds, T* target, void (T::*member)(msgObject&)) {
    Handler handler;
    if (target && member) handler = [target, member](msgObject& msg) { (target->*member)(msg); };
    return SetTimer(timer.id(), milliseconds, target, std::move(handler));
  }
  // Stops the timer and drops its binding: 1 when one existed, else 0.
  int KillTimer(uint32_t timerId);
  int KillTimer(const chThreadTimer& timer) { return KillTimer(timer.id()); }
  const Binding* FindTimer(uint32_t timerId) const;
  const Binding* FindTimer(const chThreadTimer& timer) const { return FindTimer(timer.id()); }

  // Calls the binding whose id is the message's wParam.
  virtual void OnTimer(msgObject& msg);

 private:
  std::list<Binding> bindings_;
};
