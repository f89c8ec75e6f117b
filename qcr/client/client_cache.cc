#include "qcr/client/client_cache.h"

#include <algorithm>

#include "qcr/client/session.h"
#include "qcr/data/file_names.h"

namespace qcr {

namespace {

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

}  // namespace qcr
