#include "basic/cpu_features.h"

#include <sys/platform/x86.h>

namespace qcr {

bool cpuHasCarrylessMultiply() {
  return CPU_FEATURE_ACTIVE(PCLMULQDQ) && CPU_FEATURE_ACTIVE(SSE4_1);
}

bool cpuHasWideCarrylessMultiply() {
  return cpuHasCarrylessMultiply() && CPU_FEATURE_ACTIVE(AVX512F) &&
         CPU_FEATURE_ACTIVE(AVX512BW) && CPU_FEATURE_ACTIVE(VPCLMULQDQ);
}

}  // namespace qcr
