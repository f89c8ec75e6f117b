// The client's cached picture of the repository and the order in which it asks
// the servers.
//
// The cache starts from the cached state file (the state this machine last saw)
// and improves with every reply that carries a newer sequence number. It decides
// which server is asked first: by default a read asks this machine's own quorum
// node and a change asks the cached leader, then the other nodes, lowest id first.
// QCR_SERVER_ORDERING selects the order: 0 always the read order, 1 always the
// change order, 2 (the default) by the kind of request.
//
// One run, one thread: the command path reads and updates the cache.
#pragma once

#include <cstdint>
#include <vector>

#include "basic/clock.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/node_list.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

inline constexpr int kOrderLocalFirst = 0;
inline constexpr int kOrderLeaderFirst = 1;
inline constexpr int kOrderByRequest = 2;

struct ClientCache {
  std::vector<int> serverIds;      // node ids in the order they are tried
  int32_t cachedSeq = -1;          // highest committed sequence number seen
  int32_t cachedLeader = -1;       // leader of that state
  std::vector<ConfigNodeEntry> cachedNodeList;  // member nodes of that state
  int32_t nlVersion = -1;          // version of its committed qcr.nodes, -1 for none
  uint64_t clusterId = 0;          // learnt from the first connection that reports one
  int32_t serverOrdering = kOrderByRequest;
};

// The one cache of this process.
ClientCache& clientCache();

// The clock that schedules the client's attempts: the system clock unless a test
// put another in its place (null restores the system clock).
Clock& clientClock();
void setClientClock(Clock* clock);

// The order in which to ask the servers of nodes (file order): sorted by node id,
// then by priority, highest first. The read order gives localNodeId 3, a listening
// member of config 2 and any other node 1; the change order gives the leader 100
// when it listens, another listening member 100 minus its id, any other node 1.
std::vector<int> orderServers(const NodeList& nodes, const PaxosConfig& config,
                              int32_t localNodeId, int32_t leaderId, bool leaderFirst);

// Whether requests of this kind ask the leader first under the ordering mode.
bool asksLeaderFirst(int ordering, bool update);

// Initialises the client for one run: the ordering mode from QCR_SERVER_ORDERING,
// the server order from the session's node list, the cache from the cached state
// file. update is set for requests that change the repository. 0, or the error of
// loading the cached state (the servers then keep the node list's order).
[[nodiscard]] int PaxosInit(bool update);

// Merges a received committed state with sequence number seq into the cache when
// seq is newer and the leader, the node list or the cluster id changed: stores it
// as the cached state and, when the node list changed, brings the local node list
// file up to date. clusterId is the replying connection's (0 when unknown); the
// first one seen becomes the expected cluster of later connections, and counts as
// a change only when it differs from the session's (the cached state file's).
void updateClientCache(int32_t seq, const CommittedState& state, uint64_t clusterId);

// Keeps state with sequence number seq as the cached state (file and cache).
// 0 or the store's error, which leaves the cache as it was.
[[nodiscard]] int storeCachedState(int32_t seq, const CommittedState& state);

// The version of the committed qcr.nodes in state, -1 when it holds none.
int32_t nodesFileVersion(const CommittedState& state);

}  // namespace qcr
