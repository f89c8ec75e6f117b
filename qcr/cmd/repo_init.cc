#include "qcr/cmd/repo_init.h"

#include <cstdio>
#include <vector>

#include "basic/log.h"
#include "qcr/client/auth_keys.h"
#include "qcr/cmd/member_requests.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/file_names.h"
#include "qcr/data/paxos_config.h"
#include "qcr/data/shared_disks.h"
#include "qcr/transfer/transfer_copy.h"

namespace qcr {
namespace {

// The list files are made anew for the repository's nodes and disks.
bool isListFile(int32_t objId) { return objId == kNodesFileObjId || objId == kDisksFileObjId; }

// Authentication of the repository's nodes: with security off every node counts.
// With it on, a client with files gives every node its key files (made first
// when it has none), as auth does; a client without files brings keys loaded
// from elsewhere, which the servers must hold already: a node counts once a
// connection to it passed the exchange (its status answered).
int initAuthentication(Client& client, const NodeList& nodes, int* successP) {
  *successP = 0;
  if (!client.security().enabled()) {
    *successP = static_cast<int>(nodes.size());
    return 0;
  }
  if (client.keepsFiles()) return AuthInit(client, nodes, successP);
  if (!client.security().ready()) return E_NO_SECURITY;
  int last = 0;
  for (const NodeEntry& node : nodes) {
    PeerAddress address;
    int status = 0;
    int rc = resolve(node.addr, node.port, &address);
    if (rc == 0) rc = client.STATUS(address, &status);
    if (rc != 0) {
      qcrLog(1, "authentication of %s failed (%d)", node.toString().c_str(), rc);
      last = rc;
    } else {
      ++*successP;
    }
  }
  return last;
}

// Copies each committed file of the archive to every node, each node on its own
// (a node that is down does not keep the file from the others). A file counts
// when enough nodes took it. A node that already serves a repository answers
// EEXIST: it gets its files from its peers, and init tells whether it is ours.
int copyRestoredFiles(Client& client, const RepositoryPlan& plan, int* copiedP, int* totalP) {
  std::vector<CommittedFile> files;
  *copiedP = 0;
  *totalP = 0;
  const std::string dir = plan.restoreDir + "/committed";
  int rc = readCommittedDir(dir, &files);
  if (rc != 0) return rc;
  ConnectParams params;
  params.security = &client.security();
  params.handshakeTimeoutMs = client.repoSession().handshakeTimeoutMs;
  params.waitMs = client.repoSession().waitMs;
  const int numOfNodes = static_cast<int>(plan.nodes.size());
  const int numOfDisks = static_cast<int>(plan.disks.size());
  int result = 0;
  for (const CommittedFile& f : files) {
    const auto it = plan.restored.files.find(f.objId);
    // Only the current version of each file of the state travels.
    if (isListFile(f.objId) || it == plan.restored.files.end() ||
        it->second.version != f.version || it->second.uid != f.uid) {
      continue;
    }
    ++*totalP;
    const std::string path = dir + "/" + f.fileName;
    qcrLog(4, "CpFilesToNodes: try to copy file '%s' to %d quorum nodes", f.fileName.c_str(),
           numOfNodes);
    int success = 0;
    int last = 0;
    for (const NodeEntry& node : plan.nodes) {
      PeerAddress address;
      int one = 0;
      rc = resolve(node.addr, node.port, &address);
      if (rc == 0) rc = copyFileToNodes(path, kRestoreDestination, {address}, params, &one);
      if (rc == EEXIST) rc = 0, one = 1;
      if (rc != 0) last = rc;
      success += one;
    }
    qcrLog(4, "CpFilesToNodes: copied file '%s' to %d of %d quorum nodes (%d)",
           f.fileName.c_str(), success, numOfNodes, last);
    rc = checkForQuorumAndReset(numOfNodes, numOfDisks, plan.minQuorumNodes, success,
                                last != 0 ? last : E_MAX_RETRIES);
    if (rc != 0) {
      qcrLog(1, "CpFilesToNodes: copy file '%s' to quorum nodes failed (%d-%d)",
             f.fileName.c_str(), rc, success);
      if (result == 0) result = rc;
    } else {
      ++*copiedP;
    }
  }
  return result;
}

}  // namespace

int checkForQuorumAndReset(int numOfNodes, int numOfDisks, int minNodes, int successNodes,
                           int lastErr) {
  const bool stands =
      2 * successNodes <= numOfNodes && (numOfDisks == 0 || successNodes < minNodes);
  const int result = stands ? lastErr : 0;
  qcrLog(4, "checkForQuorumAndReset: numOfNodes %d numOfDisks %d minNodes %d successNodes %d "
            "lastErr: %d reset: %d",
         numOfNodes, numOfDisks, minNodes, successNodes, lastErr,
         !stands && lastErr != 0 ? 1 : 0);
  return result;
}

PaxosDblockSummary initialRepositoryState(const RepositoryPlan& plan) {
  PaxosDblockSummary dblock =
      makeInitRequest(plan.clusterId, plan.nodes, plan.disks, plan.minQuorumNodes).dblock;
  if (!plan.fromArchive) return dblock;
  CommittedState& c = dblock.committed;
  c.values = plan.restored.values;
  c.maxDeletedValueVersion = plan.restored.maxDeletedValueVersion;
  c.maxDeletedFileVersion = plan.restored.maxDeletedFileVersion;
  for (const auto& [objId, record] : plan.restored.files) {
    if (!isListFile(objId)) c.files.emplace(objId, record);
  }
  return dblock;
}

int initRepository(Client& client, const RepositoryPlan& plan) {
  const int numOfNodes = static_cast<int>(plan.nodes.size());
  const int numOfDisks = static_cast<int>(plan.disks.size());
  const int minNodes = plan.minQuorumNodes;
  // Partial success counts only when restoring; otherwise every node must succeed.
  const auto judge = [&](int success, int rc) {
    return plan.fromArchive ? checkForQuorumAndReset(numOfNodes, numOfDisks, minNodes, success, rc)
                            : rc;
  };
  const PaxosDblockSummary dblock = initialRepositoryState(plan);
  qcrLog(4, "dblk: %s", dblock.toString().c_str());

  int rc = client.storeLocalNodeList(plan.nodes);
  if (rc != 0) {
    fprintf(stderr, "failed to save node list (err %d)\n", rc);
    return rc;
  }
  // The servers are asked in the new list's order from here on.
  (void)client.PaxosInit(true);
  int success = 0;
  rc = judge(success, initAuthentication(client, plan.nodes, &success));
  if (rc != 0) {
    fprintf(stderr, "authentication initialization failed (err %d)\n", rc);
    return rc;
  }
  if (!plan.disks.empty()) {
    rc = InitSharedDisks(plan.nodes, plan.disks, dblock, MaxPaxosSlots, plan.clusterId);
    if (rc != 0) {
      fprintf(stderr, "disk initialization failed (err %d)\n", rc);
      return rc;
    }
  }
  if (plan.fromArchive) {
    int copied = 0;
    int total = 0;
    rc = copyRestoredFiles(client, plan, &copied, &total);
    qcrLog(4, "InitCommand: transfered %d of %d committed file(s) to quorum nodes", copied, total);
    if (rc != 0) {
      fprintf(stderr, "Transfer committed files to a majority of quorum nodes failed (err %d)\n", rc);
      return rc;
    }
  }
  success = 0;
  rc = initServers(client, plan.clusterId, plan.nodes, plan.nodes, dblock, &success);
  rc = judge(success, rc);
  if (rc != 0) {
    fprintf(stderr, "server initialization failed (err %d)\n", rc);
    return rc;
  }
  rc = commitNodeList(client, plan.nodes, 0);
  if (rc != 0) {
    fprintf(stderr, "node list commit failed (err %d)\n", rc);
    return rc;
  }
  rc = commitDiskList(client, plan.disks);
  if (rc != 0) {
    fprintf(stderr, "disk list commit failed (err %d)\n", rc);
    return rc;
  }
  return 0;
}

}  // namespace qcr
