#include "qcr/cmd/init_cluster.h"

#include <cstdio>

#include "qcr/client/client.h"
#include "qcr/cmd/repo_init.h"
#include "qcr/comm/connect.h"

namespace qcr {

namespace {

constexpr double kCommitBudgetSeconds = 30.0;
constexpr int kHelloMs = 2000;
constexpr int kWaitMs = 12000;  // a change may wait for a new leader

}  // namespace

int InitCluster(const NodeList& nodes, uint64_t clusterId, const std::vector<std::string>& diskPaths,
                int minQuorum, const std::string& keysDir) {
  for (const NodeEntry& n : nodes) {
    PeerAddress address;
    const int rc = resolve(n.addr, n.port, &address);
    if (rc != 0) {
      fprintf(stderr, "Unknown host '%s'\n", n.addr.c_str());
      return rc;
    }
  }
  Session session;
  if (const int rc = serversSession(nodes, &session); rc != 0) return rc;
  session.retryBudgetSeconds = kCommitBudgetSeconds;
  session.handshakeTimeoutMs = kHelloMs;
  session.waitMs = kWaitMs;
  Client client(std::move(session));
  // Authenticated with the keys of keysDir, else not at all.
  client.security().setSecurityOff(keysDir.empty() ? 1 : 0);
  if (!keysDir.empty()) {
    if (const int rc = client.security().startup(true, keyFilePaths(keysDir)); rc != 0) {
      fprintf(stderr, "security initialization failed (err %d)\n", rc);
      return rc;
    }
  }
  RepositoryPlan plan;
  plan.clusterId = clusterId;
  plan.nodes = nodes;
  plan.minQuorumNodes = minQuorum;
  for (const std::string& path : diskPaths) {
    plan.disks.push_back({static_cast<int32_t>(plan.disks.size()) + 1, 0, path});
  }
  const int rc = initRepository(client, plan);
  if (rc == 0) {
    printf("cluster %llu initialised: %zu nodes\n", static_cast<unsigned long long>(clusterId),
           nodes.size());
  }
  return rc;
}

}  // namespace qcr
