// The cost of connection authentication on a change: vput latency of a secured
// 3-node qcrd cluster beside an open one, measured in the same run. Each vput
// opens a new connection (the tool keeps none), so a secured vput carries one
// authentication exchange.
//
//   auth_bench [OPS]   (default 300)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "bench/local_servers.h"
#include "qcr/client/auth_keys.h"
#include "qcr/client/client.h"

namespace qcr::bench {
namespace {

struct Latency {
  double median = 0;
  double p99 = 0;
  int errors = 0;
};

std::unique_ptr<Client> clientOf(const PeerAddress& server, const std::string& keysDir) {
  Session session;
  if (serversSession({{1, 0, "node", ipText(server), server.port}}, &session) != 0) return nullptr;
  session.retryBudgetSeconds = 10;
  auto client = std::make_unique<Client>(std::move(session));
  client->security().setSecurityOff(keysDir.empty() ? 1 : 0);
  if (!keysDir.empty() && client->security().startup(false, keyFilePaths(keysDir)) != 0) {
    return nullptr;
  }
  return client;
}

bool measure(const std::string& keysDir, int ops, Latency* l) {
  LocalServers servers;
  if (servers.startQcrd(QCR_BIN_DIR, 3, keysDir) != 0) return false;
  const std::vector<PeerAddress>& all = servers.clientAddresses();
  RequestResult state;
  if (clientOf(all[0], keysDir) == nullptr || clientOf(all[0], keysDir)->VGET(&state) != 0 ||
      state.state.leaderId < 1) {
    return false;
  }
  const std::unique_ptr<Client> client = clientOf(all[state.state.leaderId - 1], keysDir);
  std::vector<double> ms;
  for (int i = 0; i < ops; ++i) {
    RequestResult r;
    const auto t0 = std::chrono::steady_clock::now();
    if (client->VPUT("k" + std::to_string(i % 10), "value", -1, -1, &r) != 0) ++l->errors;
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                     .count());
  }
  std::sort(ms.begin(), ms.end());
  l->median = ms[ms.size() / 2];
  l->p99 = ms[std::min(ms.size() - 1, ms.size() * 99 / 100)];
  return true;
}

}  // namespace
}  // namespace qcr::bench

int main(int argc, char** argv) {
  using namespace qcr;
  const int ops = argc > 1 ? std::max(10, atoi(argv[1])) : 300;
  std::string dir;
  KeyFiles keys;
  if (makeTempDir("qcr-auth-bench-", &dir) != 0 || CreateClusterKeys(99, &keys) != 0 ||
      writeKeyFiles(keyFilePaths(dir), keys) != 0) {
    fprintf(stderr, "auth_bench: cannot make keys (is libssl.so.3 installed?)\n");
    return 1;
  }
  bench::Latency open, secured;
  const bool ok = bench::measure("", ops, &open) && bench::measure(dir, ops, &secured);
  (void)removeTree(dir);
  if (!ok) {
    fprintf(stderr, "auth_bench: a cluster did not start\n");
    return 1;
  }
  printf("vput latency, 3 qcrd nodes, %d ops, new connection per vput\n", ops);
  printf("%-10s %10s %10s %8s\n", "", "median ms", "p99 ms", "errors");
  printf("%-10s %10.3f %10.3f %8d\n", "open", open.median, open.p99, open.errors);
  printf("%-10s %10.3f %10.3f %8d\n", "secured", secured.median, secured.p99, secured.errors);
  printf("authentication adds %.3f ms to the median\n", secured.median - open.median);
  return 0;
}
