#include "qcr/data/node_list.h"

#include "basic/assert.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/text.h"

namespace qcr {

int NodeEntry::getSize() const {
  return sizeVarUInt(id, -1) + 1 + sizeString(name) + sizeString(addr) + sizeVarUInt(port);
}

uint8_t* NodeEntry::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = putByte(putVarUInt(pBuffer, id, -1), flag);
  pBuffer = putVarUInt(putString(putString(pBuffer, name), addr), port);
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* NodeEntry::read(const uint8_t* p, const uint8_t* end) {
  p = getByte(getVarInt32(p, end, &id, -1), end, &flag);
  return getVarInt32(getString(getString(p, end, &name), end, &addr), end, &port);
}

std::string NodeEntry::toString() const {
  return strCat({std::to_string(id), ":", name, "(", addr, ":", std::to_string(port), ")"});
}

int sizeNodeList(const NodeList& list) {
  int size = sizeVarUInt(static_cast<int64_t>(list.size()));
  for (const NodeEntry& e : list) size += e.getSize();
  return size;
}

uint8_t* putNodeList(uint8_t* p, const NodeList& list) {
  p = putVarUInt(p, static_cast<int64_t>(list.size()));
  for (const NodeEntry& e : list) p = e.write(p);
  return p;
}

const uint8_t* getNodeList(const uint8_t* p, const uint8_t* end, NodeList* listP) {
  int32_t count = 0;
  p = getCount(p, end, &count, 5);
  listP->assign(static_cast<size_t>(count), NodeEntry{});
  for (NodeEntry& e : *listP) p = e.read(p, end);
  return p;
}

std::string nodeListToString(const NodeList& list) {
  return listToString(list, [](const NodeEntry& e) { return e.toString(); });
}

}  // namespace qcr
