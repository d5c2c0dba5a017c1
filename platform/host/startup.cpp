#include <cstdlib>

#include "backend.h"

const char* startupRoot() { return getenv("PROVISOR_ROOT"); }
