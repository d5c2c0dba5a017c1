// libFuzzer entry: the target is chosen at build time (FUZZ_TARGET_NAME).
#include <cstdlib>

#include "fuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const FuzzTarget* target = findFuzzTarget(FUZZ_TARGET_NAME);
  if (!target) abort();
  target->run(data, size);
  return 0;
}
