// What the processor offers for the checksum's fast paths. Answers come from what
// the C library's loader already learnt about the CPU, so asking costs nothing and
// no program pays a CPU probe at start-up.
#pragma once

namespace qcr {

// 128-bit carry-less multiplication (PCLMULQDQ) with SSE4.1.
bool cpuHasCarrylessMultiply();
// The same on 512-bit vectors (AVX-512F, AVX-512BW, VPCLMULQDQ), usable by the OS.
bool cpuHasWideCarrylessMultiply();

}  // namespace qcr
