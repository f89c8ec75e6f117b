// qcrd_bench: change and read latency and changes per second of a local qcrd
// cluster, beside an etcd cluster of the same size started in the same run, both on
// loopback, each request on a new connection (as the QCR tool makes them).
//
//   qcrd_bench [--nodes N] [--ops N] [--clients K,K,...] [--seconds T] [--no-etcd]
//
// For each number of clients (1, 4, 16 and 64 unless --clients says otherwise) it
// prints the changes per second of that many clients putting at once, and the
// median and 99th percentile of their changes' latencies.
//
// Needs qcrd beside this program and, for the comparison, /usr/bin/etcd (Debian's
// etcd-server; scripts/install-deps --bench installs it).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "basic/background.h"
#include "basic/files.h"
#include "bench/etcd_client.h"
#include "bench/local_servers.h"
#include "qcr/client/client.h"

namespace qcr::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Op = std::function<int(int worker, int i)>;

struct Settings {
  int nodes = 3, ops = 200;
  std::vector<int> clients = {1, 4, 16, 64};
  double seconds = 5;
  bool etcd = true;
};

// Changes per second of some clients at once, and their latencies.
struct Load {
  double rate = 0, median = 0, p99 = 0;
};

struct Figures {
  double putMedian = 0, putP99 = 0, readLeader = 0, readFollower = 0;
  std::vector<Load> loads;  // one per Settings::clients
  int errors = 0;
  std::vector<std::string> synodTimes;  // each qcrd server's breakdown
};

double percentile(const std::vector<double>& sorted, int pc) {
  if (sorted.empty()) return 0;
  return sorted[std::min(sorted.size() - 1, sorted.size() * pc / 100)];
}

// Median and 99th percentile in ms of n runs of op.
void latency(const Op& op, int n, double* medianP, double* p99P, int* errorsP) {
  std::vector<double> ms;
  for (int i = 0; i < n; ++i) {
    const auto t0 = Clock::now();
    if (op(0, i) != 0) ++*errorsP;
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  std::sort(ms.begin(), ms.end());
  *medianP = percentile(ms, 50);
  if (p99P != nullptr) *p99P = percentile(ms, 99);
}

// Operations per second of `workers` threads running op for seconds, and the
// latencies of those operations.
Load rate(const Op& op, int workers, double seconds, int* errorsP) {
  std::atomic<int> errors{0};
  std::vector<std::vector<double>> ms(workers);
  const auto until = Clock::now() + std::chrono::duration<double>(seconds);
  std::vector<std::thread> threads;
  const auto t0 = Clock::now();
  for (int w = 0; w < workers; ++w) {
    threads.emplace_back([&, w] {
      nameThisThread("bench-client");
      for (int i = 0; Clock::now() < until; ++i) {
        const auto start = Clock::now();
        if (op(w, i) != 0) ++errors;
        ms[w].push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      }
    });
  }
  for (std::thread& t : threads) t.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
  *errorsP += errors;
  std::vector<double> all;
  for (const std::vector<double>& v : ms) all.insert(all.end(), v.begin(), v.end());
  std::sort(all.begin(), all.end());
  return {static_cast<double>(all.size()) / elapsed, percentile(all, 50), percentile(all, 99)};
}

// A client without files of the servers at addresses (node ids 1, 2, ...), as
// qcrd's tests make them: unsecured, requests bounded to 10 s.
std::unique_ptr<Client> clientOf(const std::vector<PeerAddress>& addresses) {
  NodeList nodes;
  for (size_t i = 0; i < addresses.size(); ++i) {
    nodes.push_back({static_cast<int32_t>(i) + 1, 0, "node", ipText(addresses[i]),
                     addresses[i].port});
  }
  Session session;
  if (serversSession(nodes, &session) != 0) return nullptr;
  session.retryBudgetSeconds = 10;
  session.handshakeTimeoutMs = 2000;
  session.waitMs = 12000;
  auto client = std::make_unique<Client>(std::move(session));
  client->security().setSecurityOff(1);
  return client;
}

std::string key(int worker, int i) { return "k" + std::to_string(worker) + "-" + std::to_string(i % 10); }
const std::string kValue = "value-0123456789";

Figures measure(const Settings& s, const Op& put, const Op& readLeader, const Op& readFollower) {
  Figures f;
  latency(put, s.ops, &f.putMedian, &f.putP99, &f.errors);
  latency(readLeader, s.ops, &f.readLeader, nullptr, &f.errors);
  latency(readFollower, s.ops, &f.readFollower, nullptr, &f.errors);
  for (int k : s.clients) f.loads.push_back(rate(put, k, s.seconds, &f.errors));
  return f;
}

Figures measureQcrd(const Settings& s, const std::string& binDir, bool* okP) {
  LocalServers servers;
  *okP = servers.startQcrd(binDir, s.nodes) == 0;
  if (!*okP) return {};
  const std::vector<PeerAddress>& all = servers.clientAddresses();
  RequestResult state;
  const std::unique_ptr<Client> probe = clientOf(all);
  *okP = probe && probe->VGET(&state) == 0 && state.state.leaderId >= 1;
  if (!*okP) return {};
  const PeerAddress leader = all[state.state.leaderId - 1];
  const PeerAddress follower = all[state.state.leaderId % all.size()];
  std::vector<std::unique_ptr<Client>> writers;
  const int most = *std::max_element(s.clients.begin(), s.clients.end());
  for (int w = 0; w < most; ++w) writers.push_back(clientOf({leader}));
  const std::unique_ptr<Client> viaLeader = clientOf({leader}), viaFollower = clientOf({follower});
  Figures f = measure(
      s,
      [&](int w, int i) {
        RequestResult r;
        return writers[w]->VPUT(key(w, i), kValue, -1, -1, &r);
      },
      [&](int, int) { RequestResult r; return viaLeader->VGET(&r); },
      [&](int, int) { RequestResult r; return viaFollower->VGET(&r); });
  f.synodTimes = servers.stopQcrd();
  f.synodTimes.insert(f.synodTimes.begin(), "leader is node " + std::to_string(state.state.leaderId));
  return f;
}

Figures measureEtcd(const Settings& s, bool* okP) {
  LocalServers servers;
  *okP = servers.startEtcd(s.nodes) == 0;
  if (!*okP) return {};
  const PeerAddress first = servers.clientAddresses()[0];
  const PeerAddress second = servers.clientAddresses()[1 % s.nodes];
  // Wait for a leader: the first put that succeeds.
  for (int i = 0; i < 200 && etcdPut(first, "warm-up", "x") != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::string json;
  return measure(
      s, [&](int w, int i) { return etcdPut(first, key(w, i), kValue); },
      [&](int, int i) { std::string j; return etcdGet(first, key(0, i), &j); },
      [&](int, int i) { std::string j; return etcdGet(second, key(0, i), &j); });
}

void print(const Settings& s, const Figures& q, const Figures* e) {
  printf("qcrd_bench: %d servers each on loopback, %d timed ops, each load for %.0f s\n",
         s.nodes, s.ops, s.seconds);
  printf("%-34s %12s %12s\n", "", "qcrd", e ? "etcd 3.4" : "(no etcd)");
  auto row = [&](const char* what, double a, double b) {
    if (e) printf("%-34s %12.2f %12.2f\n", what, a, b);
    else printf("%-34s %12.2f %12s\n", what, a, "-");
  };
  row("change latency, median (ms)", q.putMedian, e ? e->putMedian : 0);
  row("change latency, p99 (ms)", q.putP99, e ? e->putP99 : 0);
  row("read via leader/member 1 (ms)", q.readLeader, e ? e->readLeader : 0);
  row("read via follower/member 2 (ms)", q.readFollower, e ? e->readFollower : 0);
  for (size_t i = 0; i < s.clients.size(); ++i) {
    const Load none;
    const Load& a = q.loads[i];
    const Load& b = e ? e->loads[i] : none;
    char label[64];
    snprintf(label, sizeof label, "%d client%s: changes/s", s.clients[i], s.clients[i] == 1 ? "" : "s");
    row(label, a.rate, b.rate);
    printf("%-34s %5.2f /%5.2f", "  median / p99 latency (ms)", a.median, a.p99);
    if (e) printf(" %5.2f /%5.2f", b.median, b.p99);
    printf("\n");
  }
  printf("failed operations: qcrd %d%s%s\n", q.errors, e ? ", etcd " : "",
         e ? std::to_string(e->errors).c_str() : "");
  if (q.synodTimes.empty()) return;
  printf("qcrd, where the time of all changes above went (%s):\n", q.synodTimes[0].c_str());
  for (size_t i = 1; i < q.synodTimes.size(); ++i) {
    printf("  node %zu: %s\n", i, q.synodTimes[i].empty() ? "-" : q.synodTimes[i].c_str());
  }
}

int run(int argc, char** argv) {
  Settings s;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : "0";
    if (a == "--nodes") s.nodes = atoi(next), ++i;
    else if (a == "--ops") s.ops = atoi(next), ++i;
    else if (a == "--clients") {
      s.clients.clear();
      for (const char* p = next; *p != '\0';) {
        char* end = nullptr;
        s.clients.push_back(static_cast<int>(strtol(p, &end, 10)));
        if (end == p || s.clients.back() < 1) return fprintf(stderr, "qcrd_bench: bad --clients\n"), 1;
        p = *end == ',' ? end + 1 : end;
      }
      ++i;
    }
    else if (a == "--seconds") s.seconds = atof(next), ++i;
    else if (a == "--no-etcd") s.etcd = false;
    else return fprintf(stderr, "usage: qcrd_bench [--nodes N] [--ops N] [--clients K,K,...] [--seconds T] [--no-etcd]\n"), 1;
  }
  if (s.nodes < 1 || s.ops < 1 || s.clients.empty() || s.seconds <= 0) return 1;
  std::string binDir = argv[0];
  binDir = binDir.substr(0, binDir.rfind('/') == std::string::npos ? 0 : binDir.rfind('/'));
  if (binDir.empty()) binDir = ".";
  bool ok = false;
  const Figures q = measureQcrd(s, binDir, &ok);
  if (!ok) return fprintf(stderr, "qcrd_bench: the qcrd cluster did not start\n"), 1;
  Figures e;
  bool etcdOk = s.etcd && fileExists("/usr/bin/etcd");
  if (etcdOk) e = measureEtcd(s, &etcdOk);
  if (s.etcd && !etcdOk) fprintf(stderr, "qcrd_bench: no etcd cluster (install etcd-server)\n");
  print(s, q, etcdOk ? &e : nullptr);
  return 0;
}

}  // namespace
}  // namespace qcr::bench

int main(int argc, char** argv) { return qcr::bench::run(argc, argv); }
