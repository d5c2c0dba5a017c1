#include "backend.h"
#include "clock.h"

const char* startupRoot() { return nullptr; }

// A phone has only the real clock.
void installStartupClock() {}
