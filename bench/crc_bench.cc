// Checksum throughput: the cksum value of a 1 GiB file computed by the `cksum`
// command and by crcExtend (reading the file in transfer-sized chunks), side by
// side on the same file, then each CRC implementation over a buffer in memory,
// and one state file's worth at a time after a pause, as a server computes it.
// The file lives in a private temporary directory that is removed at the end.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>
#include <string>
#include <vector>

#include "basic/clock.h"
#include "basic/files.h"
#include "basic/process.h"
#include "basic/tempdir.h"
#include "bench/bench_files.h"
#include "qcr/coding/crc.h"

namespace qcr {
namespace {

constexpr size_t kFileSize = size_t{1} << 30;
constexpr size_t kMemorySize = size_t{256} << 20;
constexpr int kRounds = 3;

int checksumFile(const std::string& path, uint32_t* valueP) {
  File file;
  int rc = file.openRead(path);
  std::unique_ptr<uint8_t[]> buf(new uint8_t[kBenchChunk]);
  uint32_t crc = 0;
  uint64_t total = 0;
  for (size_t got = 1; rc == 0 && got > 0;) {
    rc = file.read(buf.get(), kBenchChunk, &got);
    crc = crcExtend(crc, buf.get(), got);
    total += got;
  }
  *valueP = cksumFinish(crc, total);
  return rc;
}

// Best of kRounds: the figure least disturbed by other work on the machine.
template <typename F>
double bestSeconds(F run) {
  double best = 1e30;
  for (int i = 0; i < kRounds; ++i) {
    const double start = systemClock().now();
    run();
    best = std::min(best, systemClock().now() - start);
  }
  return best;
}

int compareOnFile(const std::string& path) {
  uint32_t ours = 0;
  uint32_t theirs = 0;
  int rc = checksumFile(path, &ours);  // also brings the file into the page cache
  if (rc != 0) return rc;
  const double cksumSeconds = bestSeconds([&] {
    CapturedRun run;
    if (runCaptured({"/usr/bin/cksum", path}, {}, 600000, &run) == 0) theirs = std::stoul(run.out);
  });
  const double oursSeconds = bestSeconds([&] { rc = checksumFile(path, &ours); });
  printf("cksum value of a 1 GiB file (page cache), best of %d:\n", kRounds);
  printf("  cksum command             %6.2f GB/s  (%u)\n", gbPerSecond(kFileSize, cksumSeconds),
         theirs);
  printf("  read + crcExtend          %6.2f GB/s  (%u)%s\n", gbPerSecond(kFileSize, oursSeconds),
         ours, ours == theirs ? "" : "  MISMATCH");
  return rc != 0 ? rc : ours == theirs ? 0 : 1;
}

void compareInMemory() {
  std::unique_ptr<uint8_t[]> buf(new uint8_t[kMemorySize]);
  fillPattern(buf.get(), kMemorySize, 2);
  const struct {
    const char* name;
    CrcImpl impl;
  } impls[] = {{"byte loop", CrcImpl::kBytewise},
               {"slicing-by-8", CrcImpl::kSlicing8},
               {"carry-less, 128-bit", CrcImpl::kCarryless},
               {"carry-less, 512-bit", CrcImpl::kWideCarryless}};
  printf("CRC over 256 MiB in memory, best of %d:\n", kRounds);
  for (const auto& i : impls) {
    uint32_t crc = 0;
    const double seconds =
        bestSeconds([&] { crc = crcExtendWith(i.impl, 0, buf.get(), kMemorySize); });
    printf("  %-25s %6.2f GB/s  (0x%08x)\n", i.name, gbPerSecond(kMemorySize, seconds), crc);
  }
}

// The median time of one CRC over n bytes that follows a pause of 0.3 ms in
// which the buffer changed, for each implementation and for crcExtend's choice:
// how a server checksums each state file it writes. Wide registers wake slowly
// after other work, so for a few KiB the narrower folding ends first.
void compareAfterPause() {
  uint32_t sum = 0;  // printed, so that no CRC is left out
  printf("one CRC after a 0.3 ms pause, median of 200 (us):\n");
  printf("  %-9s %10s %10s %10s %10s\n", "bytes", "slicing-8", "128-bit", "512-bit", "crcExtend");
  for (size_t n : {size_t{4} << 10, size_t{16} << 10, size_t{32} << 10, size_t{64} << 10}) {
    std::vector<uint8_t> buf(n);
    fillPattern(buf.data(), n, 3);
    printf("  %-9zu", n);
    // Each implementation, then crcExtend's own choice (none given).
    for (std::optional<CrcImpl> impl : {std::optional<CrcImpl>(CrcImpl::kSlicing8),
                                        std::optional<CrcImpl>(CrcImpl::kCarryless),
                                        std::optional<CrcImpl>(CrcImpl::kWideCarryless),
                                        std::optional<CrcImpl>()}) {
      std::vector<double> us;
      for (int i = 0; i < 200; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        buf[static_cast<size_t>(i) % n] ^= 1;
        const auto start = std::chrono::steady_clock::now();
        sum += impl ? crcExtendWith(*impl, 0, buf.data(), n) : crcExtend(0, buf.data(), n);
        us.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() -
                                                               start).count());
      }
      std::nth_element(us.begin(), us.begin() + 100, us.end());
      printf(" %10.2f", us[100]);
    }
    printf("\n");
  }
  printf("  (sum of the checksums: 0x%08x)\n", sum);
}

int run() {
  std::string dir;
  int rc = makeTempDir("qcr_crc_bench_", &dir);
  if (rc != 0) return rc;
  const std::string path = dir + "/file";
  rc = writePatternFile(path, kFileSize);
  if (rc == 0) rc = compareOnFile(path);
  (void)removeTree(dir);
  compareInMemory();
  compareAfterPause();
  return rc;
}

}  // namespace
}  // namespace qcr

int main() { return qcr::run() == 0 ? 0 : 1; }
