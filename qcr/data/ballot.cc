#include "qcr/data/ballot.h"

#include "basic/assert.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/text.h"

namespace qcr {

int Ballot::getSize() const { return sizeVarUInt(number) + sizeVarUInt(node); }

uint8_t* Ballot::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = putVarUInt(putVarUInt(pBuffer, number), node);
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* Ballot::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(getVarInt32(p, end, &number), end, &node);
}

std::string Ballot::toString() const {
  return strCat({"(", std::to_string(number), ".", std::to_string(node), ")"});
}

}  // namespace qcr
