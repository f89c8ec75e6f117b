// Test data for the throughput benchmarks: pseudo-random bytes that no layer
// can compress or recognise, written to a file in large chunks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qcr {

// The chunk in which test files are written and read.
inline constexpr size_t kBenchChunk = size_t{1} << 20;

// Fills p[0, n) with xorshift bytes; the same seed gives the same bytes.
void fillPattern(uint8_t* p, size_t n, uint64_t seed);

// Writes size bytes (a multiple of kBenchChunk) of pattern to a new file at path,
// no two chunks alike. Returns 0 or the file error.
[[nodiscard]] int writePatternFile(const std::string& path, size_t size);

// Throughput in GB (10^9 bytes) per second.
double gbPerSecond(size_t bytes, double seconds);

}  // namespace qcr
