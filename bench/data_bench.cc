// Serialisation and state-file figures, each beside its baseline in the same run:
//   VarUInt encode/decode    vs  fixed 64-bit big-endian words
//   state file load (read, verify, parse) of 10,000 values and 1,000 files
//                            vs  reading the same bytes without looking at them
//   encoding the committed state of 640 values  vs  copying its bytes
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/coding/coding.h"
#include "qcr/data/state_file.h"

namespace qcr {
namespace {

constexpr int kValues = 4096;

// Values spread over all length classes, as counts, versions and ids are.
const std::vector<int64_t>& sampleValues() {
  static const std::vector<int64_t> values = [] {
    std::mt19937_64 rng(1);
    std::vector<int64_t> v(kValues);
    for (int64_t& x : v) x = static_cast<int64_t>(rng() >> (8 + rng() % 56));
    return v;
  }();
  return values;
}

void BM_VarUIntEncode(benchmark::State& state) {
  std::vector<uint8_t> buf(kValues * MaxSizeVarUInt);
  for (auto _ : state) {
    uint8_t* p = buf.data();
    for (int64_t v : sampleValues()) p = putVarUInt(p, v);
    benchmark::DoNotOptimize(p);
  }
  state.SetItemsProcessed(state.iterations() * kValues);
}

void BM_FixedU64Encode(benchmark::State& state) {
  std::vector<uint8_t> buf(kValues * 8);
  for (auto _ : state) {
    uint8_t* p = buf.data();
    for (int64_t v : sampleValues()) p = putU64(p, static_cast<uint64_t>(v));
    benchmark::DoNotOptimize(p);
  }
  state.SetItemsProcessed(state.iterations() * kValues);
}

void BM_VarUIntDecode(benchmark::State& state) {
  std::vector<uint8_t> buf(kValues * MaxSizeVarUInt);
  uint8_t* end = buf.data();
  for (int64_t v : sampleValues()) end = putVarUInt(end, v);
  for (auto _ : state) {
    uint64_t sum = 0, v = 0;
    for (const uint8_t* p = buf.data(); p < end; sum += v) p = getVarUInt64(p, end, &v);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kValues);
}

void BM_FixedU64Decode(benchmark::State& state) {
  std::vector<uint8_t> buf(kValues * 8);
  uint8_t* end = buf.data();
  for (int64_t v : sampleValues()) end = putU64(end, static_cast<uint64_t>(v));
  for (auto _ : state) {
    uint64_t sum = 0, v = 0;
    for (const uint8_t* p = buf.data(); p < end; sum += v) p = getU64(p, end, &v);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kValues);
}

// A state file of 10,000 values and 1,000 files in a private directory, removed
// at exit.
class BigStateFile {
 public:
  BigStateFile() {
    if (makeTempDir("qcr-bench-", &dir_) != 0) return;
    PaxosFileData data;
    CommittedState& c = data.dblk.committed;
    char name[32];
    for (int i = 0; i < 10000; ++i) {
      snprintf(name, sizeof name, "value%05d", i);
      c.values[name] = {i % 1000 + 1, "some configuration text " + std::to_string(i)};
    }
    for (int i = 0; i < 1000; ++i)
      c.files[16 + i] = {i % 50 + 1, {1 + i % 3, 2, 100000 + i}, 0x9E3779B9u * (i + 1u)};
    const std::vector<uint8_t> bytes = encodeStateFile(data, 42, 1);
    path_ = dir_ + "/qcr.paxos.1";
    if (writeFile(path_, std::string(bytes.begin(), bytes.end()), 0600, false) != 0) path_.clear();
  }
  ~BigStateFile() {
    if (!dir_.empty()) (void)removeTree(dir_);
  }
  const std::string& path() const { return path_; }

 private:
  std::string dir_;
  std::string path_;
};

const BigStateFile& bigStateFile() {
  static const BigStateFile file;
  return file;
}

void BM_LoadStateFile(benchmark::State& state) {
  const std::string& path = bigStateFile().path();
  if (path.empty()) return state.SkipWithError("cannot write the state file");
  int64_t size = 0;
  for (auto _ : state) {
    PaxosLocalFile file;
    if (file.loadFromFile(path) != 0) return state.SkipWithError("load failed");
    size = file.fileSize;
    benchmark::DoNotOptimize(file.data.dblk.committed.values.size());
  }
  state.counters["file_bytes"] = static_cast<double>(size);
  state.SetBytesProcessed(state.iterations() * size);
}

void BM_ReadStateFileBytesOnly(benchmark::State& state) {
  const std::string& path = bigStateFile().path();
  if (path.empty()) return state.SkipWithError("cannot write the state file");
  std::string bytes;
  for (auto _ : state) {
    if (readFile(path, &bytes) != 0) return state.SkipWithError("read failed");
    benchmark::DoNotOptimize(bytes.data());
  }
  state.counters["file_bytes"] = static_cast<double>(bytes.size());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

// The committed state of 64 clients with ten values each, as qcrd_bench leaves
// it: what every acceptance after a commit encodes again.
CommittedState benchCommittedState() {
  CommittedState c;
  for (int client = 0; client < 64; ++client) {
    for (int i = 0; i < 10; ++i) {
      c.values["k" + std::to_string(client) + "-" + std::to_string(i)] = {client * 10 + i + 1,
                                                                        "value-0123456789"};
    }
  }
  return c;
}

// Touches enough memory to push the state out of the caches, as a server's
// other work does between two encodings (argument 1), or nothing (argument 0).
void evictCaches(benchmark::State& state) {
  if (state.range(0) == 0) return;
  static std::vector<uint8_t> other(size_t{16} << 20);
  state.PauseTiming();
  for (size_t i = 0; i < other.size(); i += 64) other[i] = static_cast<uint8_t>(other[i] + 1);
  benchmark::ClobberMemory();
  state.ResumeTiming();
}

// getSize, then write into a buffer of that size: two walks over the state.
void BM_EncodeCommittedState(benchmark::State& state) {
  const CommittedState c = benchCommittedState();
  for (auto _ : state) {
    evictCaches(state);
    std::vector<uint8_t> bytes(static_cast<size_t>(c.getSize()));
    benchmark::DoNotOptimize(c.write(bytes.data()));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(c.values.size()));
}

// encode, as the server makes its committed bytes: one walk, into a buffer of
// the last size and some room.
void BM_EncodeCommittedStateOneWalk(benchmark::State& state) {
  const CommittedState c = benchCommittedState();
  const size_t last = static_cast<size_t>(c.getSize());
  for (auto _ : state) {
    evictCaches(state);
    benchmark::DoNotOptimize(c.encode(last + 256).data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(c.values.size()));
}

void BM_CopyCommittedStateBytes(benchmark::State& state) {
  const CommittedState c = benchCommittedState();
  std::vector<uint8_t> encoded(static_cast<size_t>(c.getSize()));
  (void)c.write(encoded.data());
  for (auto _ : state) {
    std::vector<uint8_t> bytes(encoded);
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(c.values.size()));
}

BENCHMARK(BM_VarUIntEncode);
BENCHMARK(BM_FixedU64Encode);
BENCHMARK(BM_VarUIntDecode);
BENCHMARK(BM_FixedU64Decode);
BENCHMARK(BM_EncodeCommittedState)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeCommittedStateOneWalk)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CopyCommittedStateBytes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LoadStateFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadStateFileBytesOnly)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qcr

BENCHMARK_MAIN();
