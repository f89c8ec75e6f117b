#include "qcr/data/paxos_config.h"

#include <cinttypes>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/text.h"

namespace qcr {

namespace {

constexpr int kListen = 1;
constexpr int kHasVersion = 2;

}  // namespace

int ConfigNodeEntry::getSize() const {
  const int flags = (listen ? kListen : 0) | (version != 0 ? kHasVersion : 0);
  return sizeVarUInt(nodeId) + sizeVarUInt(diskSlot, -1) + sizeVarUInt(flags) +
         (version != 0 ? sizeVarUInt(version) : 0);
}

uint8_t* ConfigNodeEntry::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  const int flags = (listen ? kListen : 0) | (version != 0 ? kHasVersion : 0);
  pBuffer = putVarUInt(putVarUInt(putVarUInt(pBuffer, nodeId), diskSlot, -1), flags);
  if (version != 0) pBuffer = putVarUInt(pBuffer, version);
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* ConfigNodeEntry::read(const uint8_t* p, const uint8_t* end) {
  int32_t flags = 0;
  p = getVarInt32(getVarInt32(getVarInt32(p, end, &nodeId), end, &diskSlot, -1), end, &flags);
  listen = (flags & kListen) != 0;
  version = 0;
  if (p != nullptr && (flags & kHasVersion)) {
    p = getVarInt32(p, end, &version);
    // A present version of 0 would not be written back the same way.
    if (version == 0) return nullptr;
  }
  return p;
}

std::string ConfigNodeEntry::toString() const {
  return strCat({"(N", std::to_string(nodeId), ",S", std::to_string(diskSlot), ",V",
                 std::to_string(version), ",L", listen ? "1" : "0", ")"});
}

PaxosConfig::PaxosConfig(const NodeList& nodeList, const DiskList& diskList, int minNodesIn)
    : minNodes(minNodesIn) {
  qcrLog(7, "PaxosConfig(NodeList, DiskList, int): this=0x%lx",
         static_cast<unsigned long>(reinterpret_cast<uintptr_t>(this)));
  for (const NodeEntry& n : nodeList) {
    const int index = static_cast<int>(nodes.size());
    nodes.push_back({n.id, index < MaxPaxosSlots ? index : -1, 0, true});
  }
  for (const DiskEntry& d : diskList) disks.push_back(d.id);
}

int PaxosConfig::getSize() const {
  int size = sizeVarUInt(static_cast<int64_t>(nodes.size()));
  for (const ConfigNodeEntry& n : nodes) size += n.getSize();
  size += sizeVarUInt(static_cast<int64_t>(disks.size()));
  for (int32_t d : disks) size += sizeVarUInt(d);
  return size + sizeVarUInt(minNodes, -1);
}

uint8_t* PaxosConfig::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = putVarUInt(pBuffer, static_cast<int64_t>(nodes.size()));
  for (const ConfigNodeEntry& n : nodes) pBuffer = n.write(pBuffer);
  pBuffer = putVarUInt(pBuffer, static_cast<int64_t>(disks.size()));
  for (int32_t d : disks) pBuffer = putVarUInt(pBuffer, d);
  pBuffer = putVarUInt(pBuffer, minNodes, -1);
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* PaxosConfig::read(const uint8_t* p, const uint8_t* end) {
  int32_t count = 0;
  p = getCount(p, end, &count, 3);
  nodes.assign(static_cast<size_t>(count), ConfigNodeEntry{});
  for (ConfigNodeEntry& n : nodes) p = n.read(p, end);
  p = getCount(p, end, &count, 1);
  disks.assign(static_cast<size_t>(count), 0);
  for (int32_t& d : disks) p = getVarInt32(p, end, &d);
  return getVarInt32(p, end, &minNodes, -1);
}

std::string PaxosConfig::nodesToString() const {
  return listToString(nodes, [](const ConfigNodeEntry& n) { return n.toString(); });
}

std::string PaxosConfig::disksToString() const {
  return listToString(disks, [](int32_t d) { return std::to_string(d); });
}

std::string PaxosConfig::toString() const {
  return strCat({"<", nodesToString(), " ", disksToString(), " min=", std::to_string(minNodes), ">"});
}

int ConfigChange::getSize() const { return config.getSize() + 2; }

uint8_t* ConfigChange::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = putByte(putByte(pBuffer, setNodes ? 1 : 0), setDisks ? 1 : 0);
  pBuffer = config.write(pBuffer);
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* ConfigChange::read(const uint8_t* p, const uint8_t* end) {
  uint8_t n = 0, d = 0;
  p = getByte(getByte(p, end, &n), end, &d);
  if (n > 1 || d > 1) return nullptr;
  setNodes = n != 0;
  setDisks = d != 0;
  return config.read(p, end);
}

std::string ConfigChange::toString() const {
  std::string text = "<";
  if (setNodes) text.append(config.nodesToString()).append(" ");
  if (setDisks) text.append(config.disksToString()).append(" ");
  if (config.minNodes >= 0) text.append("min=").append(std::to_string(config.minNodes));
  return text.append(">");
}

}  // namespace qcr
