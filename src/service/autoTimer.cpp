#define LOG_MODULE "./src/autoTimer"
#include "autoTimer.h"

#include "log.h"

autoTimerInc::~autoTimerInc() {
  for (const Binding& binding : bindings_) timerKillThreadTimer(binding.timerId);
}

int autoTimerInc::SetTimer(uint32_t timerId, uint64_t milliseconds, void* target, Handler handler) {
  if (!target || timerId == 0 || !handler) return 0;
  Binding* binding = nullptr;
  for (Binding& b : bindings_)
    if (b.timerId == timerId) binding = &b;
  if (!binding) {
    bindings_.push_back(Binding{timerId, nullptr, nullptr});
    binding = &bindings_.back();
  }
  binding->target = target;
  binding->handler = std::move(handler);
  timerSetThreadTimer(timerId, milliseconds, true);
  return 1;
}

int autoTimerInc::KillTimer(uint32_t timerId) {
  for (auto it = bindings_.begin(); it != bindings_.end(); ++it) {
    if (it->timerId != timerId) continue;
    timerKillThreadTimer(timerId);
    bindings_.erase(it);
    return 1;
  }
  return 0;
}

const autoTimerInc::Binding* autoTimerInc::FindTimer(uint32_t timerId) const {
  for (const Binding& b : bindings_)
    if (b.timerId == timerId) return &b;
  return nullptr;
}

void autoTimerInc::OnTimer(msgObject& msg) {
  for (Binding& binding : bindings_) {
    if (binding.timerId != msg.wParam) continue;
    if (!binding.target) {
      LOG_NULL_POINTER();
      return;
    }
    // Copy: the handler may kill or rebind its own timer.
    Handler handler = binding.handler;
    handler(msg);
    return;
  }
}
