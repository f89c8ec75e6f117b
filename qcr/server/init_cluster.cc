#include "qcr/server/init_cluster.h"

#include <cstdio>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/comm/connect.h"
#include "qcr/coding/result.h"
#include "qcr/data/list_files.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/session.h"
#include "qcr/server/repo_client.h"

namespace qcr {

namespace {

constexpr double kCommitBudgetSeconds = 30.0;

// Commits content as the repository file name through the servers.
int commitFile(RepoClient& client, const std::string& dir, const std::string& name,
               const std::string& content) {
  const std::string path = dir + "/" + name;
  int rc = writeFile(path, content, 0644, false);
  if (rc == 0) rc = client.fput(name, path);
  (void)removeFile(path);
  return rc;
}

}  // namespace

int InitCluster(const NodeList& nodes, uint64_t clusterId) {
  std::vector<PeerAddress> servers;
  for (const NodeEntry& n : nodes) {
    PeerAddress address;
    const int rc = resolve(n.addr, n.port, &address);
    if (rc != 0) {
      fprintf(stderr, "Unknown host '%s'\n", n.addr.c_str());
      return rc;
    }
    servers.push_back(address);
  }
  const InitRequest req = makeInitRequest(clusterId, nodes, DiskList{}, 1);
  RepoClient client(servers, kCommitBudgetSeconds);
  for (size_t i = 0; i < nodes.size(); ++i) {
    const int rc = client.init(i, req);
    if (rc != 0) {
      fprintf(stderr, "initialize %s failed (err %d)\n", nodes[i].toString().c_str(), rc);
      return rc;
    }
    printf("initialize %s successful\n", nodes[i].toString().c_str());
  }
  std::string dir;
  int rc = makeTempDir("qcrd-init-", &dir);
  if (rc != 0) return rc;
  rc = commitFile(client, dir, "qcr.nodes", nodeListText(nodes, kDefaultServerPort));
  if (rc != 0) fprintf(stderr, "node list commit failed (err %d)\n", rc);
  if (rc == 0) {
    rc = commitFile(client, dir, "qcr.disks", diskListText(DiskList{}));
    if (rc != 0) fprintf(stderr, "disk list commit failed (err %d)\n", rc);
  }
  (void)removeTree(dir);
  if (rc == 0) printf("cluster %llu initialised: %zu nodes\n", static_cast<unsigned long long>(clusterId), nodes.size());
  return rc;
}

}  // namespace qcr
