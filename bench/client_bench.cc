// Whole-process latency of `vyqcr vget` and `vyqcr vput` against a local cluster of
// three qcrd servers, measured with hyperfine in one run beside the floor (one
// connect and one request-reply round trip, rpc_floor) and beside `etcdctl get`
// and `etcdctl put` against a local three-member etcd cluster.
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/process.h"
#include "basic/tempdir.h"
#include "bench/local_servers.h"

namespace qcr::bench {
namespace {

constexpr int kServers = 3;

// A client base directory for the qcrd cluster at addresses (first kServers).
int makeClientBase(const std::string& dir, const std::vector<PeerAddress>& addresses) {
  std::string nodes;
  for (int i = 0; i < kServers; ++i) {
    nodes += std::to_string(i + 1) + ",0,127.0.0.1," + std::to_string(addresses[i].port) + ",n" +
             std::to_string(i + 1) + "\n";
  }
  int rc = writeFile(dir + "/qcr.nodes", nodes, 0644, false);
  if (rc == 0) rc = writeFile(dir + "/qcr.noauth", std::string("\1\0\0\0", 4), 0644, false);
  if (rc == 0) rc = makeDirectory(dir + "/committed", 0755);
  return rc;
}

int runQuiet(const std::vector<std::string>& argv) {
  CapturedRun run;
  const int rc = runCaptured(argv, environmentEntries(), 60000, &run);
  if (rc != 0) return rc;
  if (run.status.exitCode != 0) fprintf(stderr, "%s: %s", argv[0].c_str(), run.err.c_str());
  return run.status.exitCode == 0 ? 0 : EIO;
}

struct Timing {
  double mean = 0;
  double median = 0;
};

// Prints "name  mean  stddev  median  min  max" (ms) for each line of hyperfine's
// CSV; returns the timings in the order of names (zero for a line that is missing).
std::vector<Timing> printCsv(const std::string& csv, const std::vector<std::string>& names) {
  std::istringstream lines(csv);
  std::string line;
  std::getline(lines, line);  // header
  printf("%-28s %9s %9s %9s %9s %9s\n", "command (ms)", "mean", "stddev", "median", "min", "max");
  std::vector<Timing> timings(names.size());
  for (size_t i = 0; i < names.size() && std::getline(lines, line); ++i) {
    std::vector<double> f;
    std::istringstream fields(line.substr(line.find(',') + 1));  // commands hold no comma
    for (std::string field; std::getline(fields, field, ',');) {
      if (!field.empty()) f.push_back(std::atof(field.c_str()) * 1000);
    }
    if (f.size() < 7) continue;  // mean, stddev, median, user, system, min, max
    printf("%-28s %9.2f %9.2f %9.2f %9.2f %9.2f\n", names[i].c_str(), f[0], f[1], f[2], f[5], f[6]);
    timings[i] = {f[0], f[2]};
  }
  return timings;
}

// The targets as ratios, of the means and of the medians (the median shrugs off
// the odd run that a busy machine stretches): vget against the floor, etcdctl
// against vyqcr.
void printRatios(const std::vector<Timing>& t) {
  if (t.size() < 5 || t[0].mean <= 0 || t[1].mean <= 0 || t[3].mean <= 0) return;
  const char* format =
      "%-8s vyqcr vget / floor %.2f; etcdctl get / vyqcr vget %.1f; etcdctl put / vyqcr vput %.1f\n";
  printf(format, "means:", t[1].mean / t[0].mean, t[2].mean / t[1].mean, t[4].mean / t[3].mean);
  printf(format, "medians:", t[1].median / t[0].median, t[2].median / t[1].median,
         t[4].median / t[3].median);
}

int run() {
  const std::string bin = QCR_BIN_DIR;
  if (!fileExists("/usr/bin/hyperfine") || !fileExists("/usr/bin/etcdctl")) {
    fprintf(stderr, "client_bench needs hyperfine and etcdctl (scripts/install-deps)\n");
    return 1;
  }
  LocalServers servers;
  std::string dir;
  int rc = servers.startQcrd(bin, kServers);
  if (rc == 0) rc = servers.startEtcd(kServers);
  if (rc == 0) rc = makeTempDir("qcr-client-bench-", &dir);
  if (rc == 0) rc = makeClientBase(dir, servers.clientAddresses());
  if (rc != 0) {
    fprintf(stderr, "client_bench: starting the clusters failed (%d)\n", rc);
    return 1;
  }
  setenv("QCR_BASE", dir.c_str(), 1);
  const std::string endpoints =
      "--endpoints=127.0.0.1:" + std::to_string(servers.clientAddresses()[kServers].port);
  const std::string etcd = "/usr/bin/etcdctl " + endpoints;
  const std::string floor = bin + "/rpc_floor " + std::to_string(servers.clientAddresses()[0].port);
  const std::vector<std::pair<std::string, std::string>> commands = {
      {"rpc_floor (1 round trip)", floor},
      {"vyqcr vget", bin + "/vyqcr vget k"},
      {"etcdctl get", etcd + " get k"},
      {"vyqcr vput", bin + "/vyqcr vput k v"},
      {"etcdctl put", etcd + " put k v"}};
  rc = runQuiet({bin + "/vyqcr", "vput", "k", "v"});
  if (rc == 0) rc = runQuiet({"/usr/bin/etcdctl", endpoints, "put", "k", "v"});
  const std::string csv = dir + "/results.csv";
  std::vector<std::string> argv = {"/usr/bin/hyperfine", "-N", "--warmup", "5", "--runs", "100",
                                   "--style", "none", "--export-csv", csv};
  std::vector<std::string> names;
  for (const auto& [name, line] : commands) {
    argv.push_back(line);
    names.push_back(name);
  }
  if (rc == 0) rc = runQuiet(argv);
  std::string text;
  if (rc == 0) rc = readFile(csv, &text);
  if (rc == 0) printRatios(printCsv(text, names));
  (void)removeTree(dir);
  if (rc != 0) fprintf(stderr, "client_bench failed (%d)\n", rc);
  return rc == 0 ? 0 : 1;
}

}  // namespace
}  // namespace qcr::bench

int main() { return qcr::bench::run(); }
