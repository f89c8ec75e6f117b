// The floor under one synod on this machine: what a durable in-place write of a
// state-file-sized buffer costs (written as the server writes its state file copies,
// with overwriteFile: pwrite at offset 0, fdatasync), back to back, after the disk
// was idle, and with three writers at once as a leader and two followers on one
// machine; and what a small loopback round trip costs, plain and with a thread
// hand-off on each side. Every figure is a median and a 99th percentile in
// microseconds, all from one run, and the rate they allow one synod at a time.
// Files live in a private temporary directory ($TMPDIR or /tmp, where the
// benchmarks' servers keep theirs) that is removed at the end.
#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "basic/clock.h"
#include "basic/net.h"
#include "basic/overwrite.h"
#include "basic/tempdir.h"
#include "bench/bench_files.h"

namespace qcr {
namespace {

constexpr size_t kSizes[] = {512, 4096, 32768, 262144};
constexpr int kSizeCount = 4;
constexpr int kWriters = 3;
constexpr int kBackToBack = 400;  // writes per figure without idle time
constexpr int kAfterIdle = 150;   // writes per figure with 1 or 10 ms idle before each
constexpr int kPasses = 5;       // the series above are taken in this many shares
constexpr int kRoundTrips = 4000;  // per pass
constexpr size_t kMessage = 64;   // a small request or reply with its header
constexpr int kWaitMs = 10000;    // any single wait; the run fails instead of hanging
constexpr int kFileMode = 0600;

double now() { return systemClock().now(); }

struct Figure {
  double medianUs = -1;
  double p99Us = -1;
};

Figure summarise(std::vector<double> seconds) {
  if (seconds.empty()) return {};
  std::sort(seconds.begin(), seconds.end());
  const size_t n = seconds.size();
  const size_t p99 = std::min(n - 1, (n * 99 + 99) / 100 - 1);
  return {seconds[n / 2] * 1e6, seconds[p99] * 1e6};
}

// One timed overwriteFile of data; negative when the write failed.
double timedWrite(const std::string& path, std::string_view data) {
  const double start = now();
  if (overwriteFile(path, data, kFileMode) != 0) return -1;
  return now() - start;
}

// count writes of data to path, each after idleSeconds without disk activity.
std::vector<double> writeSeries(const std::string& path, std::string_view data, int count,
                                double idleSeconds) {
  std::vector<double> times;
  if (timedWrite(path, data) < 0) return times;  // the file exists before timing starts
  for (int i = 0; i < count; ++i) {
    if (idleSeconds > 0) systemClock().sleepUntil(now() + idleSeconds);
    const double t = timedWrite(path, data);
    if (t < 0) return {};
    times.push_back(t);
  }
  return times;
}

// Three writers on three files in lockstep: each round starts them together, as
// an accept message sets a leader and its followers writing at once. Writer 0
// stands for the leader. timesP[w][round] gets each write's time.
bool writeTogether(const std::string& dir, std::string_view data, int rounds,
                   std::vector<double> (*timesP)[kWriters]) {
  std::barrier start(kWriters);
  bool ok[kWriters] = {true, true, true};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      const std::string path = dir + "/writer" + std::to_string(w);
      ok[w] = timedWrite(path, data) >= 0;
      for (int r = 0; r < rounds; ++r) {
        start.arrive_and_wait();
        const double t = ok[w] ? timedWrite(path, data) : -1;
        ok[w] = ok[w] && t >= 0;
        (*timesP)[w].push_back(t);
      }
    });
  }
  for (auto& t : threads) t.join();
  return ok[0] && ok[1] && ok[2];
}

// A one-slot hand-off between two threads: put wakes the taker.
class Mailbox {
 public:
  void put(bool message) {
    std::lock_guard<std::mutex> lock(mutex_);
    full_ = true;
    message_ = message;
    cv_.notify_one();
  }
  // The message, or false when none came within kWaitMs.
  bool take() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cv_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [this] { return full_; })) {
      return false;
    }
    full_ = false;
    return message_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool full_ = false;
  bool message_ = false;
};

struct SocketPair {
  int client = -1;
  int server = -1;
  ~SocketPair() {
    closeSocket(client);
    closeSocket(server);
  }
};

int connectPair(SocketPair* pairP) {
  int listenSock = -1, port = 0;
  int rc = listenSocket(ipv4Address(0x7F000001, 0), &listenSock, &port);
  if (rc != 0) return rc;
  const PeerAddress address = ipv4Address(0x7F000001, port);
  rc = openStreamSocket(address, &pairP->client);
  if (rc == 0) rc = connectSocket(pairP->client, address, kWaitMs);
  PeerAddress peer;
  if (rc == 0) rc = acceptSocket(listenSock, kWaitMs, &pairP->server, &peer);
  if (rc == 0) rc = setNoDelay(pairP->client);
  if (rc == 0) rc = setNoDelay(pairP->server);
  closeSocket(listenSock);
  return rc;
}

// kRoundTrips round trips of a kMessage-byte message over loopback TCP. With
// handOff, the thread that receives on each side passes the message to another
// thread through a Mailbox, and that thread sends the next one, as a server's
// connection thread passes a request to the thread that decides it. Every thread
// runs the same count, so none needs telling when to stop; after a failure the
// others give up at their next wait's end.
std::vector<double> roundTrips(bool handOff) {
  SocketPair pair;
  if (connectPair(&pair) != 0) return {};
  Mailbox toWorker, toCaller;
  std::thread serverIo([&] {
    char buf[kMessage] = {};
    for (int i = 0; i < kRoundTrips; ++i) {
      const bool got = fullRecv(pair.server, buf, kMessage, kWaitMs) == 0;
      if (handOff) toWorker.put(got);
      if (!got || (!handOff && fullSend(pair.server, buf, kMessage, kWaitMs) != 0)) break;
    }
  });
  std::thread serverWorker([&] {
    const char buf[kMessage] = {};
    for (int i = 0; handOff && i < kRoundTrips; ++i) {
      if (!toWorker.take() || fullSend(pair.server, buf, kMessage, kWaitMs) != 0) break;
    }
  });
  std::thread clientIo([&] {
    char buf[kMessage] = {};
    for (int i = 0; handOff && i < kRoundTrips; ++i) {
      const bool got = fullRecv(pair.client, buf, kMessage, kWaitMs) == 0;
      toCaller.put(got);
      if (!got) break;
    }
  });
  std::vector<double> times;
  char buf[kMessage] = {};
  for (int i = 0; i < kRoundTrips; ++i) {
    const double start = now();
    if (fullSend(pair.client, buf, kMessage, kWaitMs) != 0) break;
    const bool back =
        handOff ? toCaller.take() : fullRecv(pair.client, buf, kMessage, kWaitMs) == 0;
    if (!back) break;
    times.push_back(now() - start);
  }
  serverIo.join();
  serverWorker.join();
  clientIo.join();
  if (times.size() < static_cast<size_t>(kRoundTrips)) times.clear();
  return times;
}

std::string cell(const Figure& f) {
  char text[32];
  if (f.medianUs < 0) return "failed";
  snprintf(text, sizeof text, "%.0f / %.0f", f.medianUs, f.p99Us);
  return text;
}

// The single-writer series: back to back, after 1 ms and 10 ms idle, and back to
// back while another thread keeps a CPU busy. The last one is there because an
// otherwise idle virtual machine may notice the disk's completion only at its next
// timer tick, which a busy CPU (as a server under load has) does not wait for.
constexpr int kSeries = 4;
constexpr double kIdleSeconds[kSeries] = {0, 0.001, 0.010, 0};
constexpr const char* kSeriesNames[kSeries] = {"back to back", "1 ms idle", "10 ms idle",
                                               "CPU kept busy"};

// Raw times of one file size, gathered over several passes.
struct SizeSamples {
  std::vector<double> series[kSeries];
  std::vector<double> together[kWriters];
};

struct SizeFigures {
  Figure series[kSeries];
  Figure together;       // every write of the three writers
  Figure leader;         // writer 0 alone
  Figure followerFirst;  // the faster of writers 1 and 2, per round
};

// Keeps one CPU busy until it is destroyed.
class Spinner {
 public:
  Spinner() : thread_([this] {
    while (!stop_.load(std::memory_order_relaxed)) {
    }
  }) {}
  ~Spinner() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// One pass over a size: a share of each series, so that a disturbance from other
// work on the machine falls on all of them alike instead of on one column.
int measurePass(const std::string& dir, size_t size, SizeSamples* samplesP) {
  std::string data(size, '\0');
  fillPattern(reinterpret_cast<uint8_t*>(data.data()), size, size);
  for (int i = 0; i < kSeries; ++i) {
    const int count = (kIdleSeconds[i] == 0 ? kBackToBack : kAfterIdle) / kPasses;
    std::optional<Spinner> spinner;
    if (i == kSeries - 1) spinner.emplace();
    const std::vector<double> t = writeSeries(dir + "/single", data, count, kIdleSeconds[i]);
    if (t.empty()) return 5;
    samplesP->series[i].insert(samplesP->series[i].end(), t.begin(), t.end());
  }
  return writeTogether(dir, data, kBackToBack / kPasses, &samplesP->together) ? 0 : 5;
}

SizeFigures summariseSize(const SizeSamples& samples) {
  SizeFigures figs;
  for (int i = 0; i < kSeries; ++i) figs.series[i] = summarise(samples.series[i]);
  std::vector<double> all, firstFollower;
  for (const auto& t : samples.together) all.insert(all.end(), t.begin(), t.end());
  for (size_t r = 0; r < samples.together[0].size(); ++r) {
    firstFollower.push_back(std::min(samples.together[1][r], samples.together[2][r]));
  }
  figs.together = summarise(all);
  figs.leader = summarise(samples.together[0]);
  figs.followerFirst = summarise(firstFollower);
  return figs;
}

void printLimit(const SizeFigures (&figs)[kSizeCount], const Figure& trip) {
  printf("one synod at a time: max(leader write, round trip + first follower write),\n"
         "all three writing at once; medians (p99s) and the rate they allow:\n");
  printf("  %-10s %13s %16s %12s %18s\n", "bytes", "leader (us)", "rtt+follower", "synod (us)",
         "synods/s");
  for (int i = 0; i < kSizeCount; ++i) {
    const SizeFigures& f = figs[i];
    const double median = std::max(f.leader.medianUs, trip.medianUs + f.followerFirst.medianUs);
    const double p99 = std::max(f.leader.p99Us, trip.p99Us + f.followerFirst.p99Us);
    char leader[32], other[32], synod[32];
    snprintf(leader, sizeof leader, "%.0f (%.0f)", f.leader.medianUs, f.leader.p99Us);
    snprintf(other, sizeof other, "%.0f (%.0f)", trip.medianUs + f.followerFirst.medianUs,
             trip.p99Us + f.followerFirst.p99Us);
    snprintf(synod, sizeof synod, "%.0f (%.0f)", median, p99);
    printf("  %-10zu %13s %16s %12s %10.0f (%.0f)\n", kSizes[i], leader, other, synod,
           1e6 / median, 1e6 / p99);
  }
}

int run() {
  std::string dir;
  int rc = makeTempDir("qcr_fsync_bench_", &dir);
  if (rc != 0) return rc;
  SizeSamples samples[kSizeCount];
  std::vector<double> plainTimes, handedTimes;
  for (int pass = 0; rc == 0 && pass < kPasses; ++pass) {
    for (int i = 0; rc == 0 && i < kSizeCount; ++i) rc = measurePass(dir, kSizes[i], &samples[i]);
    for (const bool handOff : {false, true}) {
      const std::vector<double> t = roundTrips(handOff);
      auto& into = handOff ? handedTimes : plainTimes;
      into.insert(into.end(), t.begin(), t.end());
      if (rc == 0 && t.empty()) rc = 5;
    }
  }
  (void)removeTree(dir);
  if (rc != 0) return rc;
  SizeFigures figs[kSizeCount];
  for (int i = 0; i < kSizeCount; ++i) figs[i] = summariseSize(samples[i]);
  const Figure plain = summarise(plainTimes);
  const Figure handed = summarise(handedTimes);

  printf("in-place write + fdatasync in %s, median / p99 (us):\n", dir.c_str());
  printf("  %-8s", "bytes");
  for (const char* name : kSeriesNames) printf(" %15s", name);
  printf(" %18s\n", "3 writers at once");
  for (int i = 0; i < kSizeCount; ++i) {
    printf("  %-8zu", kSizes[i]);
    for (const Figure& f : figs[i].series) printf(" %15s", cell(f).c_str());
    printf(" %18s\n", cell(figs[i].together).c_str());
  }
  printf("loopback TCP round trip of %zu bytes, median / p99 (us), %d round trips:\n", kMessage,
         kRoundTrips * kPasses);
  printf("  %-40s %14s\n", "thread to thread", cell(plain).c_str());
  printf("  %-40s %14s\n", "with a condition-variable hand-off each side", cell(handed).c_str());
  printLimit(figs, handed);
  return 0;
}

}  // namespace
}  // namespace qcr

int main() { return qcr::run() == 0 ? 0 : 1; }
