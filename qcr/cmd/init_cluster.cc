#include "qcr/cmd/init_cluster.h"

#include <algorithm>
#include <cstdio>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/client/client.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/list_files.h"
#include "qcr/data/paxos_config.h"
#include "qcr/data/repo_paths.h"
#include "qcr/data/shared_disks.h"

namespace qcr {

namespace {

constexpr double kCommitBudgetSeconds = 30.0;
constexpr int kHelloMs = 2000;
constexpr int kWaitMs = 12000;  // a change may wait for a new leader

// Commits content as the repository file name through the servers.
int commitFile(Client& client, const std::string& dir, const std::string& name,
               const std::string& content) {
  const std::string path = dir + "/" + name;
  int rc = writeFile(path, content, 0644, false);
  RequestResult result;
  if (rc == 0) rc = client.FPUT(name, path, -1, -1, 0, &result);
  (void)removeFile(path);
  return rc;
}

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
  DiskList disks;
  for (const std::string& path : diskPaths) {
    disks.push_back({static_cast<int32_t>(disks.size()) + 1, 0, path});
  }
  const InitRequest req = makeInitRequest(clusterId, nodes, disks, minQuorum);
  if (!disks.empty()) {
    // Every slot starts from the initial state, before any server can use a disk.
    const int slots = static_cast<int>(std::min<size_t>(nodes.size(), MaxPaxosSlots));
    const int rc = InitSharedDisks(nodes, disks, req.dblock, slots, clusterId);
    if (rc != 0) {
      fprintf(stderr, "disk initialisation failed (err %d)\n", rc);
      return rc;
    }
    printf("initialize %zu disks successful\n", disks.size());
  }
  for (const NodeEntry& node : nodes) {
    const int rc = client.INIT(node.id, req);
    if (rc != 0) {
      fprintf(stderr, "initialize %s failed (err %d)\n", node.toString().c_str(), rc);
      return rc;
    }
    printf("initialize %s successful\n", node.toString().c_str());
  }
  std::string dir;
  int rc = makeTempDir("qcrd-init-", &dir);
  if (rc != 0) return rc;
  rc = commitFile(client, dir, "qcr.nodes", nodeListText(nodes));
  if (rc != 0) fprintf(stderr, "node list commit failed (err %d)\n", rc);
  if (rc == 0) {
    rc = commitFile(client, dir, "qcr.disks", diskListText(disks));
    if (rc != 0) fprintf(stderr, "disk list commit failed (err %d)\n", rc);
  }
  (void)removeTree(dir);
  if (rc == 0) {
    printf("cluster %llu initialised: %zu nodes\n", static_cast<unsigned long long>(clusterId),
           nodes.size());
  }
  return rc;
}

}  // namespace qcr
