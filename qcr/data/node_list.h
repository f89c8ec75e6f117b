// The member lists kept in the local list files: quorum nodes (qcr.nodes) and
// tiebreaker disks (qcr.disks). list_files.h reads and writes their text form; the
// serialised form of a node list travels in the server initialisation message.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qcr {

struct NodeEntry {
  int32_t id = -1;   // 1 and up; -1 while not yet assigned
  uint8_t flag = 0;  // bit 0: an old node kept only until a node list change completes
  std::string name;  // host name
  std::string addr;  // address text as given in the list
  int32_t port = 0;

  bool operator==(const NodeEntry&) const = default;
  // VarUInt id (base -1), flag byte, name, addr, VarUInt port.
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "<id>:<name>(<addr>:<port>)".
  std::string toString() const;
};
using NodeList = std::vector<NodeEntry>;

struct DiskEntry {
  int32_t id = 0;
  uint8_t old = 0;    // bit 0: the disk is being replaced
  std::string label;  // label or path

  bool operator==(const DiskEntry&) const = default;
};
using DiskList = std::vector<DiskEntry>;

// A VarUInt count, then the entries.
int sizeNodeList(const NodeList& list);
uint8_t* putNodeList(uint8_t* p, const NodeList& list);
const uint8_t* getNodeList(const uint8_t* p, const uint8_t* end, NodeList* listP);

// "[e1, e2]" with the entries' renderings.
std::string nodeListToString(const NodeList& list);

}  // namespace qcr
