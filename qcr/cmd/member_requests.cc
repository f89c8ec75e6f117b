#include "qcr/cmd/member_requests.h"

#include <cstdio>
#include <map>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "basic/log.h"
#include "qcr/cmd/membership.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/data/list_files.h"

namespace qcr {

namespace {

constexpr bool isTestInstall = QCR_IS_TEST_INSTALL != 0;

uint64_t clusterIdOf(Client& client) {
  const uint64_t id = client.expectedClusterId();
  return id != 0 ? id : client.repoSession().clusterId;
}

// Where a list file waits while it is fetched or put: listTempPath for a client
// with files; a private temporary directory for one without, which has no
// directory of its own. Whatever was made is gone afterwards.
class ListTemp {
 public:
  ListTemp(const Client& client, const char* name) {
    if (client.keepsFiles()) {
      path_ = listTempPath(client.repoSession(), name);
    } else {
      rc_ = makeTempDir("qcr-list-", &dir_);
      if (rc_ == 0) path_ = dir_ + "/" + name;
    }
  }
  ~ListTemp() {
    if (!path_.empty() && fileExists(path_)) (void)removeFile(path_);
    if (!dir_.empty()) (void)removeTree(dir_);
  }
  ListTemp(const ListTemp&) = delete;
  ListTemp& operator=(const ListTemp&) = delete;
  int error() const { return rc_; }
  const std::string& path() const { return path_; }

 private:
  int rc_ = 0;
  std::string dir_;
  std::string path_;
};

// Fetches the committed list file name into its temporary place and reads it with
// read.
template <class List>
int fetchList(Client& client, const char* name, int (*read)(const std::string&, List*),
              CommittedState* stateP, List* listP) {
  const ListTemp temp(client, name);
  if (temp.error() != 0) return temp.error();
  RequestResult result;
  int rc = client.FGET(name, temp.path(), -1, &result);
  if (rc == 0) rc = read(temp.path(), listP);
  if (rc == 0) *stateP = std::move(result.state);
  return rc;
}

// Writes list to its temporary place and puts it as the committed file name.
template <class List>
int putList(Client& client, const char* name, int (*write)(const std::string&, const List&),
            const List& list, int quorumOption) {
  const ListTemp temp(client, name);
  if (temp.error() != 0) return temp.error();
  RequestResult result;
  int rc = write(temp.path(), list);
  if (rc == 0) rc = client.FPUT(name, temp.path(), -1, -1, quorumOption, &result);
  return rc;
}

}  // namespace

std::string listTempPath(const Session& session, const std::string& name) {
  return (isTestInstall ? session.paths.cachedDir : std::string("/tmp")) + "/" + name;
}

int getCurrentNodeList(Client& client, uint64_t* clusterIdP, CommittedState* stateP,
                       NodeList* nodesP) {
  int rc = fetchList(client, kNodesListName, readNodeList, stateP, nodesP);
  // The servers refuse an empty node list; one would leave this tool without any.
  if (rc == 0 && nodesP->empty()) rc = E_NODES_FILE;
  if (rc == 0) rc = client.storeLocalNodeList(*nodesP);
  if (rc != 0) {
    fprintf(stderr, "Failed to retrieve current node list (err %d)\n", rc);
    return rc;
  }
  *clusterIdP = clusterIdOf(client);
  return 0;
}

int getCurrentDiskList(Client& client, uint64_t* clusterIdP, CommittedState* stateP,
                       DiskList* disksP) {
  int rc = fetchList(client, kDisksListName, readDiskList, stateP, disksP);
  Session& s = client.repoSession();
  if (rc == 0 && client.keepsFiles()) rc = writeDiskList(s.paths.disksFile, *disksP);
  if (rc != 0) {
    fprintf(stderr, "Failed to retrieve current disk list (err %d)\n", rc);
    return rc;
  }
  s.diskList = *disksP;
  s.diskListValid = true;
  *clusterIdP = clusterIdOf(client);
  return 0;
}

int commitNodeList(Client& client, const NodeList& nodes, int quorumOption) {
  return putList(client, kNodesListName, writeNodeList, nodes, quorumOption);
}

int commitDiskList(Client& client, const DiskList& disks) {
  return putList(client, kDisksListName, writeDiskList, disks, 0);
}

int verifyQuorum(Client& client, const NodeList& intermediate, const NodeList& next,
                 int required) {
  std::map<int32_t, int> statusById;
  for (const NodeEntry& node : intermediate) {
    PeerAddress address;
    int status = 0;
    int rc = resolve(node.addr, node.port, &address);
    if (rc == 0) rc = client.STATUS(address, &status);
    if (rc != 0) {
      qcrLog(4, "verifyQuorum: node %d status request failed (err %d)", node.id, rc);
      status = 0;
    }
    statusById[node.id] = status;
    qcrLog(4, "verifyQuorum: node %d status %d", node.id, status);
  }
  std::string report;
  const int rc = evaluateQuorum(intermediate, next, statusById, required, &report);
  fputs(report.c_str(), stderr);
  return rc;
}

int initServers(Client& client, uint64_t clusterId, const NodeList& targets,
                const NodeList& nodes, const PaxosDblockSummary& dblock, int* numSuccessP) {
  InitRequest request;
  request.clusterId = clusterId;
  request.nodes = nodes;
  request.dblock = dblock;
  request.config = dblock.committed.config;
  int last = 0;
  int ok = 0;
  for (const NodeEntry& node : targets) {
    PeerAddress address;
    int rc = resolve(node.addr, node.port, &address);
    if (rc == 0) rc = client.INIT(address, request);
    if (rc != 0) {
      fprintf(stderr, "initialize %s failed (err %d)\n", node.toString().c_str(), rc);
      last = rc;
    } else {
      qcrLog(4, "initialize %s successful", node.toString().c_str());
      ++ok;
    }
  }
  qcrLog(4, "initialize successful for %d of %d quorum nodes (%d)", ok,
         static_cast<int>(targets.size()), last);
  if (numSuccessP != nullptr) *numSuccessP = ok;
  return last;
}

int updateConfig(Client& client, const ConfigChange& change, int32_t configVersion,
                 int quorumOption, CommittedState* stateP) {
  RequestResult result;
  const int rc = client.CONFIG(change, configVersion, quorumOption, &result);
  if (rc != 0) {
    fprintf(stderr, "config update failed: err %d\n", rc);
    return rc;
  }
  *stateP = std::move(result.state);
  return 0;
}

}  // namespace qcr
