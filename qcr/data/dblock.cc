#include "qcr/data/dblock.h"

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/text.h"

namespace qcr {

int PaxosDblockSummary::getSize() const {
  const int size = sizeVarUInt(seq) + mbal.getSize() + bal.getSize() + inp.getSize() +
                   sizeVarUInt(leaderChallengeVersion) + committed.getSize();
  qcrLog(7, "PaxosDblockSummary::getSize() returns: %d", size);
  return size;
}

uint8_t* PaxosDblockSummary::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  uint8_t* p = inp.write(bal.write(mbal.write(putVarUInt(pBuffer, seq))));
  pBuffer = committed.write(putVarUInt(p, leaderChallengeVersion));
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* PaxosDblockSummary::read(const uint8_t* p, const uint8_t* end) {
  p = inp.read(bal.read(mbal.read(getVarInt32(p, end, &seq), end), end), end);
  return committed.read(getVarInt32(p, end, &leaderChallengeVersion), end);
}

std::string PaxosDblockSummary::toString() const {
  return strCat({"<seq=", std::to_string(seq), " mbal=", mbal.toString(), " bal=", bal.toString(),
                 " inp=", inp.toString(), " chall=", std::to_string(leaderChallengeVersion),
                 " committed=", committed.toString(), ">"});
}

int PaxosFileData::getSize() const {
  const int size = sizeVarUInt(epoch) + sizeVarUInt(slotAssignmentVersion) + dblk.getSize();
  qcrLog(7, "PaxosFileData::getSize() returns: %d", size);
  return size;
}

uint8_t* PaxosFileData::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = dblk.write(putVarUInt(putVarUInt(pBuffer, epoch), slotAssignmentVersion));
  QCR_ASSERT(pBuffer == origBuffer + getSize());
  return pBuffer;
}

const uint8_t* PaxosFileData::read(const uint8_t* p, const uint8_t* end, int fmtVersion) {
  p = getVarInt32(p, end, &epoch);
  slotAssignmentVersion = 0;
  if (fmtVersion >= 1) p = getVarInt32(p, end, &slotAssignmentVersion);
  return dblk.read(p, end);
}

std::string PaxosFileData::toString() const {
  return strCat({"<epoch=", std::to_string(epoch), " sav=", std::to_string(slotAssignmentVersion),
                 " dblk=", dblk.toString(), ">"});
}

}  // namespace qcr
