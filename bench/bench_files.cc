#include "bench/bench_files.h"

#include <vector>

#include "basic/files.h"

namespace qcr {

void fillPattern(uint8_t* p, size_t n, uint64_t seed) {
  uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
  for (size_t i = 0; i < n; ++i) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    p[i] = static_cast<uint8_t>(x);
  }
}

int writePatternFile(const std::string& path, size_t size) {
  File file;
  int rc = file.openWrite(path, 0600);
  std::vector<uint8_t> chunk(kBenchChunk);
  fillPattern(chunk.data(), chunk.size(), 1);
  for (size_t written = 0; rc == 0 && written < size; written += kBenchChunk) {
    chunk[0] = static_cast<uint8_t>(written >> 20);  // no two chunks alike
    size_t done = 0;
    while (rc == 0 && done < kBenchChunk) {
      size_t put = 0;
      rc = file.write(chunk.data() + done, kBenchChunk - done, &put);
      done += put;
    }
  }
  return rc != 0 ? rc : file.close();
}

double gbPerSecond(size_t bytes, double seconds) {
  return static_cast<double>(bytes) / seconds / 1e9;
}

}  // namespace qcr
