// The exchanges of the membership commands (lsnodes, chnodes, lsdisks,
// chdisks) with the servers: fetching and committing the node and disk lists,
// asking nodes for their status, initialising new servers, and configuration
// changes. Each prints its failure on standard error in the command's words and
// returns 0 or the code that ends the command.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/client/client.h"
#include "qcr/cmd/context.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/dblock.h"
#include "qcr/data/node_list.h"

namespace qcr {

inline constexpr char kNodesListName[] = "qcr.nodes";
inline constexpr char kDisksListName[] = "qcr.disks";

// Where a list file is kept while it is fetched or committed: "/tmp/<name>" in
// the product layout; in the test layout the session's cached directory, so that
// tools of several test repositories on one machine do not share it.
std::string listTempPath(const Session& session, const std::string& name);

// The committed node list, with the committed state it came with and the
// repository's cluster id; the list also becomes the session's and the local
// node list file. "Failed to retrieve current node list (err %d)".
[[nodiscard]] int getCurrentNodeList(Client& client, uint64_t* clusterIdP, CommittedState* stateP,
                                     NodeList* nodesP);
// The same for the disk list (the session's disk list and the local qcr.disks).
// "Failed to retrieve current disk list (err %d)".
[[nodiscard]] int getCurrentDiskList(Client& client, uint64_t* clusterIdP, CommittedState* stateP,
                                     DiskList* disksP);

// Puts the list as the committed list file: 0 or the request's error (no message).
[[nodiscard]] int commitNodeList(Client& client, const NodeList& nodes, int quorumOption);
[[nodiscard]] int commitDiskList(Client& client, const DiskList& disks);

// Asks every node of intermediate for its status, one after another (a node that
// does not answer counts as down), and decides whether the nodes of next can form
// a quorum of required nodes (evaluateQuorum). 0 or 809 after the report.
[[nodiscard]] int verifyQuorum(Client& client, const NodeList& intermediate, const NodeList& next,
                               int required);

// Sends the init message (cluster id, nodes, dblock and its configuration) to
// every node of targets; "initialize %s failed (err %d)" for each that refuses or
// cannot be reached. *numSuccessP, when given, counts the nodes initialised.
// 0 or the last error.
[[nodiscard]] int initServers(Client& client, uint64_t clusterId, const NodeList& targets,
                              const NodeList& nodes, const PaxosDblockSummary& dblock,
                              int* numSuccessP = nullptr);

// Sends a configuration change computed from configVersion; *stateP gets the
// state it was committed in. "config update failed: err %d".
[[nodiscard]] int updateConfig(Client& client, const ConfigChange& change, int32_t configVersion,
                               int quorumOption, CommittedState* stateP);

// The lsnodes and lsdisks listings (-Y: records) on standard output, once the
// command prologue ran; config prints both.
[[nodiscard]] int printNodeListing(CommandContext& ctx);
[[nodiscard]] int printDiskListing(CommandContext& ctx);

}  // namespace qcr
