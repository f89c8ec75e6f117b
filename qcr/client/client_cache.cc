#include "qcr/client/client_cache.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "basic/log.h"
#include "qcr/client/nodes_file.h"
#include "qcr/comm/connection.h"
#include "qcr/data/file_names.h"
#include "qcr/data/session.h"
#include "qcr/data/state_file.h"

namespace qcr {

namespace {

Clock* testClock = nullptr;

std::string idsText(const std::vector<int>& ids) {
  std::string text = "[";
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(ids[i]);
  }
  return text + "]";
}

bool listens(const PaxosConfig& config, int id) {
  for (const ConfigNodeEntry& e : config.nodes) {
    if (e.nodeId == id) return e.listen;
  }
  return false;
}

int priority(const PaxosConfig& config, int id, int32_t localNodeId, int32_t leaderId,
             bool leaderFirst) {
  const bool flag = listens(config, id);
  if (!leaderFirst) return id == localNodeId ? 3 : (flag ? 2 : 1);
  if (!flag) return 1;
  return id == leaderId ? 100 : 100 - id;
}

}  // namespace

ClientCache& clientCache() {
  static ClientCache cache;
  return cache;
}

Clock& clientClock() { return testClock != nullptr ? *testClock : systemClock(); }
void setClientClock(Clock* clock) { testClock = clock; }

bool asksLeaderFirst(int ordering, bool update) {
  if (ordering == kOrderLocalFirst) return false;
  if (ordering == kOrderLeaderFirst) return true;
  return update;
}

std::vector<int> orderServers(const NodeList& nodes, const PaxosConfig& config,
                              int32_t localNodeId, int32_t leaderId, bool leaderFirst) {
  std::vector<int> ids;
  for (const NodeEntry& node : nodes) ids.push_back(node.id);
  std::sort(ids.begin(), ids.end());
  std::stable_sort(ids.begin(), ids.end(), [&](int a, int b) {
    return priority(config, a, localNodeId, leaderId, leaderFirst) >
           priority(config, b, localNodeId, leaderId, leaderFirst);
  });
  return ids;
}

int32_t nodesFileVersion(const CommittedState& state) {
  const auto iter = state.files.find(kNodesFileObjId);
  return iter == state.files.end() ? -1 : iter->second.version;
}

int PaxosInit(bool update) {
  ClientCache& cache = clientCache();
  const Session& s = session();
  if (const char* env = std::getenv("QCR_SERVER_ORDERING"); env != nullptr) {
    cache.serverOrdering = std::atoi(env);
  }
  cache.serverIds.clear();
  for (const NodeEntry& node : s.nodeList) cache.serverIds.push_back(node.id);
  cache.cachedSeq = -1;
  cache.cachedLeader = -1;
  cache.cachedNodeList.clear();
  cache.nlVersion = -1;

  PaxosLocalFile cached;
  if (const int rc = cached.loadFromFile(s.paths.cachedPaxosFile, &session().clusterId); rc != 0) {
    qcrLog(4, "PaxosInit: cannot load cached state '%s' (err %d)", s.paths.cachedPaxosFile.c_str(),
           rc);
    qcrLog(4, "PaxosInit serverIds: %s", idsText(cache.serverIds).c_str());
    return rc;
  }
  const CommittedState& state = cached.data.dblk.committed;
  cache.serverIds = orderServers(s.nodeList, state.config, s.localNodeId, state.leaderId,
                                 asksLeaderFirst(cache.serverOrdering, update));
  cache.cachedSeq = cached.data.dblk.seq;
  cache.cachedLeader = state.leaderId;
  cache.cachedNodeList = state.config.nodes;
  cache.nlVersion = nodesFileVersion(state);
  qcrLog(4, "PaxosInit: seq %d, leader %d, nl '%s'", cache.cachedSeq, cache.cachedLeader,
         state.config.nodesToString().c_str());
  qcrLog(4, "PaxosInit serverIds: %s", idsText(cache.serverIds).c_str());
  return 0;
}

void updateClientCache(int32_t seq, const CommittedState& state, uint64_t clusterId) {
  ClientCache& cache = clientCache();
  if (seq <= cache.cachedSeq) return;
  const bool leaderChange = cache.cachedLeader != state.leaderId;
  const bool nlChange = cache.cachedNodeList != state.config.nodes;
  // The cached state file records the cluster it belongs to, and loading it made
  // that id known to the session: a connection that reports the same id is no
  // change, and rewriting the file (with its sync) for it would be wasted.
  const bool cidLearnt = clusterId != 0 && cache.clusterId == 0;
  const bool cidChange = cidLearnt && clusterId != session().clusterId;
  if (cidLearnt) {
    cache.clusterId = clusterId;
    // Later connections of this run must reach the same cluster.
    session().clusterId = clusterId;
    setExpectedClusterId(clusterId);
  }
  if (!leaderChange && !nlChange && !cidChange) return;
  qcrLog(2, "updateClientCache: leaderChange %d, nlChange %d, cidChange %d\n", leaderChange,
         nlChange, cidChange);
  if (storeCachedState(seq, state) != 0) return;
  if (nlChange) checkLocalNodesFile(state);
}

int storeCachedState(int32_t seq, const CommittedState& state) {
  PaxosFileData data;
  data.dblk.seq = seq;
  data.dblk.committed = state;
  if (const int rc = storeWithReplacement(data, {session().clusterId, session().localNodeId},
                                             session().paths.cachedPaxosFile); rc != 0) {
    qcrLog(1, "storing the cached state failed (err %d)", rc);
    return rc;
  }
  ClientCache& cache = clientCache();
  cache.cachedSeq = seq;
  cache.cachedLeader = state.leaderId;
  cache.cachedNodeList = state.config.nodes;
  cache.nlVersion = nodesFileVersion(state);
  return 0;
}

}  // namespace qcr
