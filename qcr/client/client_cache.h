// The client's cached picture of the repository and the order in which it asks
// the servers.
//
// The cache starts from the cached state file (the state this machine last saw)
// and improves with every reply that carries a newer sequence number. It decides
// which server is asked first: by default a read asks this machine's own quorum
// node and a change asks the cached leader, then the other nodes, lowest id first.
// The session's ordering mode (QCR_SERVER_ORDERING) may select one order for all.
// Each Client owns one cache (qcr/client/client.h).
#pragma once

#include <cstdint>
#include <vector>

#include "qcr/data/committed_state.h"
#include "qcr/data/node_list.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

struct ClientCache {
  std::vector<int> serverIds;      // node ids in the order they are tried
  int32_t cachedSeq = -1;          // highest committed sequence number seen
  int32_t cachedLeader = -1;       // leader of that state
  std::vector<ConfigNodeEntry> cachedNodeList;  // member nodes of that state
  int32_t nlVersion = -1;          // version of its committed qcr.nodes, -1 for none
  uint64_t clusterId = 0;          // learnt from the first connection that reports one
};

// The order in which to ask the servers of nodes (file order): sorted by node id,
// then by priority, highest first. The read order gives localNodeId 3, a listening
// member of config 2 and any other node 1; the change order gives the leader 100
// when it listens, another listening member 100 minus its id, any other node 1.
std::vector<int> orderServers(const NodeList& nodes, const PaxosConfig& config,
                              int32_t localNodeId, int32_t leaderId, bool leaderFirst);

// Whether requests of this kind ask the leader first under the ordering mode.
bool asksLeaderFirst(int ordering, bool update);

// The version of the committed qcr.nodes in state, -1 when it holds none.
int32_t nodesFileVersion(const CommittedState& state);

}  // namespace qcr
