// What a provisioning run depends on, in one object the service owns and hands down: the launch
// sequence reads the marks, the URL model and the loader take the table and the reboot request.
// Nothing of it is process-wide, so two services (or two tests) never share a run's state.
#pragma once

#include <cstdint>
#include <functional>

#include "runStatus.h"

class autopTranslator;

struct autopContext {
  // The translation table every key of the run is looked up in (the service loads it at start).
  const autopTranslator* translator = nullptr;
  // Called when an applied item needs a restart; the service arranges it after the run.
  std::function<void()> requestReboot;
  // 0 no run finished since power-on, 1 a zero-touch or URL run began first, 2 a run has finished.
  int32_t powerOnState = 0;
  int32_t runState = 0;  // 0 idle, 1 running, 2 waiting for plug-and-play
  bool zeroTouch = false;  // started with "-byzero"
  // Where the run records what it did (nullptr: nothing is recorded).
  runStatus* status = nullptr;
};
