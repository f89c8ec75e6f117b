// Linked into every fuzz target: libFuzzer calls LLVMFuzzerInitialize once
// before the first input. A target that needs more set-up defines setUp(); the
// weak empty one here stands in for the others.
#include "fuzz/fuzz_support.h"

namespace qcr::fuzz {
__attribute__((weak)) void setUp() {}
}  // namespace qcr::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qcr::fuzz::quietLog();
  qcr::fuzz::setUp();
  return 0;
}
