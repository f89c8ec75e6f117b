// What chnodes, chdisks, lsnodes and lsdisks compute between their requests:
// which nodes a change adds, keeps and removes, the Paxos slots of the new
// configuration, whether the new node set can form a quorum, which disks a
// change adds, and the listings. Pure functions: no server, no file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "qcr/data/committed_state.h"
#include "qcr/data/dblock.h"
#include "qcr/data/node_list.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

// The removal mark of an old node kept in the intermediate list (NodeEntry::flag).
inline constexpr uint8_t kNodeRemoved = 1;

// The slot entry of node id in config: its entry when it holds a slot, else null.
const ConfigNodeEntry* slotEntryOf(const PaxosConfig& config, int32_t id);

// A node list change, from the current list to the new one.
struct NodeChangePlan {
  // The common and added nodes in the new list's order, then the old nodes that
  // still hold a slot, carrying kNodeRemoved. Committed until the change is done.
  NodeList intermediate;
  NodeList added;  // nodes of the new list that the current one lacks
  // The nodes to initialise: the added ones and every listed node without a slot
  // (a change interrupted before its init left such nodes in the current list).
  NodeList initTargets;
  int nCommon = 0;
  int nOldActive = 0;    // old nodes not in the new list that hold a slot
  int nOldInactive = 0;  // old nodes not in the new list without one
};

// Classifies the nodes by id (the new list's entries win for common nodes) and
// asserts that the three groups add up.
NodeChangePlan classifyNodes(const NodeList& current, const NodeList& next,
                             const PaxosConfig& config);

// The number of nodes of the new list that must be up: with tiebreaker disks
// configured their minQuorumNodes (at least 1); otherwise of nNew nodes, by
// quorumOption, 1 (-W): nNew / 2, 2 (-Q): 1, else nNew / 2 + 1.
int requiredQuorum(const PaxosConfig& config, int nNew, int quorumOption);

// Node statuses as servers report them.
inline constexpr int kStatusUp = 2;      // serving; below this: down
inline constexpr int kStatusJoined = 4;  // the file system daemon joined its cluster

// Decides whether the new list can form a quorum, given the status of every node
// of the intermediate list (missing ones count 0). When any node of the
// intermediate list reports joined, only joined nodes count. 0, or 809 after the
// report on *msgP.
[[nodiscard]] int evaluateQuorum(const NodeList& intermediate, const NodeList& next,
                                 const std::map<int32_t, int>& statusById, int required,
                                 std::string* msgP);

// The slot list of the new configuration: the nodes of the intermediate list in
// order, skipping removed ones, at most MaxPaxosSlots. A node with a slot keeps it
// and its version; a new one takes the lowest slot free among the kept ones, with
// version configVersion + 1. Every entry listens.
std::vector<ConfigNodeEntry> assignSlots(const NodeList& intermediate, const PaxosConfig& config,
                                         int32_t configVersion);

// The intermediate list without its removed nodes, and whether any was removed.
NodeList withoutRemoved(const NodeList& intermediate, bool* anyRemovedP);

// The dblock that new nodes and disks start from: sequence number 0, no ballots,
// nothing accepted, the committed state holding only the current configuration
// and its version, so that the current members are the ones whose messages the
// newcomer takes and the state they send it is adopted.
PaxosDblockSummary initialDblock(const CommittedState& state);

// A disk list change. Disks are the same when their labels are; a disk of the
// new list that the current one holds keeps its id, an added one gets the next id
// above the current ones, in list order.
struct DiskChangePlan {
  DiskList next;       // the new list with its settled ids
  DiskList added;      // disks of next that the current list lacks
  DiskList unionList;  // the current disks (those not in next marked old), then added
  DiskList finalList;  // unionList without the old ones
  std::vector<int32_t> cfgDisks;  // the ids of next
  bool unchanged = false;         // next holds exactly the current disks
};
DiskChangePlan planDisks(const DiskList& current, const DiskList& parsed);

// "ip:port", the IPv6 address in brackets.
std::string nodeAddressText(const NodeEntry& node);
// "[d1 'label1', d2 'label2']" for traces.
std::string diskListToString(const DiskList& disks);
// "[1, 2]" for traces.
std::string idListToString(const std::vector<int32_t>& ids);

// The lsnodes and lsdisks listings, as a table or as colon-separated records
// (machineReadable).
std::string nodeListing(const NodeList& nodes, const PaxosConfig& config, bool machineReadable);
std::string diskListing(const DiskList& disks, const PaxosConfig& config, bool machineReadable);

}  // namespace qcr
