// The cluster configuration agreed by Paxos: the member nodes with their Paxos
// slots, the tiebreaker disks and the minimum number of quorum nodes; and the
// configuration change that a "cu" update carries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/data/node_list.h"

namespace qcr {

inline constexpr int MaxPaxosSlots = 8;

// One member node of the configuration.
struct ConfigNodeEntry {
  int32_t nodeId = 0;
  int32_t diskSlot = -1;  // -1: the node holds no Paxos slot
  int32_t version = 0;    // 0: none
  bool listen = false;

  bool operator==(const ConfigNodeEntry&) const = default;
  // VarUInt nodeId; VarUInt diskSlot (base -1); VarUInt flags (bit 0 listen, bit 1
  // version present); VarUInt version only when present.
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "(N<id>,S<slot>,V<version>,L<0|1>)".
  std::string toString() const;
};

class PaxosConfig {
 public:
  PaxosConfig() = default;
  // The initial configuration of a new repository: every listed node, the first
  // MaxPaxosSlots of them holding slots 0, 1, ... in list order, all listening.
  PaxosConfig(const NodeList& nodeList, const DiskList& diskList, int minNodes);

  bool operator==(const PaxosConfig&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "<[nodes] [disks] min=<minNodes>>".
  std::string toString() const;
  std::string nodesToString() const;
  std::string disksToString() const;

  std::vector<ConfigNodeEntry> nodes;
  std::vector<int32_t> disks;
  int32_t minNodes = -1;  // -1: not set
};

// The body of a configuration update: which parts of the configuration it replaces
// and their new values.
struct ConfigChange {
  bool setNodes = false;
  bool setDisks = false;
  PaxosConfig config;

  bool operator==(const ConfigChange&) const = default;
  // One byte each for setNodes and setDisks, then the configuration.
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "<", the node list and a blank when setNodes, the disks and a blank when
  // setDisks, "min=<n>" when minNodes >= 0, ">".
  std::string toString() const;
};

}  // namespace qcr
