#include "qcr/client/client.h"

#include <cstdlib>
#include <string>

#include "basic/log.h"
#include "qcr/client/local_node.h"
#include "qcr/data/state_file.h"

namespace qcr {

namespace {

std::string idsText(const std::vector<int>& ids) {
  std::string text = "[";
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(ids[i]);
  }
  return text + "]";
}

}  // namespace

int serversSession(const NodeList& nodes, Session* sessionP) {
  *sessionP = Session{};
  sessionP->nodeList = nodes;
  sessionP->nodeListValid = true;
  // No address of this machine counts: a client without files is no quorum node.
  return settleLocalNode({}, sessionP);
}

Client::Client(Session session, Clock& clock) : session_(std::move(session)), clock_(clock) {
  for (const NodeEntry& node : session_.nodeList) cache_.serverIds.push_back(node.id);
}

int Client::PaxosInit(bool update) {
  ClientCache& cache = cache_;
  const Session& s = session_;
  if (const char* env = std::getenv("QCR_SERVER_ORDERING"); env != nullptr) {
    session_.serverOrdering = std::atoi(env);
  }
  const bool leaderFirst = asksLeaderFirst(s.serverOrdering, update);
  if (!keepsFiles()) {
    // The cache is all this client knows: order by it when it holds a state.
    PaxosConfig config;
    config.nodes = cache.cachedNodeList;
    cache.serverIds.clear();
    for (const NodeEntry& node : s.nodeList) cache.serverIds.push_back(node.id);
    if (cache.cachedSeq >= 0) {
      cache.serverIds = orderServers(s.nodeList, config, -1, cache.cachedLeader, leaderFirst);
    }
    if (qcrLogShown(4)) qcrLog(4, "PaxosInit serverIds: %s", idsText(cache.serverIds).c_str());
    return 0;
  }
  cache.serverIds.clear();
  for (const NodeEntry& node : s.nodeList) cache.serverIds.push_back(node.id);
  cache.cachedSeq = -1;
  cache.cachedLeader = -1;
  cache.cachedNodeList.clear();
  cache.nlVersion = -1;

  PaxosLocalFile cached;
  if (const int rc = cached.loadFromFile(s.paths.cachedPaxosFile, &session_.clusterId); rc != 0) {
    qcrLog(4, "PaxosInit: cannot load cached state '%s' (err %d)", s.paths.cachedPaxosFile.c_str(),
           rc);
    if (qcrLogShown(4)) qcrLog(4, "PaxosInit serverIds: %s", idsText(cache.serverIds).c_str());
    return rc;
  }
  const CommittedState& state = cached.data.dblk.committed;
  cache.serverIds =
      orderServers(s.nodeList, state.config, s.localNodeId, state.leaderId, leaderFirst);
  cache.cachedSeq = cached.data.dblk.seq;
  cache.cachedLeader = state.leaderId;
  cache.cachedNodeList = state.config.nodes;
  cache.nlVersion = nodesFileVersion(state);
  if (qcrLogShown(4)) {
    qcrLog(4, "PaxosInit: seq %d, leader %d, nl '%s'", cache.cachedSeq, cache.cachedLeader,
           state.config.nodesToString().c_str());
  }
  if (qcrLogShown(4)) qcrLog(4, "PaxosInit serverIds: %s", idsText(cache.serverIds).c_str());
  return 0;
}

void Client::updateClientCache(int32_t seq, const CommittedState& state, uint64_t clusterId) {
  ClientCache& cache = cache_;
  if (seq <= cache.cachedSeq) return;
  const bool leaderChange = cache.cachedLeader != state.leaderId;
  const bool nlChange = cache.cachedNodeList != state.config.nodes;
  // The cached state file records the cluster it belongs to, and loading it made
  // that id known to the session: a connection that reports the same id is no
  // change, and rewriting the file (with its sync) for it would be wasted.
  const bool cidLearnt = clusterId != 0 && cache.clusterId == 0;
  const bool cidChange = cidLearnt && clusterId != session_.clusterId;
  if (cidLearnt) {
    cache.clusterId = clusterId;
    // Later connections of this client must reach the same cluster.
    session_.clusterId = clusterId;
    expectedClusterId_ = clusterId;
  }
  if (!leaderChange && !nlChange && !cidChange) return;
  qcrLog(2, "updateClientCache: leaderChange %d, nlChange %d, cidChange %d\n", leaderChange,
         nlChange, cidChange);
  if (storeCachedState(seq, state) != 0) return;
  if (nlChange) checkLocalNodesFile(state);
}

int Client::storeCachedState(int32_t seq, const CommittedState& state) {
  if (keepsFiles()) {
    PaxosFileData data;
    data.dblk.seq = seq;
    data.dblk.committed = state;
    if (const int rc = storeWithReplacement(data, {session_.clusterId, session_.localNodeId},
                                               session_.paths.cachedPaxosFile);
        rc != 0) {
      qcrLog(1, "storing the cached state failed (err %d)", rc);
      return rc;
    }
  }
  cache_.cachedSeq = seq;
  cache_.cachedLeader = state.leaderId;
  cache_.cachedNodeList = state.config.nodes;
  cache_.nlVersion = nodesFileVersion(state);
  return 0;
}

}  // namespace qcr
